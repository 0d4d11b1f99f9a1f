#include "daemon/tess.h"

#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <stdexcept>
#include <thread>

#include "common/milestone.h"
#include "framework/tess_messages.h"
#include "tests/daemon/daemon_test_bench.h"
#include "tests/daemon/local_client.h"
#include "tests/support/in_background.h"
#include "tests/support/private_mounts.h"
#include "tests/support/waiting.h"
#include "tests/support/waiting_thread.h"

using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

const LogLine initXcp{36104, "Initialize XCP socket connection"};
const LogLine initIpc{36104, "Initialize IPC socket connection"};
const LogLine closingAll{36201, "Closing all connections!"};
const LogLine xcpClosed{36105, "XCP Socket port closed"};
const LogLine ipcClosed{36105, "Socket port closed"};

/// A daemon with a directory for its queue and its log caught, made when the test wants it.
class Tess : public testing::Test {
protected:
    std::string problemOf(long queueId, bool xcp, bool ipc)
    {
        try {
            TTess(queueId, false, false, xcp, ipc);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "none";
    }

    LogCapture log;
    SignalsRestored signals;
    TempQueueDir directory;
};

class TessWithPorts : public Tess {
protected:
    void SetUp() override
    {
        if (!privateMountsProblem().empty()) GTEST_SKIP() << privateMountsProblem();
    }
};

} // namespace

TEST_F(Tess, StartsWithoutPortsWhenNoneIsAskedFor)
{
    const TTess tess(TESS_QUEUE_ID, false, false, false, false);
    EXPECT_EQ(g_milestone.load(), 8);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Tess, StartsWithEmptyListsAndNoStopRequested)
{
    TTess tess(TESS_QUEUE_ID, false, false, false, false);
    TessPeer peer(tess);
    EXPECT_EQ(peer.stopRequested(), 0);
    EXPECT_TRUE(peer.serviceDone());
    EXPECT_THAT(peer.conns(), IsEmpty());
    EXPECT_THAT(peer.regProcs(), IsEmpty());
    EXPECT_THAT(peer.ports(), IsEmpty());
}

TEST_F(Tess, FailsWhenItsQueueAddressIsInUse)
{
    const QueueProcess holder(directory, TESS_QUEUE_ID);
    EXPECT_EQ(problemOf(TESS_QUEUE_ID, false, false), "queue address 1001 is in use");
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{250001, "queue address 1001 is in use"}));
}

TEST_F(Tess, EndsInOrder)
{
    auto tess = std::make_unique<TTess>(TESS_QUEUE_ID, false, false, false, false);
    TessPeer peer(*tess);
    g_tess = tess.get();
    bool portGone = false;
    Events events;
    auto* const port = new FakePort(8);
    port->gone = &portGone;
    peer.ports().push_back(port);
    peer.conns() = {new FakeConn(8, 0, "a", &events), nullptr, new FakeConn(2, 0, "b", &events)};
    tess.reset();
    EXPECT_THAT(events, ElementsAre("a gone", "b gone"));
    EXPECT_TRUE(portGone);
    EXPECT_EQ(g_milestone.load(), 10);
    EXPECT_EQ(g_tess.load(), nullptr);
    EXPECT_THAT(log.lines(), ElementsAre(closingAll));
}

TEST_F(Tess, FreesItsQueueAddressAtItsEnd)
{
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(problemOf(TESS_QUEUE_ID, false, false), "none");
    EXPECT_TRUE(fs::is_empty(directory.path()));
}

TEST_F(Tess, LeavesItsRegistryBehind)
{
    TRegisteredProc* left = nullptr;
    {
        TTess tess(TESS_QUEUE_ID, false, false, false, false);
        left = new TRegisteredProc{2001, 8, "ENC"};
        TessPeer(tess).regProcs().push_back(left);
    }
    EXPECT_EQ(left->name, "ENC") << "its records are not deleted";
    delete left;
}

// --- ports

TEST_F(TessWithPorts, OpensThePortsThatAreAskedForXcpFirst)
{
    struct Row {
        bool xcp, ipc;
        std::vector<std::uint32_t> ports;
        std::vector<LogLine> lines;
    };
    const Row rows[] = {
        {true, true, {4, 8}, {initXcp, initIpc, closingAll, xcpClosed, ipcClosed}},
        {true, false, {4}, {initXcp, closingAll, xcpClosed}},
        {false, true, {8}, {initIpc, closingAll, ipcClosed}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << "xcp " << row.xcp << " ipc " << row.ipc);
        const std::size_t before = log.lines().size();
        {
            TTess tess(TESS_QUEUE_ID, false, false, row.xcp, row.ipc);
            std::vector<std::uint32_t> types;
            for (const TCmdPort* port : TessPeer(tess).ports())
                types.push_back(port->portType);
            EXPECT_EQ(types, row.ports);
            EXPECT_EQ(fs::exists(XCP_SOCKET_PATH), row.xcp);
            EXPECT_EQ(fs::exists(IPC_SOCKET_PATH), row.ipc);
        }
        const auto lines = log.lines();
        EXPECT_EQ(std::vector<LogLine>(lines.begin() + static_cast<std::ptrdiff_t>(before), lines.end()), row.lines);
        EXPECT_FALSE(fs::exists(XCP_SOCKET_PATH));
        EXPECT_FALSE(fs::exists(IPC_SOCKET_PATH));
    }
}

