#include "connections/com2_conn.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <string>
#include <thread>

#include "connections/line_output.h"
#include "tests/support/conn_fixture.h"
#include "tests/support/conn_texts.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_mounts.h"
#include "tests/support/pty_line.h"
#include "tests/support/readable.h"
#include "tests/support/same_settings.h"
#include "tests/support/waiting.h"

using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class Com2Conn : public ConnFixture<TCom2Conn> {
protected:
    Com2Conn() : ConnFixture(1, 0x0056'0000) {}

    void SetUp() override
    {
        if (!privateMountsProblem().empty()) GTEST_SKIP() << privateMountsProblem();
        far = std::make_unique<PtyLine>();
        conn.fd = far->open();
        ASSERT_GE(conn.fd, 0);
        ASSERT_TRUE(PtyLine::makePlain(conn.fd));
        ASSERT_EQ(::fcntl(conn.fd, F_SETFL, O_NONBLOCK), 0);
    }
    void TearDown() override
    {
        if (conn.fd >= 0) ::close(conn.fd);
    }

    Texts typeAndRead(std::string_view bytes)
    {
        EXPECT_TRUE(far->type(bytes));
        EXPECT_TRUE(isReadable(conn.fd));
        return readLines();
    }

    /// Whether it is looked at a second after it was looked at last, and not before.
    bool rests() const
    {
        const auto left = conn.due - instantNow();
        return !conn.wantsInput && conn.due != NEVER && left <= std::chrono::seconds(1) &&
               left > std::chrono::seconds(-DEADLINE);
    }

    bool isCanonical() const
    {
        termios tio{};
        EXPECT_EQ(::tcgetattr(conn.fd, &tio), 0);
        return (tio.c_lflag & static_cast<tcflag_t>(ICANON)) != 0;
    }

    std::unique_ptr<PtyLine> far;
};

} // namespace

TEST_F(Com2Conn, StartsLoggedInAndNotMuted)
{
    EXPECT_EQ(conn.loginState, 3);
    EXPECT_EQ(conn.isSerialLine(), 1);
    EXPECT_EQ(conn.getPortId(), 1U);
    EXPECT_EQ(conn.connId, 0x0056'0000U);
    EXPECT_NE(conn.muteExpired(), 0);
    EXPECT_EQ(conn.hasTimedOut(), 0);
    EXPECT_EQ(conn.due, AT_ONCE);
}

TEST_F(Com2Conn, YieldsNothingWhileNothingHasArrived)
{
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(conn.readCmd(), 0);
        EXPECT_EQ(conn.rxLen, 0);
        EXPECT_TRUE(waitsForInput()) << "a look in vain is no reason to rest";
    }
}

TEST_F(Com2Conn, YieldsOneLineARead)
{
    EXPECT_THAT(typeAndRead("SETX 5\r*\r\r  A \n"), ElementsAre("SETX 5"));
    EXPECT_THAT(readLines(), ElementsAre("*"));
    EXPECT_THAT(readLines(), IsEmpty()) << "an empty line";
    EXPECT_EQ(conn.rxLen, 1);
    EXPECT_THAT(readLines(), ElementsAre("A "));
    EXPECT_EQ(conn.cmds[0].tag, 0U);
    EXPECT_EQ(conn.readCmd(), 0);
}

TEST_F(Com2Conn, TakesALineThatArrivesInPiecesWhenItIsWhole)
{
    for (const char c : "s3.ENC SETX 5"s) {
        ASSERT_TRUE(far->type({&c, 1}));
        EXPECT_EQ(conn.readCmd(), 0);
    }
    EXPECT_THAT(typeAndRead("\r"), ElementsAre("s3.ENC SETX 5"));
}

TEST_F(Com2Conn, TakesALongLineInReadsOf1024Bytes)
{
    EXPECT_THAT(typeAndRead(std::string(1500, 'x') + "\r"), ElementsAre(std::string(1024, 'x')));
    EXPECT_EQ(readLines().size(), 1U);
    EXPECT_EQ(conn.rxLen, 477);
}

TEST_F(Com2Conn, RunsAPieceWithoutALineEndOnIntoWhatALongerLineHasLeft)
{
    EXPECT_THAT(typeAndRead("0123456789\r"), ElementsAre("0123456789"));
    EXPECT_THAT(typeAndRead("AB\x04"), ElementsAre("AB23456789")) << "Ctrl-D ends the read";
    EXPECT_EQ(conn.rxLen, 2);
}

TEST_F(Com2Conn, DoesNotArmTheIdleTimer)
{
    letIdleTimeRunOut();
    EXPECT_THAT(typeAndRead("A\r"), ElementsAre("A"));
    EXPECT_TRUE(conn.idleTimer.hasTimedOut());
    EXPECT_EQ(conn.hasTimedOut(), 0) << "it never times out";
}

