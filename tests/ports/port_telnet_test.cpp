#include "ports/port_telnet.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <memory>
#include <netinet/in.h>
#include <stdexcept>
#include <thread>
#include <vector>

#include "common/milestone.h"
#include "common/process_copy.h"
#include "common/wait_set.h"
#include "connections/telnet_conn.h"
#include "framework/tess_messages.h"
#include "tests/support/descriptor_limit.h"
#include "tests/support/log_capture.h"
#include "tests/support/looks.h"
#include "tests/support/open_descriptors.h"
#include "tests/support/private_network.h"
#include "tests/support/readable.h"
#include "tests/support/sleeps.h"
#include "tests/support/tcp_pair.h"
#include "tests/support/waiting.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const LogLine portClosed{6001, "telnet port closed"};

/// A client that is no telnet client and says so at once: it costs no second of silence.
class Client : public TcpClient {
public:
    Client() : TcpClient(connectTo(TELNET_TCP_PORT))
    {
        if (fd() >= 0) (void)send("*\r\n");
    }
};

class PortTelnet : public testing::Test {
protected:
    void SetUp() override
    {
        if (!privateNetworkProblem().empty()) GTEST_SKIP() << privateNetworkProblem();
        port = std::make_unique<TPortTelnet>();
    }
    void TearDown() override
    {
        for (TPortConn*& conn : conns)
            port->closeConn(&conn);
    }

    /// Waits for the port as the service loop does.
    /// @return false when nothing was ready or due before the end
    bool waitForPort(std::chrono::milliseconds end = DEADLINE) const
    {
        WaitSet waits;
        if (port->wantsInput) waits.addInput(port->fd);
        waits.addDue(port->due);
        for (const TPortConn* conn : port->arriving) {
            if (conn->wantsInput) waits.addInput(conn->fd);
            waits.addDue(conn->due);
        }
        waits.wait(end);
        bool isReady = (port->wantsInput && waits.hasInput(port->fd)) || waits.isDue(port->due);
        for (const TPortConn* conn : port->arriving)
            isReady = isReady || (conn->wantsInput && waits.hasInput(conn->fd)) || waits.isDue(conn->due);
        return isReady;
    }

    /// A look.
    /// @return the new connection, null when there is none
    TPortConn* check()
    {
        TPortConn* conn = nullptr;
        const int result = port->chkNewConn(&conn);
        EXPECT_EQ(result, conn != nullptr ? 1 : 0);
        if (conn != nullptr) conns.push_back(conn);
        return conn;
    }

    /// Looks, as the service loop does, until a client that has just connected is handed out or has
    /// been disposed of.
    /// @return the new connection, null when there is none
    TPortConn* take()
    {
        const std::uint32_t before = port->nextConnId;
        do {
            EXPECT_TRUE(waitForPort());
            if (TPortConn* const conn = check()) return conn;
        } while (port->nextConnId == before || !port->arriving.empty());
        return nullptr;
    }

    /// Looks until so many clients are arriving.
    void acceptUntil(std::size_t count)
    {
        while (port->arriving.size() < count) {
            ASSERT_TRUE(waitForPort());
            ASSERT_EQ(check(), nullptr);
        }
    }

    std::unique_ptr<TPortTelnet> port;
    std::vector<TPortConn*> conns;
};

/// A socket option of a connection.
int optionOf(int fd, int option)
{
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(::getsockopt(fd, SOL_SOCKET, option, &value, &length), 0);
    return value;
}

std::string problem()
{
    try {
        const TPortTelnet port;
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "none";
}

} // namespace

