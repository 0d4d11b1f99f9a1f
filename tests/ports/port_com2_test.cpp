#include "ports/port_com2.h"

#include <array>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <memory>
#include <stdexcept>
#include <unistd.h>

#include "common/milestone.h"
#include "common/process_copy.h"
#include "connections/com2_conn.h"
#include "framework/tess_messages.h"
#include "tests/support/log_capture.h"
#include "tests/support/open_descriptors.h"
#include "tests/support/private_mounts.h"
#include "tests/support/pty_line.h"
#include "tests/support/readable.h"
#include "tests/support/same_settings.h"
#include "tests/support/waiting.h"

using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

const LogLine portClosed{36102, "COM2 port closed"};
const LogLine connClosed{36102, "COM2 connection closed"};

/// A pseudo-terminal is the line.
class PortCom2 : public testing::Test {
protected:
    void SetUp() override
    {
        if (!privateMountsProblem().empty()) GTEST_SKIP() << privateMountsProblem();
        far = std::make_unique<PtyLine>();
        far->plugInto(COM2_DEVICE);
        line = far->open();
    }
    void TearDown() override
    {
        if (line >= 0) ::close(line);
        far.reset();
        fs::remove(COM2_DEVICE);
    }

    /// The line's settings now.
    termios settings() const
    {
        termios tio{};
        EXPECT_EQ(::tcgetattr(line, &tio), 0);
        return tio;
    }

    std::unique_ptr<PtyLine> far;
    int line = -1; ///< the same line, opened once more
};

/// The problem that making a port ends with.
std::string problem()
{
    try {
        const TPortCom2 port;
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "none";
}

/// Without its speed, which a pseudo-terminal keeps apart.
tcflag_t controlFlags(const termios& tio)
{
    return tio.c_cflag & ~static_cast<tcflag_t>(CBAUD);
}

/// Index and value of all control characters that are set, as the processor numbers them.
std::vector<std::pair<int, int>> setCharacters(const termios& tio)
{
    std::vector<std::pair<int, int>> set;
    for (int i = 0; i < NCCS; ++i)
        if (tio.c_cc[i] != 0) set.emplace_back(i, tio.c_cc[i]);
    return set;
}

} // namespace