TEST_F(Com2Conn, TakesASingleEndOfFileForNothing)
{
    for (int i = 0; i < 2; ++i) {
        EXPECT_THAT(typeAndRead("\x04"), IsEmpty());
        EXPECT_EQ(result, 0);
        EXPECT_TRUE(waitsForInput());
    }
    EXPECT_THAT(typeAndRead("A\r"), ElementsAre("A"));
    for (int i = 0; i < 2; ++i) {
        EXPECT_THAT(typeAndRead("\x04"), IsEmpty());
        EXPECT_TRUE(waitsForInput()) << "bytes have come in between";
    }
}

TEST_F(Com2Conn, RestsAfterThreeReadsThatGaveNothingUntilOneGivesBytes)
{
    for (int i = 0; i < 3; ++i)
        EXPECT_THAT(typeAndRead("\x04"), IsEmpty());
    EXPECT_TRUE(rests());
    EXPECT_EQ(conn.readCmd(), 0);
    EXPECT_TRUE(rests()) << "nothing there is not yet a line that gives bytes";
    EXPECT_THAT(typeAndRead("A\r"), ElementsAre("A"));
    EXPECT_TRUE(waitsForInput());
}

TEST_F(Com2Conn, NeverReportsALineThatHasHungUpButLetsItRest)
{
    far->hangUp();
    ASSERT_TRUE(isReadable(conn.fd));
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(conn.readCmd(), 0);
        EXPECT_TRUE(waitsForInput()) << "read " << i + 1;
    }
    for (int i = 2; i < 5; ++i) {
        EXPECT_EQ(conn.readCmd(), 0);
        EXPECT_TRUE(rests()) << "read " << i + 1;
    }
}

TEST_F(Com2Conn, YieldsNothingWithoutADescriptorForASet)
{
    for (const int fd : {-1, FD_SETSIZE, 1'000'000}) {
        TCom2Conn closed(1, 0);
        closed.fd = fd;
        EXPECT_EQ(closed.readCmd(), 0);
        EXPECT_EQ(closed.due, NEVER);
        closed.startMute();
        EXPECT_EQ(closed.readCmd(), 0);
    }
}

// --- mute

TEST_F(Com2Conn, ThrowsEverythingAwayWhileItIsMuted)
{
    EXPECT_EQ(conn.startMute(), 0);
    EXPECT_EQ(conn.muteExpired(), 0);
    const Instant end = conn.due;
    EXPECT_THAT(typeAndRead("s3.ENC X\r"), IsEmpty());
    EXPECT_EQ(result, 0);
    EXPECT_EQ(conn.due, end) << "it is looked at again when the mute ends";
    EXPECT_TRUE(isCanonical());
    EXPECT_THAT(typeAndRead("A\r"), IsEmpty());
    conn.startMute();
    EXPECT_GE(conn.due, end);
    EXPECT_THAT(typeAndRead("FULL\rPART"), IsEmpty());
    EXPECT_EQ(conn.rxLen, 9) << "half a line goes with the whole one in front of it";
}

TEST_F(Com2Conn, ThrowsAwayAtTheEndOfTheMuteWhatHasComeSinceTheLastLook)
{
    conn.startMute();
    for (int i = 0; i < 300; ++i)
        ASSERT_TRUE(far->type("a line\r")); // more than a read
    ASSERT_TRUE(far->type("and half a one"));
    ASSERT_TRUE(waitUntil([&] { return instantNow() >= conn.due; }));
    EXPECT_NE(conn.muteExpired(), 0) << "at the look that is due";
    EXPECT_EQ(conn.readCmd(), 0);
    EXPECT_TRUE(waitsForInput());
    EXPECT_TRUE(isCanonical());
    EXPECT_EQ(conn.readCmd(), 0) << "nothing is left";
    EXPECT_THAT(typeAndRead("B\r"), ElementsAre("B"));
}

TEST_F(Com2Conn, LooksOnceMoreAfterAMuteInWhichNothingHasCome)
{
    conn.startMute();
    ASSERT_TRUE(waitUntil([&] { return conn.muteExpired() != 0; }));
    ASSERT_TRUE(waitUntil([&] { return instantNow() >= conn.due; }));
    EXPECT_EQ(conn.readCmd(), 0);
    EXPECT_TRUE(waitsForInput());
    EXPECT_THAT(typeAndRead("B\r"), ElementsAre("B"));
}

TEST_F(Com2Conn, IsMutedForTwoSecondsFromTheLastStart)
{
    conn.startMute();
    const Instant before = instantNow();
    conn.startMute();
    EXPECT_GE(conn.due, before + std::chrono::seconds(2));
    EXPECT_LE(conn.due, instantNow() + std::chrono::seconds(2));
    ASSERT_TRUE(waitUntil([&] { return conn.muteExpired() != 0; }));
    EXPECT_GE(instantNow(), before + std::chrono::seconds(2));
}

TEST_F(Com2Conn, RestsOnALineThatHasHungUpAfterAMuteToo)
{
    far->hangUp();
    ASSERT_TRUE(isReadable(conn.fd));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(conn.readCmd(), 0);
    conn.startMute();
    EXPECT_EQ(conn.readCmd(), 0);
    ASSERT_TRUE(waitUntil([&] { return instantNow() >= conn.due; }));
    EXPECT_EQ(conn.readCmd(), 0);
    EXPECT_EQ(conn.readCmd(), 0);
    EXPECT_TRUE(rests());
}