TEST_F(PortTelnet, OpensWithItsNumbers)
{
    EXPECT_TRUE(port->isOpen);
    EXPECT_EQ(port->portType, 2U);
    EXPECT_EQ(port->maxConns, 10);
    EXPECT_EQ(port->activeConns, 0);
    EXPECT_EQ(port->nextConnId, 0xAA00'0000U);
    EXPECT_EQ(port->listenAddr.sin_family, AF_INET);
    EXPECT_EQ(ntohs(port->listenAddr.sin_port), 23);
    EXPECT_EQ(port->listenAddr.sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_NE(::fcntl(port->fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(optionOf(port->fd, SO_REUSEADDR), 1);
    EXPECT_EQ(optionOf(port->fd, SO_KEEPALIVE), 1);
    EXPECT_EQ(optionOf(port->fd, SO_SNDBUF), 2 * 16384);
    EXPECT_EQ(optionOf(port->fd, SO_RCVBUF), 2 * 65536);
    EXPECT_EQ(optionOf(port->fd, SO_ACCEPTCONN), 1);
}

TEST_F(PortTelnet, FindsNobodyAtOnceWhenNobodyConnects)
{
    TPortConn* conn = nullptr;
    EXPECT_EQ(fewestSleeps([&] { EXPECT_EQ(port->chkNewConn(&conn), 0); }), 0);
    EXPECT_EQ(conn, nullptr);
    EXPECT_EQ(port->activeConns, 0);
    EXPECT_EQ(port->nextConnId, 0xAA00'0000U);
}

TEST_F(PortTelnet, HandsOutAClientAsAConnectionThatIsNotLoggedIn)
{
    const LogCapture log;
    const Client first;
    const auto* const conn = dynamic_cast<TTelnetConn*>(take());
    ASSERT_NE(conn, nullptr);
    EXPECT_EQ(conn->connId, 0xAA01'0000U);
    EXPECT_EQ(conn->portId, 2U);
    EXPECT_EQ(conn->loginState, 0);
    EXPECT_EQ(conn->serverEcho, 1);
    EXPECT_TRUE(conn->wantsInput);
    EXPECT_EQ(conn->due, AT_ONCE) << "it is to be greeted";
    EXPECT_EQ(conn->peerAddr.sin_family, AF_INET);
    EXPECT_EQ(conn->peerAddr.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_NE(ntohs(conn->peerAddr.sin_port), 23);
    EXPECT_NE(ntohs(conn->peerAddr.sin_port), 0);
    EXPECT_NE(::fcntl(conn->fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(::fcntl(conn->fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(optionOf(conn->fd, SO_SNDBUF), 2 * 65536) << "the kernel doubles it";
    EXPECT_EQ(port->activeConns, 1);
    EXPECT_EQ(first.received(), "") << "the greeting is not the port's";

    const Client second;
    ASSERT_NE(take(), nullptr);
    EXPECT_EQ(conns[1]->connId, 0xAA02'0000U);
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{6000, "Opened telnet connection 0xaa000000 from 127.0.0.1"},
                                         LogLine{6000, "Opened telnet connection 0xaa010000 from 127.0.0.1"}));
}

TEST_F(PortTelnet, NegotiatesBeforeItHandsOut)
{
    const TcpClient client(TcpClient::connectTo(TELNET_TCP_PORT));
    ASSERT_TRUE(
        client.send("\xFF\xFB\x22\xFF\xFA\x22\x01\x05\xFF\xF0\xFF\xFA\x22\x03\x11\x82\x0D\x12\x82\x0D\xFF\xF0"));
    const auto* const conn = dynamic_cast<TTelnetConn*>(take());
    ASSERT_NE(conn, nullptr);
    EXPECT_EQ(conn->lineMode, 1);
    EXPECT_EQ(readable(client.receive(6)), readable("\xFF\xFD\x03\xFF\xFD\x22"));
}

TEST_F(PortTelnet, LetsNobodyWaitForASilentClient)
{
    const LogCapture log;
    const Instant before = instantNow();
    const TcpClient silent(TcpClient::connectTo(TELNET_TCP_PORT));
    acceptUntil(1);
    EXPECT_EQ(port->activeConns, 1);
    const Client talkative;
    while (check() == nullptr)
        ASSERT_TRUE(waitForPort());
    EXPECT_EQ(conns[0]->connId, 0xAA02'0000U);
    ASSERT_EQ(port->arriving.size(), 1U);
    int looks = 1;
    for (; check() == nullptr; ++looks)
        ASSERT_TRUE(waitForPort());
    EXPECT_GE(instantNow(), before + std::chrono::seconds(1));
    EXPECT_LE(looks, 4) << "nothing is looked at that is not due";
    EXPECT_EQ(conns[1]->connId, 0xAA01'0000U);
    EXPECT_EQ(conns[1]->due, AT_ONCE);
    EXPECT_THAT(port->arriving, IsEmpty());
    EXPECT_EQ(silent.received(), "");
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{6000, "Opened telnet connection 0xaa010000 from 127.0.0.1"},
                                         LogLine{6000, "Opened telnet connection 0xaa000000 from 127.0.0.1"}))
        << "each with its own number";
}

TEST_F(PortTelnet, HandsOutOneClientACallAndIsAskedAgainAtOnce)
{
    std::vector<std::unique_ptr<TcpClient>> clients;
    for (std::size_t i = 1; i <= 3; ++i) {
        clients.push_back(std::make_unique<TcpClient>(TcpClient::connectTo(TELNET_TCP_PORT)));
        acceptUntil(i);
    }
    for (const auto& client : clients)
        ASSERT_TRUE(client->send("*\r\n"));
    for (const TPortConn* conn : port->arriving)
        ASSERT_TRUE(hasArrived(conn->fd, 3));
    for (std::uint32_t i = 1; i <= 3; ++i) {
        ASSERT_TRUE(waitForPort(std::chrono::milliseconds(0)));
        const TPortConn* const conn = check();
        ASSERT_NE(conn, nullptr);
        EXPECT_EQ(conn->connId, 0xAA00'0000U + i * 0x1'0000) << "in the order in which they came";
    }
}

TEST_F(PortTelnet, DoesNotLookAgainAndAgainAtAClientThatIsNotReady)
{
    struct Row {
        const char* behaviour;
        std::string bytes;
        bool shutDown;
    };
    for (const Row& row : {Row{"half a command", "\xFF", false}, Row{"its end", "", true}, Row{"both", "\xFF", true}}) {
        SCOPED_TRACE(row.behaviour);
        const TcpClient client(TcpClient::connectTo(TELNET_TCP_PORT));
        ASSERT_TRUE(client.send(row.bytes));
        if (row.shutDown) client.shutDown();
        int looks = 0;
        for (const std::size_t before = conns.size(); conns.size() == before; ++looks) {
            ASSERT_TRUE(waitForPort());
            (void)check();
        }
        EXPECT_LE(looks, 6);
    }
}

TEST_F(PortTelnet, TellsTheEleventhClientAndTakesTheNextWhenOneHasGone)
{
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 10; ++i) {
        clients.push_back(std::make_unique<Client>());
        ASSERT_NE(take(), nullptr) << "client " << i + 1;
    }
    {
        const LogCapture log;
        const TcpClient eleventh(TcpClient::connectTo(TELNET_TCP_PORT)); // silent: it is not negotiated with
        ASSERT_TRUE(waitForPort());
        EXPECT_EQ(check(), nullptr);
        EXPECT_THAT(port->arriving, IsEmpty()) << "one look is enough";
        EXPECT_EQ(readable(eleventh.receiveToEnd()), "Connection refused: limit reached.\\r\\n");
        EXPECT_EQ(port->activeConns, 10);
        EXPECT_EQ(port->nextConnId, 0xAA0B'0000U) << "the refused one has used an ID";
        EXPECT_THAT(log.lines(),
                    ElementsAre(LogLine{6001, "Telnet connection closed for 127.0.0.1.  Active connections = 10"}));
    }
    {
        const Client talkative; // it has sent something that nobody reads
        EXPECT_EQ(take(), nullptr);
        EXPECT_EQ(readable(talkative.receiveToEnd()), "Connection refused: limit reached.\\r\\n");
    }
    {
        const LogCapture log;
        EXPECT_EQ(port->closeConn(&conns[3]), 0);
        EXPECT_EQ(conns[3], nullptr);
        EXPECT_EQ(port->activeConns, 9);
        EXPECT_THAT(log.lines(),
                    ElementsAre(LogLine{6001, "Telnet connection closed for 127.0.0.1.  Active connections = 9"}));
    }
    const Client next;
    ASSERT_NE(take(), nullptr);
    EXPECT_EQ(conns.back()->connId, 0xAA0D'0000U);
}

TEST_F(PortTelnet, DropsAClientThatHasResetWithoutAnOpenedLine)
{
    TcpClient client(TcpClient::connectTo(TELNET_TCP_PORT));
    client.reset();
    const LogCapture log;
    EXPECT_EQ(take(), nullptr);
    EXPECT_EQ(port->activeConns, 0);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].id, 6001);
    EXPECT_THAT(log.lines()[0].text, testing::EndsWith(".  Active connections = 0"));
}

TEST_F(PortTelnet, DropsAClientThatResetsBehindAnUrgentByte)
{
    TcpClient client(TcpClient::connectTo(TELNET_TCP_PORT));
    acceptUntil(1);
    ASSERT_TRUE(client.send("!", MSG_OOB));
    client.reset();
    const LogCapture log;
    int looks = 0;
    for (; port->activeConns != 0; ++looks) {
        ASSERT_TRUE(waitForPort());
        EXPECT_EQ(check(), nullptr);
    }
    EXPECT_LE(looks, 3);
    EXPECT_THAT(port->arriving, IsEmpty());
    EXPECT_THAT(log.lines(),
                ElementsAre(LogLine{6001, "Telnet connection closed for 127.0.0.1.  Active connections = 0"}));
}

TEST_F(PortTelnet, RestsWhenThereAreNoDescriptorsButGoesOnWithThoseWhoHaveCome)
{
    const TcpClient arriving(TcpClient::connectTo(TELNET_TCP_PORT));
    acceptUntil(1);
    const Client client;
    pollfd waiting{port->fd, POLLIN, 0};
    ASSERT_EQ(::poll(&waiting, 1, 10'000), 1);
    const LogCapture log;
    {
        const DescriptorLimit none(0);
        const Instant before = instantNow();
        EXPECT_EQ(check(), nullptr);
        EXPECT_FALSE(port->wantsInput);
        EXPECT_GE(port->due, before + TCmdPort::REST_TIME);
        EXPECT_LE(port->due, instantNow() + TCmdPort::REST_TIME);
    }
    EXPECT_EQ(port->activeConns, 1);
    EXPECT_EQ(port->nextConnId, 0xAA01'0000U) << "it has used no ID";
    EXPECT_THAT(log.lines(), IsEmpty());

    const Instant due = port->due;
    ASSERT_TRUE(arriving.send("*\r\n"));
    ASSERT_TRUE(hasArrived(port->arriving[0]->fd, 3));
    ASSERT_NE(check(), nullptr);
    EXPECT_EQ(port->due, due) << "it is not asked while it rests";
    EXPECT_EQ(port->nextConnId, 0xAA01'0000U);

    ASSERT_NE(take(), nullptr) << "the other has waited";
    EXPECT_GE(instantNow(), due);
    EXPECT_EQ(conns.back()->connId, 0xAA02'0000U);
}

TEST_F(PortTelnet, ClosesAClientWhoseDescriptorNoSetHolds)
{
    const TcpClient client(TcpClient::connectTo(TELNET_TCP_PORT));
    const NoRoomInSets room;
    if (!room.isSet()) GTEST_SKIP() << "the limit of open files cannot be raised";
    EXPECT_EQ(take(), nullptr);
    EXPECT_EQ(client.receiveToEnd(), "");
    EXPECT_EQ(port->activeConns, 0);
}

TEST_F(PortTelnet, ThrowsWhenItsTcpPortIsInUse)
{
    g_milestone = 0;
    EXPECT_EQ(problem(), "failed binding to telnet socket");
    EXPECT_EQ(g_milestone.load(), 1012) << "an exception leaves the entry number";
}

TEST_F(PortTelnet, LeavesItsDescriptorOpenWhenItThrows)
{
    const auto before = openDescriptors();
    EXPECT_NE(problem(), "none");
    EXPECT_EQ(openDescriptors(), before + 1);
}

TEST_F(PortTelnet, BindsAgainWhileOldSessionsLinger)
{
    const Client client;
    ASSERT_NE(take(), nullptr);
    port->closeConn(&conns[0]); // the side that closes first is the one that lingers
    client.receiveToEnd();
    port.reset();
    port = std::make_unique<TPortTelnet>();
    EXPECT_TRUE(port->isOpen);
    const Client next;
    EXPECT_NE(take(), nullptr);
}

TEST_F(PortTelnet, StaysClosedWhenThereIsNoDescriptor)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer itself needs descriptors";
#endif
    port.reset();
    {
        const DescriptorLimit none(0);
        port = std::make_unique<TPortTelnet>();
    }
    EXPECT_FALSE(port->isOpen);
    EXPECT_LT(port->fd, 0);
    TPortConn* conn = nullptr;
    EXPECT_EQ(port->chkNewConn(&conn), 0);
    const LogCapture log;
    EXPECT_EQ(port->closePort(), 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(PortTelnet, LeavesAnEmptySlotAlone)
{
    port->activeConns = 3;
    TPortConn* none = nullptr;
    const LogCapture log;
    EXPECT_EQ(port->closeConn(&none), 0);
    EXPECT_EQ(port->activeConns, 3);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(PortTelnet, ClosesOnceAndKeepsItsConnections)
{
    const Client client;
    ASSERT_NE(take(), nullptr);
    const int fd = port->fd;
    const LogCapture log;
    EXPECT_EQ(port->closePort(), 0);
    EXPECT_FALSE(port->isOpen);
    EXPECT_EQ(port->activeConns, 0);
    EXPECT_EQ(TcpClient::connectTo(TELNET_TCP_PORT), -1);
    const int taken = ::open("/dev/null", O_RDONLY | O_CLOEXEC); // gets the number that has become free
    ASSERT_EQ(taken, fd);
    EXPECT_EQ(port->closePort(), 0);
    EXPECT_NE(::fcntl(taken, F_GETFD), -1) << "the second call closes nothing";
    ::close(taken);
    EXPECT_THAT(log.lines(), ElementsAre(portClosed));
    TOrbAttachmentMsg record{};
    record.text[0] = '?';
    EXPECT_EQ(conns[0]->write(&record), 0);
    EXPECT_EQ(client.receive(1), "?");
    EXPECT_EQ(port->closeConn(&conns[0]), 0);
    EXPECT_EQ(port->activeConns, -1) << "nothing checks the counter after that";
}

TEST_F(PortTelnet, DisposesOfClientsThatAreArrivingBeforeItCloses)
{
    const TcpClient first(TcpClient::connectTo(TELNET_TCP_PORT));
    const TcpClient second(TcpClient::connectTo(TELNET_TCP_PORT));
    acceptUntil(2);
    const LogCapture log;
    EXPECT_EQ(port->closePort(), 0);
    EXPECT_EQ(first.receiveToEnd(), "");
    EXPECT_EQ(second.receiveToEnd(), "");
    EXPECT_EQ(port->activeConns, 0);
    EXPECT_THAT(port->arriving, IsEmpty());
    EXPECT_THAT(log.lines(),
                ElementsAre(LogLine{6001, "Telnet connection closed for 127.0.0.1.  Active connections = 1"},
                            LogLine{6001, "Telnet connection closed for 127.0.0.1.  Active connections = 0"},
                            portClosed));
}

TEST_F(PortTelnet, OnlyLetsGoOfClientsThatAreArrivingInACopy)
{
    const TcpClient client(TcpClient::connectTo(TELNET_TCP_PORT));
    acceptUntil(1);
    const int original = ::fcntl(port->arriving[0]->fd, F_DUPFD_CLOEXEC, 0);
    g_isCopy = true;
    port.reset();
    g_isCopy = false;
    ASSERT_EQ(::send(original, "*", 1, 0), 1) << "the original goes on with it";
    EXPECT_EQ(client.receive(1), "*");
    ::close(original);
    EXPECT_EQ(client.receiveToEnd(), "");
}

TEST_F(PortTelnet, LeavesTheNumbersOfItsProgress)
{
    EXPECT_EQ(g_milestone.load(), 1011);
    TPortConn* none = nullptr;
    port->chkNewConn(&none);
    EXPECT_EQ(g_milestone.load(), 1017);
    const Client client;
    ASSERT_NE(take(), nullptr);
    EXPECT_EQ(g_milestone.load(), 1017);
    port->closeConn(&conns[0]);
    EXPECT_EQ(g_milestone.load(), 1019);
    port->closePort();
    EXPECT_EQ(g_milestone.load(), 1015);
    port->openPort();
    EXPECT_EQ(g_milestone.load(), 1013);
    const int reopened = port->fd;
    ::close(reopened); // opened behind the constructor's back: the port does not count it as open
}
