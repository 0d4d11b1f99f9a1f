// What the two local socket ports have in common; each row of the tests is one of them.
#include "ports/local_socket_port.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "common/milestone.h"
#include "common/process_copy.h"
#include "framework/fixed_text.h"
#include "framework/tess_messages.h"
#include "ports/port_ipc_socket.h"
#include "ports/xcp_port.h"
#include "tests/support/descriptor_limit.h"
#include "tests/support/log_capture.h"
#include "tests/support/open_descriptors.h"
#include "tests/support/private_mounts.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
namespace fs = std::filesystem;

namespace {

struct Kind {
    const char* name;
    std::unique_ptr<LocalSocketPort> (*make)();
    const char* path;
    std::uint32_t portType;
    std::uint32_t firstConnId; ///< of the first connection
    LogLine portClosed;
    const char* bindFailure;
    bool logsConnections;
    std::int32_t constructorExit, destructorExit;
};

template <class Port> std::unique_ptr<LocalSocketPort> make()
{
    return std::make_unique<Port>();
}

const Kind kinds[] = {
    {"Ipc",
     make<TPortIPCSocket>,
     IPC_SOCKET_PATH,
     8,
     0xBB01'0000,
     {36105, "Socket port closed"},
     "failed binding to IPC socket",
     false,
     1021,
     1023},
    {"Xcp",
     make<TXCPPort>,
     XCP_SOCKET_PATH,
     4,
     0x0057'0000,
     {36105, "XCP Socket port closed"},
     "failed binding to xcp socket",
     true,
     1111,
     1113},
};

/// One end of a connection to a port; negative when that refuses.
int connectTo(const char* path)
{
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    putText(name.sun_path, path);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0) return fd;
    ::close(fd);
    return -1;
}

/// Clients of a port, closed at their end.
class Clients {
public:
    explicit Clients(const char* path) : path_(path) {}
    Clients(const Clients&) = delete;
    Clients& operator=(const Clients&) = delete;
    ~Clients()
    {
        for (const int fd : fds_)
            ::close(fd);
    }
    int connect()
    {
        fds_.push_back(connectTo(path_));
        return fds_.back();
    }
    int last() const { return fds_.back(); }

private:
    const char* path_;
    std::vector<int> fds_;
};

bool closedByServer(int client)
{
    char byte;
    return ::recv(client, &byte, 1, MSG_DONTWAIT) == 0;
}

/// Connections that a port has handed out; given back to it at the end.
class HandedOut {
public:
    explicit HandedOut(TCmdPort& port) : port_(port) {}
    HandedOut(const HandedOut&) = delete;
    HandedOut& operator=(const HandedOut&) = delete;
    ~HandedOut()
    {
        for (TPortConn*& conn : conns_)
            port_.closeConn(&conn);
    }
    /// @return the new connection, null when there is none
    TPortConn* take()
    {
        TPortConn* conn = nullptr;
        const int result = port_.chkNewConn(&conn);
        EXPECT_EQ(result, conn != nullptr ? 1 : 0);
        if (conn != nullptr) conns_.push_back(conn);
        return conn;
    }
    TPortConn*& slot(std::size_t i) { return conns_.at(i); }

private:
    TCmdPort& port_;
    std::vector<TPortConn*> conns_;
};

class LocalSocketPortTest : public testing::TestWithParam<Kind> {
protected:
    void SetUp() override
    {
        if (!privateMountsProblem().empty()) GTEST_SKIP() << privateMountsProblem();
    }
    const Kind& kind() const { return GetParam(); }
    const char* path() const { return kind().path; }
};

} // namespace

TEST_P(LocalSocketPortTest, OpensWithItsNumbers)
{
    const auto port = kind().make();
    EXPECT_TRUE(port->isOpen);
    EXPECT_GE(port->fd, 0);
    EXPECT_EQ(port->portType, kind().portType);
    EXPECT_EQ(port->maxConns, 10);
    EXPECT_EQ(port->activeConns, 0);
    EXPECT_EQ(port->nextConnId, kind().firstConnId - 0x10000);
    EXPECT_EQ(port->listenAddr.sun_family, AF_UNIX);
    EXPECT_STREQ(port->listenAddr.sun_path, path());
    EXPECT_TRUE(fs::is_socket(path()));
}

TEST_P(LocalSocketPortTest, BindsTheWholeAddressStructure)
{
    const auto port = kind().make();
    sockaddr_un bound{};
    socklen_t length = sizeof bound;
    ASSERT_EQ(::getsockname(port->fd, reinterpret_cast<sockaddr*>(&bound), &length), 0);
    EXPECT_STREQ(bound.sun_path, path());
    EXPECT_EQ(sizeof port->listenAddr, 110U);
}