TEST_F(Com2Conn, LeavesNothingToTheNextConnectionOfWhatCameInItsMute)
{
    {
        TCom2Conn ending(1, 0x0057'0000);
        ending.fd = conn.fd;
        ending.startMute();
        ASSERT_TRUE(far->type("s3.ENC MUTED\rand half a line"));
        ASSERT_TRUE(isReadable(conn.fd));
    }
    EXPECT_THAT(typeAndRead("A\r"), ElementsAre("A"));
}

TEST_F(Com2Conn, EndsWhatItThrowsAwayWithANul)
{
    std::memset(conn.rxBuf.data(), 'x', conn.rxBuf.size());
    conn.startMute();
    typeAndRead("AB\r");
    EXPECT_EQ(conn.rxLen, 3);
    EXPECT_EQ(std::string(conn.rxBuf.data()), "AB\n");
}

TEST_F(Com2Conn, CanBeMutedFromAnotherThread)
{
    std::thread([&] {
        for (int i = 0; i < 1000; ++i)
            conn.startMute();
    }).join();
    EXPECT_EQ(conn.muteExpired(), 0);
    std::thread muting([&] {
        for (int i = 0; i < 1000; ++i)
            conn.startMute();
    });
    for (int i = 0; i < 1000; ++i)
        EXPECT_EQ(conn.muteExpired(), 0);
    muting.join();
}

TEST_F(Com2Conn, SwitchesCanonicalInput)
{
    EXPECT_EQ(conn.setCanonical(0), 0);
    EXPECT_FALSE(isCanonical());
    EXPECT_EQ(conn.setCanonical(0), 0);
    EXPECT_FALSE(isCanonical());
    EXPECT_EQ(conn.setCanonical(7), 0);
    EXPECT_TRUE(isCanonical());
    TCom2Conn other(1, 0);
    EXPECT_EQ(other.setCanonical(1), 1) << "no descriptor";
    other.fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    EXPECT_EQ(other.setCanonical(1), 1) << "no terminal";
    ::close(other.fd);
}

TEST_F(Com2Conn, LeavesTheOtherSettingsAloneWhenItSwitches)
{
    termios before{};
    termios after{};
    ASSERT_EQ(::tcgetattr(conn.fd, &before), 0);
    conn.setCanonical(0);
    conn.setCanonical(1);
    ASSERT_EQ(::tcgetattr(conn.fd, &after), 0);
    expectSameSettings(after, before);
}

// --- writing

TEST_F(Com2Conn, WritesTheTextOnly)
{
    for (const std::string& text : {"OK\r\n\r\n"s, "?\r\n"s, ""s, "\xE4%s%n\r\n"s, std::string(3000, 'x')}) {
        TOrbAttachmentMsg record = recordWith(text);
        EXPECT_EQ(conn.write(&record), 0);
        EXPECT_EQ(readable(far->receive(text.size())), readable(text));
    }
    EXPECT_EQ(far->received(), "");
}

TEST_F(Com2Conn, FailsToWriteSilently)
{
    TOrbAttachmentMsg record = recordWith("OK\r\n\r\n");
    const LogCapture log;
    far->hangUp();
    EXPECT_EQ(conn.write(&record), 1) << "the far end has hung up";
    TCom2Conn closed(1, 0);
    EXPECT_EQ(closed.write(&record), 1) << "no descriptor";
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Com2Conn, KeepsWhatTheLineDoesNotTakeForItsOutput)
{
    ASSERT_NE(conn.output, nullptr);
    EXPECT_EQ(conn.output->waitsFor(), -1);
    ASSERT_EQ(::tcflow(conn.fd, TCOOFF), 0); // the line takes nothing
    TOrbAttachmentMsg record = recordWith(std::string(8000, 'x'));
    const LogCapture log;
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(conn.write(&record), 0) << "kept";
    EXPECT_EQ(conn.output->waitsFor(), conn.fd);
    EXPECT_EQ(conn.write(&record), 1) << "72000 bytes are too many";
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{250007, "COM2 output dropped"}));
    ASSERT_EQ(::tcflow(conn.fd, TCOON), 0);
    std::string all;
    EXPECT_TRUE(waitUntil([&] {
        conn.output->goOn(instantNow());
        all += far->received();
        return all.size() >= 64'000;
    }));
    EXPECT_TRUE(all == std::string(64'000, 'x')) << all.size() << " bytes, or others";
}

TEST_F(Com2Conn, LeavesItsDescriptorOpenAtItsEnd)
{
    {
        TCom2Conn ending(1, 0x0057'0000);
        ending.fd = conn.fd;
    }
    EXPECT_NE(::fcntl(conn.fd, F_GETFD), -1);
    EXPECT_THAT(typeAndRead("A\r"), ElementsAre("A"));
}