TEST_F(PortCom2, OpensWithItsNumbers)
{
    const TPortCom2 port;
    EXPECT_TRUE(port.isOpen);
    EXPECT_GE(port.fd, 0);
    EXPECT_EQ(port.portType, 1U);
    EXPECT_EQ(port.maxConns, 1);
    EXPECT_EQ(port.activeConns, 0);
    EXPECT_EQ(port.nextConnId, 0x0055'0000U);
    EXPECT_NE(::fcntl(port.fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(::fcntl(port.fd, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_NE(::fcntl(port.fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_FALSE(port.wantsInput) << "what is typed is for its connection";
    EXPECT_EQ(port.due, AT_ONCE);
}

TEST_F(PortCom2, SetsTheLineByName)
{
    const TPortCom2 port;
    for (const termios& tio : {port.portTio, settings()}) {
        EXPECT_EQ(tio.c_iflag, static_cast<tcflag_t>(IGNPAR | ICRNL | IXOFF));
        EXPECT_EQ(tio.c_oflag, static_cast<tcflag_t>(OPOST));
        EXPECT_EQ(controlFlags(tio), static_cast<tcflag_t>(CS8 | CREAD | CLOCAL));
        EXPECT_EQ(tio.c_lflag, static_cast<tcflag_t>(ICANON));
        EXPECT_EQ(tio.c_line, 0);
        EXPECT_EQ(::cfgetispeed(&tio), static_cast<speed_t>(B38400));
        EXPECT_EQ(::cfgetospeed(&tio), static_cast<speed_t>(B38400));
        struct Character {
            const char* name;
            int index;
            int value;
        };
        const Character characters[] = {
            {"VINTR", VINTR, 0x03},   {"VQUIT", VQUIT, 0x1C},       {"VERASE", VERASE, 0x08},
            {"VKILL", VKILL, 0x17},   {"VEOF", VEOF, 0x04},         {"VMIN", VMIN, 1},
            {"VEOL", VEOL, 0},        {"VTIME", VTIME, 0},          {"VEOL2", VEOL2, 0},
            {"VSWTC", VSWTC, 0},      {"VWERASE", VWERASE, 0x17},   {"VREPRINT", VREPRINT, 0x12},
            {"VSUSP", VSUSP, 0x1A},   {"VSTART", VSTART, 0x11},     {"VSTOP", VSTOP, 0x13},
            {"VLNEXT", VLNEXT, 0x16}, {"VDISCARD", VDISCARD, 0x15},
        };
        for (const Character& character : characters)
            EXPECT_EQ(tio.c_cc[character.index], character.value) << character.name;
    }
    // As this C library numbers the speed; a newer one may keep it elsewhere.
    termios speed{};
    ASSERT_EQ(::cfsetospeed(&speed, B38400), 0);
    EXPECT_EQ(port.portTio.c_cflag, speed.c_cflag | static_cast<tcflag_t>(CS8 | CREAD | CLOCAL));
    EXPECT_EQ(port.portTio.c_cc[27], 0x18) << "which the kernel does not give back";
    EXPECT_EQ(setCharacters(port.portTio).size(), 14U) << "and nothing else is set";
}

#ifdef __powerpc__

TEST_F(PortCom2, SetsTheLineInTheTargetsOwnNumbers)
{
    const TPortCom2 port;
    EXPECT_EQ(port.portTio.c_iflag, 0x504U);
    EXPECT_EQ(port.portTio.c_oflag, 0x1U);
    EXPECT_EQ(port.portTio.c_cflag, 0x8B0FU);
    EXPECT_EQ(port.portTio.c_lflag, 0x100U);
    EXPECT_EQ(::cfgetispeed(&port.portTio), 0xFU);
    EXPECT_EQ(::cfgetospeed(&port.portTio), 0xFU);
    const std::vector<std::pair<int, int>> expected = {
        {0, 0x03},  {1, 0x1C},  {2, 0x08},  {3, 0x17},  {4, 0x04},  {5, 1},     {10, 0x17},
        {11, 0x12}, {12, 0x1A}, {13, 0x11}, {14, 0x13}, {15, 0x16}, {16, 0x15}, {27, 0x18},
    };
    EXPECT_EQ(setCharacters(port.portTio), expected);
}

#endif

TEST_F(PortCom2, EditsALineAsItIsSet)
{
    TPortCom2 port;
    TPortConn* conn = nullptr;
    ASSERT_EQ(port.chkNewConn(&conn), 1);
    struct Row {
        const char* behaviour;
        const char* typed;
        const char* read;
    };
    const Row rows[] = {
        {"CR ends a line", "SETX 5\r", "SETX 5"},
        {"LF too", "SETX 5\n", "SETX 5"},
        {"Ctrl-H erases",
         "ab\x08"
         "c\r",
         "ac"},
        {"DEL does not",
         "ab\x7F"
         "c\r",
         "ab\x7F"
         "c"},
        {"Ctrl-W is set for word and line, and Linux takes the word", "one two\x17three\r", "one three"},
        {"Ctrl-U does not", "one\x15two\r", "one\x15two"},
        {"Ctrl-C is a character",
         "a\x03"
         "b\r",
         "a\x03"
         "b"},
        {"Ctrl-V is a character",
         "a\x16"
         "b\r",
         "a\x16"
         "b"},
        {"8 bits", "\xE4\xFF\r", "\xE4\xFF"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        ASSERT_TRUE(far->type(row.typed));
        ASSERT_TRUE(isReadable(port.fd));
        ASSERT_EQ(conn->readCmd(), 1);
        EXPECT_EQ(readable(conn->cmds[0].text), readable(row.read));
    }
    EXPECT_EQ(far->received(), "") << "nothing is echoed";
    port.closeConn(&conn);
}

TEST_F(PortCom2, SendsLineEndsAsTheyAre)
{
    TPortCom2 port;
    TPortConn* conn = nullptr;
    ASSERT_EQ(port.chkNewConn(&conn), 1);
    TOrbAttachmentMsg record{};
    std::strcpy(record.text, "OK\r\n\r\n\tX\n");
    EXPECT_EQ(conn->write(&record), 0);
    EXPECT_EQ(readable(far->receive(9)), readable("OK\r\n\r\n\tX\n"));
    port.closeConn(&conn);
}

TEST_F(PortCom2, ThrowsAwayWhatWasTypedBeforeItOpens)
{
    ASSERT_TRUE(far->type("old\r"));
    ASSERT_TRUE(isReadable(line));
    TPortCom2 port;
    TPortConn* conn = nullptr;
    ASSERT_EQ(port.chkNewConn(&conn), 1);
    ASSERT_TRUE(far->type("new\r"));
    ASSERT_TRUE(isReadable(port.fd));
    EXPECT_EQ(conn->readCmd(), 1);
    EXPECT_STREQ(conn->cmds[0].text, "new");
    port.closeConn(&conn);
}

TEST_F(PortCom2, GivesTheLineItsSettingsBackWhenItCloses)
{
    termios before = settings();
    before.c_lflag |= static_cast<tcflag_t>(ECHO | ISIG);
    before.c_cc[VERASE] = 0x7F;
    ASSERT_EQ(::tcsetattr(line, TCSANOW, &before), 0);
    {
        const TPortCom2 port;
        EXPECT_EQ(port.savedTio.c_lflag, before.c_lflag);
        EXPECT_NE(settings().c_lflag, before.c_lflag);
    }
    expectSameSettings(settings(), before);
}

TEST_F(PortCom2, LeavesTheLineToTheOriginalWhenACopyCloses)
{
    TPortCom2 port;
    ASSERT_TRUE(far->type("for the original\r"));
    ASSERT_TRUE(isReadable(line));
    const LogCapture log;
    g_isCopy = true;
    EXPECT_EQ(port.closePort(), 0);
    g_isCopy = false;
    EXPECT_FALSE(port.isOpen);
    EXPECT_THAT(log.lines(), ElementsAre(portClosed));
    EXPECT_EQ(settings().c_lflag, static_cast<tcflag_t>(ICANON)) << "not as they were found";
    char typed[100];
    EXPECT_EQ(::read(line, typed, sizeof typed), 17);
}

TEST_F(PortCom2, HasOneConnectionAtATimeAndTheNextWhenThatHasGone)
{
    TPortCom2 port;
    const LogCapture log;
    TPortConn* conn = nullptr;
    ASSERT_EQ(port.chkNewConn(&conn), 1) << "before anybody has typed anything";
    EXPECT_EQ(conn->connId, 0x0056'0000U);
    EXPECT_EQ(conn->portId, 1U);
    EXPECT_EQ(conn->fd, port.fd);
    EXPECT_EQ(conn->loginState, 3);
    EXPECT_EQ(port.activeConns, 1);

    TPortConn* none = nullptr;
    EXPECT_FALSE(port.isDue(WaitSet())) << "there is one: nothing to ask for";
    EXPECT_EQ(port.chkNewConn(&none), 0);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(port.nextConnId, 0x0056'0000U);
    EXPECT_EQ(port.due, NEVER);

    EXPECT_EQ(port.closeConn(&conn), 0);
    EXPECT_EQ(conn, nullptr);
    EXPECT_EQ(port.activeConns, 0);
    EXPECT_NE(::fcntl(port.fd, F_GETFD), -1) << "the line stays open";
    EXPECT_TRUE(port.isDue(WaitSet())) << "the next one is wanted";
    EXPECT_FALSE(port.wantsInput);

    ASSERT_EQ(port.chkNewConn(&conn), 1);
    EXPECT_EQ(conn->connId, 0x0057'0000U);
    port.closeConn(&conn);
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{36103, "Open connection Com2 with ID = 0x550000"}, connClosed,
                                         LogLine{36103, "Open connection Com2 with ID = 0x560000"}, connClosed));
}

TEST_F(PortCom2, LeavesAnEmptySlotAlone)
{
    TPortCom2 port;
    TPortConn* none = nullptr;
    const LogCapture log;
    EXPECT_EQ(port.closeConn(&none), 0);
    EXPECT_EQ(port.activeConns, 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(PortCom2, StaysClosedWithoutItsDeviceButHasItsConnectionAllTheSame)
{
    fs::remove(COM2_DEVICE);
    const LogCapture log;
    {
        TPortCom2 port;
        EXPECT_FALSE(port.isOpen);
        EXPECT_LT(port.fd, 0);
        TPortConn* conn = nullptr;
        ASSERT_EQ(port.chkNewConn(&conn), 1);
        EXPECT_LT(conn->fd, 0);
        EXPECT_EQ(conn->readCmd(), 0);
        EXPECT_EQ(conn->due, NEVER);
        EXPECT_EQ(port.due, NEVER);
        TOrbAttachmentMsg record{};
        EXPECT_EQ(conn->write(&record), 1);
        EXPECT_EQ(conn->startMute(), 0);
        port.closeConn(&conn);
    }
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{36103, "Open connection Com2 with ID = 0x550000"}, connClosed))
        << "a port that was never open does not close";
}

TEST_F(PortCom2, ThrowsWhenItsDeviceIsNoTerminal)
{
    fs::remove(COM2_DEVICE);
    std::ofstream(COM2_DEVICE) << "a plain file";
    g_milestone = 0;
    EXPECT_EQ(problem(), "unable to get COM2 attributes");
    EXPECT_EQ(g_milestone.load(), 1002) << "an exception leaves the entry number";
}

TEST_F(PortCom2, LeavesItsDescriptorOpenWhenItThrows)
{
    fs::remove(COM2_DEVICE);
    std::ofstream(COM2_DEVICE) << "a plain file";
    const auto before = openDescriptors();
    EXPECT_NE(problem(), "none");
    EXPECT_EQ(openDescriptors(), before + 1);
}

TEST_F(PortCom2, ClosesOnce)
{
    TPortCom2 port;
    TPortConn* conn = nullptr;
    port.chkNewConn(&conn);
    const int fd = port.fd;
    const LogCapture log;
    EXPECT_EQ(port.closePort(), 0);
    EXPECT_FALSE(port.isOpen);
    EXPECT_EQ(port.activeConns, 0);
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
    const int taken = ::open("/dev/null", O_RDONLY | O_CLOEXEC); // gets the number that has become free
    ASSERT_EQ(taken, fd);
    EXPECT_EQ(port.closePort(), 0);
    EXPECT_NE(::fcntl(taken, F_GETFD), -1) << "the second call closes nothing";
    ::close(taken);
    EXPECT_THAT(log.lines(), ElementsAre(portClosed));
    port.closeConn(&conn);
    EXPECT_EQ(port.activeConns, -1) << "nothing checks the counter after that";
}

TEST_F(PortCom2, ClosesALineThatHasHungUp)
{
    const LogCapture log;
    {
        const TPortCom2 port;
        far->hangUp();
    }
    EXPECT_THAT(log.lines(), ElementsAre(portClosed));
}

TEST_F(PortCom2, LeavesTheNumbersOfItsProgress)
{
    auto port = std::make_unique<TPortCom2>();
    EXPECT_EQ(g_milestone.load(), 1001);
    TPortConn* conn = nullptr;
    port->chkNewConn(&conn);
    EXPECT_EQ(g_milestone.load(), 1007);
    TPortConn* none = nullptr;
    g_milestone = 0;
    port->chkNewConn(&none);
    EXPECT_EQ(g_milestone.load(), 1007);
    port->closeConn(&conn);
    EXPECT_EQ(g_milestone.load(), 1009);
    port->closePort();
    EXPECT_EQ(g_milestone.load(), 1005);
    port->openPort();
    EXPECT_EQ(g_milestone.load(), 1003);
    const int reopened = port->fd;
    g_milestone = 0;
    port.reset();
    EXPECT_EQ(g_milestone.load(), 1005);
    ::close(reopened); // opened behind the constructor's back: the port does not count it as open
}