TEST_P(LocalSocketPortTest, GivesItsSocketFileTheProcesssDefaultMode)
{
    const mode_t before = ::umask(027);
    const auto port = kind().make();
    ::umask(before);
    struct stat found {};
    ASSERT_EQ(::stat(path(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777U, 0750U);
}

TEST_P(LocalSocketPortTest, OpensEveryDescriptorCloseOnExec)
{
    const auto port = kind().make();
    Clients clients(path());
    HandedOut handedOut(*port);
    clients.connect();
    const TPortConn* const conn = handedOut.take();
    ASSERT_NE(conn, nullptr);
    EXPECT_NE(::fcntl(port->fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(::fcntl(conn->fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(::fcntl(conn->fd, F_GETFL) & O_NONBLOCK, 0);
}

TEST_P(LocalSocketPortTest, ReplacesAFileThatIsLeftOver)
{
    std::ofstream(path()) << "left over";
    EXPECT_TRUE(kind().make()->isOpen) << "a plain file";

    const int left = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    putText(name.sun_path, path());
    ASSERT_EQ(::bind(left, reinterpret_cast<const sockaddr*>(&name), sizeof name), 0);
    ::close(left);
    ASSERT_TRUE(fs::is_socket(path()));
    const auto port = kind().make();
    EXPECT_TRUE(port->isOpen) << "the socket of a process that died";
    Clients clients(path());
    EXPECT_GE(clients.connect(), 0);
}

TEST_P(LocalSocketPortTest, ThrowsWhenItCannotBind)
{
    fs::create_directories(fs::path(path()) / "not empty");
    std::string thrown;
    g_milestone = 0;
    try {
        kind().make();
    } catch (const std::runtime_error& error) {
        thrown = error.what();
    }
    EXPECT_EQ(thrown, kind().bindFailure);
    EXPECT_EQ(g_milestone.load(), 1024) << "an exception leaves the entry number";
    fs::remove_all(path());
}

TEST_P(LocalSocketPortTest, LeavesItsDescriptorOpenWhenItThrows)
{
    fs::create_directories(fs::path(path()) / "not empty");
    const auto before = openDescriptors();
    EXPECT_THROW(kind().make(), std::runtime_error);
    EXPECT_EQ(openDescriptors(), before + 1);
    fs::remove_all(path());
}

TEST_P(LocalSocketPortTest, StaysClosedWhenThereIsNoDescriptor)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer itself needs descriptors";
#endif
    std::unique_ptr<LocalSocketPort> port;
    {
        const DescriptorLimit none(0);
        port = kind().make();
    }
    EXPECT_FALSE(port->isOpen);
    EXPECT_LT(port->fd, 0);
    TPortConn* conn = nullptr;
    EXPECT_EQ(port->chkNewConn(&conn), 0);
    EXPECT_EQ(conn, nullptr);
    const LogCapture log;
    EXPECT_EQ(port->closePort(), 0);
    EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_P(LocalSocketPortTest, FindsNobodyAtOnceWhenNobodyConnects)
{
    const auto port = kind().make();
    TPortConn* conn = nullptr;
    EXPECT_EQ(port->due, AT_ONCE);
    EXPECT_EQ(port->chkNewConn(&conn), 0);
    EXPECT_EQ(port->due, NEVER);
    EXPECT_EQ(conn, nullptr);
    EXPECT_EQ(port->activeConns, 0);
    EXPECT_EQ(port->nextConnId, kind().firstConnId - 0x10000);
}

TEST_P(LocalSocketPortTest, HandsOutAClientAsAConnectionWithTheNextId)
{
    const auto port = kind().make();
    Clients clients(path());
    HandedOut handedOut(*port);
    for (std::uint32_t i = 0; i < 3; ++i) {
        ASSERT_GE(clients.connect(), 0);
        const TPortConn* const conn = handedOut.take();
        ASSERT_NE(conn, nullptr);
        EXPECT_EQ(conn->connId, kind().firstConnId + i * 0x10000);
        EXPECT_EQ(conn->connId, port->nextConnId);
        EXPECT_EQ(conn->portId, kind().portType);
        EXPECT_EQ(conn->loginState, 3);
        EXPECT_EQ(port->activeConns, static_cast<std::int32_t>(i + 1));
    }
    EXPECT_EQ(handedOut.take(), nullptr);
}

TEST_P(LocalSocketPortTest, WrapsItsIdsSilently)
{
    const auto port = kind().make();
    port->nextConnId = 0xFFFF'0000;
    Clients clients(path());
    HandedOut handedOut(*port);
    clients.connect();
    const TPortConn* const conn = handedOut.take();
    ASSERT_NE(conn, nullptr);
    EXPECT_EQ(conn->connId, 0U);
}

TEST_P(LocalSocketPortTest, LogsAnAdmittedClientWithTheIdBeforeItsOwnWhereItLogsThem)
{
    const auto port = kind().make();
    Clients clients(path());
    HandedOut handedOut(*port);
    const LogCapture log;
    clients.connect();
    handedOut.take();
    clients.connect();
    handedOut.take();
    std::vector<LogLine> expected;
    if (kind().logsConnections)
        expected = {{36106, "Opened IPC socket connection with ID = 0x560000"},
                    {36106, "Opened IPC socket connection with ID = 0x570000"}};
    EXPECT_THAT(log.lines(), ElementsAreArray(expected));
}

TEST_P(LocalSocketPortTest, ClosesTheEleventhClientAtOnceAndTakesTheNextWhenOneHasGone)
{
    const auto port = kind().make();
    Clients clients(path());
    HandedOut handedOut(*port);
    for (int i = 0; i < 10; ++i) {
        ASSERT_GE(clients.connect(), 0);
        ASSERT_NE(handedOut.take(), nullptr) << "client " << i + 1;
    }
    std::vector<LogLine> expected;
    {
        const int eleventh = clients.connect();
        ASSERT_GE(eleventh, 0);
        const LogCapture log;
        EXPECT_EQ(handedOut.take(), nullptr);
        EXPECT_TRUE(closedByServer(eleventh)) << "without a text";
        EXPECT_EQ(port->activeConns, 10);
        EXPECT_EQ(port->nextConnId, kind().firstConnId + 10 * 0x10000U) << "the refused one has used an ID";
        if (kind().logsConnections) expected = {{6001, "XCP socket connection closed.  Active connections = 10"}};
        EXPECT_THAT(log.lines(), ElementsAreArray(expected));
    }
    {
        const LogCapture log;
        EXPECT_EQ(port->closeConn(&handedOut.slot(3)), 0);
        EXPECT_EQ(handedOut.slot(3), nullptr);
        EXPECT_EQ(port->activeConns, 9);
        if (kind().logsConnections) expected = {{6001, "XCP socket connection closed.  Active connections = 9"}};
        EXPECT_THAT(log.lines(), ElementsAreArray(expected));
    }
    clients.connect();
    const TPortConn* const next = handedOut.take();
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(next->connId, kind().firstConnId + 11 * 0x10000U);
}

TEST_P(LocalSocketPortTest, LeavesAClientWaitingForWhomThereIsNoDescriptor)
{
    const auto port = kind().make();
    Clients clients(path());
    clients.connect();
    HandedOut handedOut(*port);
    const LogCapture log;
    const Instant before = instantNow();
    {
        const DescriptorLimit none(0);
        EXPECT_EQ(handedOut.take(), nullptr);
        EXPECT_EQ(handedOut.take(), nullptr) << "asked again, too";
    }
    EXPECT_EQ(port->activeConns, 0);
    EXPECT_EQ(port->nextConnId, kind().firstConnId - 0x10000) << "it has used no ID";
    EXPECT_THAT(log.lines(), ElementsAre());
    EXPECT_FALSE(port->wantsInput) << "it would wake the service loop again and again";
    EXPECT_GE(port->due, before + std::chrono::seconds(1));
    EXPECT_LE(port->due, instantNow() + std::chrono::seconds(1));

    const TPortConn* const conn = handedOut.take();
    ASSERT_NE(conn, nullptr) << "it is served when there are descriptors";
    EXPECT_EQ(conn->connId, kind().firstConnId);
    EXPECT_TRUE(port->wantsInput);
    EXPECT_EQ(port->due, NEVER);
}

TEST_P(LocalSocketPortTest, LeavesTheFileAndTheClientsToTheOriginalWhenACopyCloses)
{
    auto original = kind().make();
    Clients clients(path());
    const int client = clients.connect();
    HandedOut handedOut(*original);
    ASSERT_NE(handedOut.take(), nullptr);
    const pid_t copy = ::fork();
    ASSERT_GE(copy, 0);
    if (copy == 0) {
        g_isCopy = true;
        original->closeConn(&handedOut.slot(0));
        original->closePort();
        original.reset();
        ::_exit(0);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(copy, &status, 0), copy);
    ASSERT_EQ(status, 0);
    EXPECT_FALSE(closedByServer(client));
    EXPECT_TRUE(fs::is_socket(path()));
    EXPECT_GE(clients.connect(), 0);
    EXPECT_NE(handedOut.take(), nullptr);
}

TEST_P(LocalSocketPortTest, ClosesAClientWhoseDescriptorNoSetHolds)
{
    const auto port = kind().make();
    Clients clients(path());
    const int client = clients.connect();
    const NoRoomInSets room;
    if (!room.isSet()) GTEST_SKIP() << "the limit of open files cannot be raised";
    TPortConn* conn = nullptr;
    EXPECT_EQ(port->chkNewConn(&conn), 0);
    EXPECT_EQ(conn, nullptr);
    EXPECT_TRUE(closedByServer(client));
    EXPECT_EQ(port->activeConns, 0);
}

TEST_P(LocalSocketPortTest, LeavesAnEmptySlotAlone)
{
    const auto port = kind().make();
    port->activeConns = 3;
    TPortConn* none = nullptr;
    const LogCapture log;
    EXPECT_EQ(port->closeConn(&none), 0);
    EXPECT_EQ(port->activeConns, 3);
    EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_P(LocalSocketPortTest, ClosesOnceAndRemovesItsSocketFile)
{
    const auto port = kind().make();
    port->activeConns = 5;
    const int fd = port->fd;
    const LogCapture log;
    EXPECT_EQ(port->closePort(), 0);
    EXPECT_FALSE(port->isOpen);
    EXPECT_EQ(port->activeConns, 0);
    EXPECT_FALSE(fs::exists(path()));
    EXPECT_LT(connectTo(path()), 0);
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);

    const int taken = ::open("/dev/null", O_RDONLY | O_CLOEXEC); // gets the number that has become free
    ASSERT_EQ(taken, fd);
    EXPECT_EQ(port->closePort(), 0);
    EXPECT_NE(::fcntl(taken, F_GETFD), -1) << "the second call closes nothing";
    ::close(taken);
    EXPECT_THAT(log.lines(), ElementsAre(kind().portClosed)) << "the second call logs nothing";
}

TEST_P(LocalSocketPortTest, KeepsItsConnectionsWhenItCloses)
{
    const auto port = kind().make();
    Clients clients(path());
    const int client = clients.connect();
    TPortConn* conn = nullptr;
    ASSERT_EQ(port->chkNewConn(&conn), 1);
    port->closePort();
    EXPECT_FALSE(closedByServer(client));
    EXPECT_EQ(port->closeConn(&conn), 0);
    EXPECT_EQ(conn, nullptr);
    EXPECT_EQ(port->activeConns, -1) << "nothing checks the counter after that";
    EXPECT_TRUE(closedByServer(client));
}

TEST_P(LocalSocketPortTest, ClosesAtItsEnd)
{
    const LogCapture log;
    kind().make().reset();
    EXPECT_FALSE(fs::exists(path()));
    EXPECT_THAT(log.lines(), ElementsAre(kind().portClosed));
}

TEST_P(LocalSocketPortTest, RemovesItsPathOnceMoreAtItsEnd)
{
    auto port = kind().make();
    port->closePort();
    std::ofstream(path()) << "somebody else's";
    port.reset();
    EXPECT_FALSE(fs::exists(path()));
}

TEST_P(LocalSocketPortTest, LeavesTheNumbersOfItsProgress)
{
    auto port = kind().make();
    EXPECT_EQ(g_milestone.load(), kind().constructorExit);
    TPortConn* conn = nullptr;
    port->chkNewConn(&conn);
    EXPECT_EQ(g_milestone.load(), 1029);
    Clients clients(path());
    clients.connect();
    ASSERT_EQ(port->chkNewConn(&conn), 1);
    EXPECT_EQ(g_milestone.load(), 1029);
    port->closeConn(&conn);
    EXPECT_EQ(g_milestone.load(), 1031);
    port->closePort();
    EXPECT_EQ(g_milestone.load(), 1027);
    port->openPort();
    EXPECT_EQ(g_milestone.load(), 1025);
    const int reopened = port->fd;
    port.reset();
    EXPECT_EQ(g_milestone.load(), kind().destructorExit);
    ::close(reopened); // opened behind the constructor's back: the port does not count it as open
}

TEST_P(LocalSocketPortTest, LosesItsPathToWhoeverBindsItNext)
{
    const auto first = kind().make();
    const auto second = kind().make();
    Clients clients(path());
    clients.connect();
    HandedOut ofSecond(*second);
    TPortConn* conn = nullptr;
    EXPECT_EQ(first->chkNewConn(&conn), 0);
    EXPECT_NE(ofSecond.take(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Each, LocalSocketPortTest, testing::ValuesIn(kinds),
                         [](const testing::TestParamInfo<Kind>& row) { return std::string(row.param.name); });