TEST_F(TessWithPorts, ClosesWhatWasOpenWhenAPortFails)
{
    fs::create_directories(fs::path(IPC_SOCKET_PATH) / "not empty");
    EXPECT_EQ(problemOf(TESS_QUEUE_ID, true, true), "failed binding to IPC socket");
    EXPECT_THAT(log.lines(), ElementsAre(initXcp, initIpc, xcpClosed));
    EXPECT_FALSE(fs::exists(XCP_SOCKET_PATH));
    fs::remove_all(IPC_SOCKET_PATH);
    EXPECT_EQ(problemOf(TESS_QUEUE_ID, true, true), "none") << "the queue address is free again";
}

TEST_F(TessWithPorts, DisturbsNothingOfAnotherDaemonOnTheSameQueueAddress)
{
    const TTess first(TESS_QUEUE_ID, false, false, true, true);
    EXPECT_EQ(problemOf(TESS_QUEUE_ID, true, true), "queue address 1001 is in use");
    EXPECT_NO_FATAL_FAILURE(LocalClient{XCP_SOCKET_PATH});
    EXPECT_NO_FATAL_FAILURE(LocalClient{IPC_SOCKET_PATH});
}

// --- bulk closing

namespace {

class BulkClosing : public testing::Test {
protected:
    std::vector<std::string> closeTelnetOf(const std::vector<std::pair<std::uint32_t, const char*>>& conns)
    {
        bench.peer.closeAllConns();
        bench.events.clear();
        for (const auto& [type, name] : conns) {
            if (type == 0)
                bench.peer.conns().push_back(nullptr);
            else
                bench.addConn(type, 0, name);
        }
        bench.peer.closeTelnetConns();
        EXPECT_EQ(g_milestone.load(), 39);
        return bench.events;
    }

    DaemonTestBench bench;
};

} // namespace

TEST_F(BulkClosing, ClosesAllConnectionsWhetherOrNotAPortClaimsThem)
{
    bench.addPort(8);
    bench.peer.conns().push_back(nullptr);
    bench.addConn(8, 0, "a");
    bench.addConn(2, 0, "b");
    bench.peer.conns().push_back(nullptr);
    bench.addConn(8, 0, "c");
    bench.peer.closeAllConns();
    EXPECT_THAT(bench.events, ElementsAre("a gone", "b gone", "c gone"));
    EXPECT_THAT(bench.peer.conns(), IsEmpty());
    EXPECT_EQ(g_milestone.load(), 39);
    EXPECT_THAT(bench.log.lines(), ElementsAre(closingAll));
    EXPECT_TRUE(LockProbe(bench.peer.connLock()).takenWithin(DEADLINE));
}

TEST_F(BulkClosing, ClosesTelnetConnectionsButPassesOverTheOneThatMovesToTheFront)
{
    bench.addPort(2);
    bench.addPort(8);
    EXPECT_THAT(closeTelnetOf({{2, "a"}}), ElementsAre("a gone"));
    EXPECT_THAT(closeTelnetOf({{2, "a"}, {2, "b"}, {2, "c"}, {2, "d"}}), ElementsAre("a gone", "c gone", "d gone"));
    EXPECT_THAT(closeTelnetOf({{8, "i"}, {2, "a"}, {2, "b"}, {2, "c"}}), ElementsAre("a gone", "b gone", "c gone"));
    EXPECT_THAT(closeTelnetOf({{2, "a"}, {8, "i"}, {2, "b"}}), ElementsAre("a gone", "b gone"));
    EXPECT_THAT(closeTelnetOf({{8, "i"}, {4, "x"}}), IsEmpty());
    EXPECT_THAT(closeTelnetOf({}), IsEmpty());
}

TEST_F(BulkClosing, StepsOverNullEntries)
{
    bench.addPort(2);
    EXPECT_THAT(closeTelnetOf({{0, ""}, {2, "a"}, {0, ""}, {2, "b"}}), ElementsAre("a gone", "b gone"));
    EXPECT_EQ(bench.peer.conns().size(), 2U) << "and leaves them where they are";
}

TEST_F(BulkClosing, PassesOverTheOneBehindARemovalThatFailed)
{
    EXPECT_THAT(closeTelnetOf({{8, "i"}, {2, "a"}, {2, "b"}, {2, "c"}}), ElementsAre("a gone", "c gone"));
}

// --- service thread and teardown

