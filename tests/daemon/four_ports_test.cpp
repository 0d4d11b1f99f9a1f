#include <gmock/gmock.h>
#include <memory>
#include <stdexcept>

#include "daemon/tess.h"
#include "framework/tess_messages.h"
#include "ports/port_telnet.h"
#include "tests/daemon/daemon_test_bench.h"
#include "tests/support/allocation_count.h"
#include "tests/support/passwd_file.h"
#include "tests/support/private_mounts.h"
#include "tests/support/private_network.h"
#include "tests/support/pty_line.h"
#include "tests/support/readable.h"
#include "tests/support/tcp_pair.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::chrono::milliseconds SHORT{20};

/// A daemon with every port, the serial line being a pseudo-terminal.
class FourPorts : public testing::Test {
protected:
    void SetUp() override
    {
        for (const std::string* const problem : {&privateMountsProblem(), &privateNetworkProblem()})
            if (!problem->empty()) GTEST_SKIP() << *problem;
        far = std::make_unique<PtyLine>();
        far->plugInto(COM2_DEVICE);
    }

    std::unique_ptr<TTess> makeDaemon() { return std::make_unique<TTess>(TESS_QUEUE_ID, true, true, true, true); }

    LogCapture log;
    SignalsRestored signals;
    TempQueueDir directory;
    std::unique_ptr<PtyLine> far;
};

} // namespace

TEST_F(FourPorts, OpenAndCloseInOrder)
{
    {
        const auto tess = makeDaemon();
        std::vector<std::uint32_t> types;
        for (const TCmdPort* const port : TessPeer(*tess).ports()) {
            EXPECT_TRUE(port->isOpen);
            types.push_back(port->portType);
        }
        EXPECT_THAT(types, ElementsAre(1, 2, 4, 8));
    }
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{36101, "Initialize Com2 connection"},
                                         LogLine{36004, "Initialize telnet connection"},
                                         LogLine{36104, "Initialize XCP socket connection"},
                                         LogLine{36104, "Initialize IPC socket connection"},
                                         LogLine{36201, "Closing all connections!"}, LogLine{36102, "COM2 port closed"},
                                         LogLine{6001, "telnet port closed"}, LogLine{36105, "XCP Socket port closed"},
                                         LogLine{36105, "Socket port closed"}));
}

TEST_F(FourPorts, StartWithoutTheSerialDevice)
{
    far.reset();
    const auto tess = makeDaemon();
    TessPeer peer(*tess);
    ASSERT_EQ(peer.ports().size(), 4U);
    EXPECT_FALSE(peer.ports()[0]->isOpen);
    peer.acceptConnections();
    ASSERT_EQ(peer.conns().size(), 1U) << "its connection exists all the same";
    peer.servicePass();
    EXPECT_EQ(peer.conns().size(), 1U);
    WaitSet waits;
    EXPECT_TRUE(peer.collectConns(waits)) << "the other ports have descriptors";
}

TEST_F(FourPorts, AreLeftOutWhenThereIsNoMemoryForThem)
{
    std::unique_ptr<TTess> tess;
    {
        const NoMemory noMemory(NoMemory::WHO_ASKS_NOT_TO_THROW);
        tess = makeDaemon();
    }
    EXPECT_THAT(TessPeer(*tess).ports(), IsEmpty());
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{36101, "Initialize Com2 connection"},
                                         LogLine{251525, "Unable to create COM2 command port"},
                                         LogLine{36004, "Initialize telnet connection"},
                                         LogLine{251525, "Unable to create Telnet command port"},
                                         LogLine{36104, "Initialize XCP socket connection"},
                                         LogLine{251525, "Unable XCP command port"},
                                         LogLine{36104, "Initialize IPC socket connection"},
                                         LogLine{251525, "Unable to create IPC socket command port"}));
}

TEST_F(FourPorts, CloseWhenALaterOneFails)
{
    const TPortTelnet holder;
    std::string problem;
    try {
        makeDaemon();
    } catch (const std::runtime_error& error) {
        problem = error.what();
    }
    EXPECT_EQ(problem, "failed binding to telnet socket");
    EXPECT_THAT(log.lines(),
                ElementsAre(LogLine{36101, "Initialize Com2 connection"},
                            LogLine{36004, "Initialize telnet connection"}, LogLine{36102, "COM2 port closed"}));
}

TEST_F(FourPorts, TakeATelnetUserThroughTheLoginToACommand)
{
    const PasswdFile accounts(ALICE);
    const auto tess = makeDaemon();
    TessPeer peer(*tess);
    const TcpClient client(TcpClient::connectTo(TELNET_TCP_PORT));
    ASSERT_TRUE(client.send("\r\n")); // says at once that it is no telnet client
    ASSERT_TRUE(waitUntil([&] {
        peer.serve(SHORT);
        return peer.conns().size() == 2;
    }));
    const auto pass = [&](std::string_view typed, const std::string& expected) {
        EXPECT_TRUE(client.send(typed));
        std::string seen;
        EXPECT_TRUE(waitUntil([&] {
            peer.serve(SHORT);
            seen += client.received();
            return seen.size() >= expected.size();
        }));
        EXPECT_EQ(readable(seen), readable(expected));
    };
    pass("", "\r\nMarvo Resident Telnet Server...\r\nUserName:\r\n\r\n"); // the echo of the empty line
    pass("alice\r\n", "alice\r\nPassWord:\r\n");
    pass("secret\r\n", "User alice connected\r\n");
    pass("*\r\n", "*\r\n0\r\n\r\n");
    pass("delay 5:0.0|X\r\n", "delay 5:0.0|X\r\nOK\r\n\r\n");
    EXPECT_EQ(peer.delayQueues().lines().size(), 1U);
    ASSERT_TRUE(client.send("quit\r\n"));
    ASSERT_TRUE(waitUntil([&] {
        peer.serve(SHORT);
        return peer.conns().size() == 1;
    }));
    EXPECT_EQ(readable(client.receiveToEnd()), "quit\\r\\n");
}

TEST_F(FourPorts, RemoveAClientWhoseLoginFailsAndServeTheNextInTheSamePass)
{
    const PasswdFile accounts(ALICE);
    const auto tess = makeDaemon();
    TessPeer peer(*tess);
    std::vector<std::unique_ptr<TcpClient>> clients;
    for (std::size_t i = 0; i < 2; ++i) {
        clients.push_back(std::make_unique<TcpClient>(TcpClient::connectTo(TELNET_TCP_PORT)));
        ASSERT_TRUE(clients[i]->send("\r\n"));
        ASSERT_TRUE(waitUntil([&] {
            peer.serve(SHORT);
            return peer.conns().size() == 2 + i;
        }));
    }
    peer.conns()[1]->loginState = 99;
    peer.conns()[2]->loginState = LOGIN_NEW;
    for (TPortConn* const conn : peer.conns())
        conn->due = AT_ONCE;
    peer.servicePass();
    ASSERT_EQ(peer.conns().size(), 2U);
    EXPECT_EQ(peer.conns()[1]->loginState, 1) << "the second client has had its turn";
    EXPECT_EQ(log.count({251526, "Invalid login state (99) reached, closing connection"}), 1);
    EXPECT_EQ(readable(clients[0]->receiveToEnd()),
              readable("\r\nMarvo Resident Telnet Server...\r\nUserName:\r\n\r\n\r\n"))
        << "with the echo of its line";
}