TEST_F(TessWithPorts, ServesOnForTwoSecondsAfterAStopMessageAndEndsAsAWhole)
{
    auto tess = std::make_unique<TTess>(TESS_QUEUE_ID, false, false, true, true);
    TessPeer peer(*tess);
    ASSERT_EQ(tess->startService(), 0);
    const LocalClient client(IPC_SOCKET_PATH);
    const Stopwatch watch;
    InBackground end([&] {
        tess.reset();
        return 0;
    });
    EXPECT_TRUE(waitUntil([&] { return peer.isEnding(); }));
    EXPECT_TRUE(client.send("*\n"));
    EXPECT_EQ(client.receive(5), "0\r\n\r\n");
    end.wait();
    EXPECT_GE(watch.ms(), 2000);
    EXPECT_EQ(g_serviceThread, static_cast<pthread_t>(-1)) << "it was joined";
    EXPECT_EQ(client.receive(1), "") << "closed";
    EXPECT_THAT(log.lines(), ElementsAre(initXcp, initIpc, closingAll, xcpClosed, ipcClosed));
    EXPECT_TRUE(fs::is_empty(directory.path()));
}

TEST_F(TessWithPorts, EndsAtOnceWhenASignalComesWhileItServesOn)
{
    constexpr double END_TIME_MS = 2000;
    double fastest = END_TIME_MS;
    for (int i = 0; i < 10 && fastest >= END_TIME_MS; ++i) { // one slow round tells nothing of the daemon
        auto tess = std::make_unique<TTess>(TESS_QUEUE_ID, false, false, true, true);
        g_tess = tess.get();
        ASSERT_EQ(tess->startService(), 0);
        const pthread_t self = ::pthread_self();
        const Stopwatch watch;
        const WaitingThread ending;
        std::thread signals([self, &ending] {
            EXPECT_TRUE(ending.untilAsleep());
            ::pthread_kill(self, SIGTERM);
        });
        tess.reset();
        fastest = std::min(fastest, watch.ms());
        signals.join();
    }
    EXPECT_LT(fastest, END_TIME_MS);
}

TEST_F(TessWithPorts, WakesItsServiceThreadWhenASignalAsksItToStop)
{
    auto tess = std::make_unique<TTess>(TESS_QUEUE_ID, false, false, true, true);
    g_wakeUp.clear();
    WaitSet waits;
    waits.addInput(g_wakeUp.fd());
    tess->requestStop();
    waits.wait({});
    EXPECT_TRUE(waits.hasInput(g_wakeUp.fd()));
}

TEST_F(TessWithPorts, EndsWhileAConnectionWaitsForItsFrame)
{
    auto tess = std::make_unique<TTess>(TESS_QUEUE_ID, false, false, true, true);
    ASSERT_EQ(tess->startService(), 0);
    const LocalClient half(XCP_SOCKET_PATH);
    ASSERT_TRUE(half.send("AB"));
    tess->requestStop();
    tess.reset();
    EXPECT_EQ(half.receive(1), "");
    EXPECT_EQ(log.count(closingAll), 1);
    EXPECT_EQ(g_serviceThread, static_cast<pthread_t>(-1));
}

TEST_F(TessWithPorts, TakesCommandsToAProcessAndItsAnswersBackUntilItIsStoppedInBetween)
{
    for (int round = 0; round < 4; ++round) {
        auto tess = std::make_unique<TTess>(TESS_QUEUE_ID, false, false, true, true);
        TessPeer peer(*tess);
        ASSERT_EQ(tess->startService(), 0);
        std::thread loop([&] { tess->run(); });

        const QueueProcess encoder(directory, 2001);
        const Outgoing in = registration(8, "ENC");
        ASSERT_TRUE(encoder.send(TESS_QUEUE_ID, in.record, in.length));
        ASSERT_TRUE(encoder.receive());
        std::atomic<bool> ended{false};
        std::thread answering([&] {
            while (!ended)
                for (const Received& command : encoder.receiveAll()) {
                    const Outgoing answer = message(MSG_REPLY, command.text(), command.record.tag);
                    // A full queue of the daemon: it reads, so it will have room.
                    waitUntil([&] { return ended || encoder.send(TESS_QUEUE_ID, answer.record, answer.length); });
                }
        });

        const LocalClient a(IPC_SOCKET_PATH);
        const LocalClient b(IPC_SOCKET_PATH);
        for (int i = 0; i < 50; ++i) {
            const std::string number = std::to_string(1000 + i);
            ASSERT_TRUE(a.send("a" + number + "\n"));
            ASSERT_TRUE(b.send("b" + number + "\n"));
            ASSERT_EQ(a.receive(6), "a" + number + "\n");
            ASSERT_EQ(b.receive(6), "b" + number + "\n");
        }
        for (int i = 0; i < 5; ++i) // in flight at the end
            ASSERT_TRUE(a.send("x\ny\n") && b.send("x\ny\n"));
        if (round % 2 == 0) {
            tess->requestStop();
        } else {
            const Outgoing stop = message(MSG_STOP);
            ASSERT_TRUE(waitUntil([&] { return encoder.send(TESS_QUEUE_ID, stop.record, stop.length); }));
        }
        loop.join();
        ended = true;
        answering.join();
        peer.clearRegistry();
        tess.reset();
    }
    EXPECT_EQ(log.count(closingAll), 4);
}
