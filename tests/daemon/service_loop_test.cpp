#include <gmock/gmock.h>
#include <optional>
#include <sys/resource.h>
#include <thread>

#include "daemon/service_gate.h"
#include "ports/milestone.h"
#include "tests/daemon/daemon_test_bench.h"
#include "tests/daemon/fake_system.h"
#include "tests/support/stream_pair.h"
#include "tests/support/waiting.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class ServiceLoop : public testing::Test {
protected:
    /// What happened in one pass.
    Events pass()
    {
        bench.events.clear();
        bench.peer.servicePass();
        return bench.events;
    }

    DaemonTestBench bench;
};

/// With a process ENC that takes every port.
class ServiceLoopWithEncoder : public ServiceLoop {
protected:
    ServiceLoopWithEncoder() { bench.registerProcess(2001, 15, "ENC"); }

    QueueProcess encoder{bench.directory, 2001};
};

} // namespace

// --- accepting

TEST_F(ServiceLoop, TakesTheNewConnectionsOfAllPortsInOrder)
{
    FakePort& first = bench.addPort(4);
    FakePort& second = bench.addPort(8);
    auto* const a = new FakeConn(4, 1 << 16);
    auto* const b = new FakeConn(8, 2 << 16);
    auto* const c = new FakeConn(8, 3 << 16);
    first.waiting = {a};
    second.waiting = {b, c};
    bench.peer.acceptConnections();
    EXPECT_THAT(bench.peer.conns(), ElementsAre(a, b)) << "one of each port a pass";
    bench.peer.acceptConnections();
    EXPECT_THAT(bench.peer.conns(), ElementsAre(a, b, c));
    EXPECT_EQ(g_milestone.load(), 29);
}

TEST_F(ServiceLoop, ErasesNullPorts)
{
    bench.peer.ports() = {nullptr, nullptr};
    const FakePort& port = bench.addPort(8);
    bench.peer.ports().push_back(nullptr);
    bench.peer.acceptConnections();
    EXPECT_EQ(port.checks, 1);
    EXPECT_EQ(bench.peer.ports().size(), 1U);
}

TEST_F(ServiceLoop, TakesNoConnectionThatAPortOnlyAnnounces)
{
    bench.addPort(8).checkResult = 1;
    bench.peer.acceptConnections();
    EXPECT_THAT(bench.peer.conns(), IsEmpty());
}

TEST_F(ServiceLoop, AsksPortsWithoutTheConnectionLock)
{
    FakePort& port = bench.addPort(8);
    std::optional<LockProbe<FairMutex>> probe;
    bool free = false;
    port.onCheck = [&] { free = probe.emplace(bench.peer.connLock()).takenWithin(std::chrono::seconds(5)); };
    bench.peer.acceptConnections();
    EXPECT_TRUE(free);
}

// --- the pass

TEST_F(ServiceLoop, ReadsEveryConnectionInOrderUnderTheConnectionLock)
{
    bench.addConn(8, 1 << 16, "a");
    FakeConn& b = bench.addConn(8, 2 << 16, "b");
    std::optional<LockProbe<FairMutex>> probe;
    bool free = true;
    b.onRead = [&] { free = probe.emplace(bench.peer.connLock()).takenWithin(std::chrono::milliseconds(50)); };
    EXPECT_THAT(pass(), ElementsAre("a read", "b read"));
    EXPECT_FALSE(free);
    EXPECT_TRUE(probe->takenWithin(DEADLINE)) << "and no longer";
    EXPECT_EQ(g_milestone.load(), 31);
}

TEST_F(ServiceLoop, MarksTheRecordAsTextForEveryPass)
{
    bench.peer.outMsg().kind = 7;
    pass();
    EXPECT_EQ(bench.peer.outMsg().kind, 101U);
}

TEST_F(ServiceLoop, RemovesAConnectionWhosePeerClosedAndLeavesTheNextForTheNextPass)
{
    bench.addPort(8);
    bench.addConn(8, 1 << 16, "a").willClose();
    bench.addConn(8, 2 << 16, "b");
    bench.addConn(8, 3 << 16, "c");
    EXPECT_THAT(pass(), ElementsAre("a read", "a gone", "c read"));
    EXPECT_THAT(pass(), ElementsAre("b read", "c read"));
}

TEST_F(ServiceLoop, RemovesEveryOtherOfManyThatClosed)
{
    bench.addPort(8);
    for (const char* name : {"a", "b", "c", "d"})
        bench.addConn(8, 0, name).willClose();
    EXPECT_THAT(pass(), ElementsAre("a read", "a gone", "c read", "c gone"));
    EXPECT_THAT(pass(), ElementsAre("b read", "b gone"));
    EXPECT_THAT(pass(), ElementsAre("d read", "d gone"));
    EXPECT_THAT(pass(), IsEmpty());
}

TEST_F(ServiceLoop, RemovesAConnectionThatWasIdleTooLong)
{
    bench.addPort(2);
    bench.addConn(2, 1 << 16, "a").timedOut = 1;
    bench.addConn(2, 2 << 16, "b");
    EXPECT_THAT(pass(), ElementsAre("a read", "a gone"));
    EXPECT_THAT(pass(), ElementsAre("b read"));
}

TEST_F(ServiceLoop, KeepsAnIdleConnectionThatYieldsALineAfterAll)
{
    FakeConn& conn = bench.addConn(2, 1 << 16, "a");
    conn.timedOut = 1;
    conn.willRead({"X"});
    EXPECT_THAT(pass(), ElementsAre("a read"));
    EXPECT_THAT(conn.written, ElementsAre("?\r\n"));
}

TEST_F(ServiceLoop, ErasesNullConnections)
{
    bench.peer.conns() = {nullptr, nullptr};
    bench.addConn(8, 1 << 16, "a");
    bench.peer.conns().push_back(nullptr);
    bench.addConn(8, 2 << 16, "b");
    bench.peer.conns().push_back(nullptr);
    EXPECT_THAT(pass(), ElementsAre("a read", "b read"));
    EXPECT_EQ(bench.peer.conns().size(), 2U);
}

TEST_F(ServiceLoopWithEncoder, HandsTheLinesOfEveryConnectionToTheInterpreter)
{
    FakeConn& a = bench.addConn(8, 0xBB01'0000, "a");
    FakeConn& b = bench.addConn(4, 0x0057'0000, "b");
    a.willRead({"A1", "*", "A2|A3"});
    b.willRead({"s3.NONE X", "B1"});
    b.tag = 7;
    pass();
    const auto received = encoder.receiveAll();
    ASSERT_EQ(received.size(), 4U);
    EXPECT_EQ(received[0].text(), "A1\n");
    EXPECT_EQ(received[1].text(), "A2\n");
    EXPECT_EQ(received[2].text(), "A3\n");
    EXPECT_EQ(received[3].text(), "B1\n");
    EXPECT_EQ(received[0].record.kind, 101U);
    EXPECT_EQ(received[0].record.tag, 0xBB01'0000U);
    EXPECT_EQ(received[3].record.tag, 0x0057'0007U);
    EXPECT_THAT(a.written, ElementsAre("0\r\n\r\n"));
    EXPECT_THAT(b.written, ElementsAre("?\r\n"));
}

// --- quit

TEST_F(ServiceLoopWithEncoder, DropsTheLinesLeftWhenTheFirstConnectionQuits)
{
    bench.addPort(2);
    bench.addConn(2, 0xAA01'0000, "a").willRead({"A", "quit", "B"});
    bench.addConn(2, 0xAA02'0000, "b").willRead({"C"});
    EXPECT_THAT(pass(), ElementsAre("a read", "a gone", "b read"));
    EXPECT_THAT(encoder.receiveTexts(), ElementsAre("A\n", "C\n"));
}

TEST_F(ServiceLoopWithEncoder, TakesTheLinesLeftFromTheConnectionInFrontWhenALaterOneQuits)
{
    bench.addPort(2);
    bench.addConn(8, 0xBB01'0000, "a").willRead({"a0", "a1", "a2", "a3"});
    bench.addConn(2, 0xAA01'0000, "b").willRead({"b0", "quit", "b2", "b3"});
    bench.addConn(8, 0xBB02'0000, "c").willRead({"c0"});
    EXPECT_THAT(pass(), ElementsAre("a read", "b read", "b gone", "c read"));
    const auto received = encoder.receiveAll();
    std::vector<std::string> seen;
    for (const Received& one : received)
        seen.emplace_back(one.text());
    EXPECT_THAT(seen, ElementsAre("a0\n", "a1\n", "a2\n", "a3\n", "b0\n", "a2\n", "a3\n", "c0\n"));
    EXPECT_EQ(received[5].record.tag, 0xBB01'0000U) << "as that connection's own";
}

TEST_F(ServiceLoopWithEncoder, FindsNoLinesInAConnectionInFrontThatNeverHadAny)
{
    bench.addPort(2);
    bench.addConn(8, 0xBB01'0000, "a");
    bench.addConn(2, 0xAA01'0000, "b").willRead({"quit", "b1", "b2"});
    EXPECT_THAT(pass(), ElementsAre("a read", "b read", "b gone"));
    EXPECT_THAT(encoder.receiveTexts(), IsEmpty());
}

TEST_F(ServiceLoopWithEncoder, LetsTheLinesLeftCloseTheConnectionInFrontToo)
{
    bench.addPort(2);
    FakeConn& a = bench.addConn(2, 0xAA01'0000, "a");
    a.willRead({"a0"});
    a.cmds[1] = {0, a.rxBuf.data() + 100};
    a.onRead = [&a] { std::memcpy(a.rxBuf.data() + 100, "quit", 5); };
    bench.addConn(2, 0xAA02'0000, "b").willRead({"quit", "b1", "b2"});
    bench.addConn(2, 0xAA03'0000, "c").willRead({"c0"});
    EXPECT_THAT(pass(), ElementsAre("a read", "b read", "b gone", "a gone", "c read"));
    EXPECT_THAT(encoder.receiveTexts(), ElementsAre("a0\n", "c0\n"));
}

TEST_F(ServiceLoopWithEncoder, StopsAtTheFrontWhenTheOnlyConnectionQuits)
{
    bench.addPort(2);
    bench.addConn(2, 0xAA01'0000, "a").willRead({"quit", "A", "B"});
    EXPECT_THAT(pass(), ElementsAre("a read", "a gone"));
    EXPECT_THAT(bench.peer.conns(), IsEmpty());
    EXPECT_THAT(encoder.receiveTexts(), IsEmpty());
}

// --- removing

TEST_F(ServiceLoop, RemovesAConnectionThroughTheFirstPortOfItsType)
{
    FakePort& other = bench.addPort(4);
    FakePort& first = bench.addPort(8);
    FakePort& second = bench.addPort(8);
    bench.addConn(8, 1 << 16, "a");
    bench.addConn(8, 2 << 16, "b");
    EXPECT_EQ(bench.peer.removeConn(1), 0);
    EXPECT_EQ(g_milestone.load(), 37);
    EXPECT_THAT(bench.events, ElementsAre("b gone"));
    EXPECT_EQ(bench.peer.conns().size(), 1U);
    EXPECT_EQ(other.closed, 0);
    EXPECT_EQ(first.closed, 1);
    EXPECT_EQ(second.closed, 0);
}

TEST_F(ServiceLoop, DeletesAConnectionThatNoPortClaims)
{
    FakePort& port = bench.addPort(4);
    bench.addConn(8, 1 << 16, "a");
    EXPECT_EQ(bench.peer.removeConn(0), 1);
    EXPECT_EQ(g_milestone.load(), 37);
    EXPECT_THAT(bench.events, ElementsAre("a gone"));
    EXPECT_THAT(bench.peer.conns(), IsEmpty());
    EXPECT_EQ(port.closed, 0);
}

TEST_F(ServiceLoop, DeletesAConnectionThatItsPortHasLeftInTheSlot)
{
    bench.addPort(8).closeResult = 3;
    bench.addConn(8, 1 << 16, "a");
    EXPECT_EQ(bench.peer.removeConn(0), 3) << "the port's result";
    EXPECT_THAT(bench.events, ElementsAre("a gone"));
    EXPECT_THAT(bench.peer.conns(), IsEmpty());
}

TEST_F(ServiceLoop, LeavesAnEmptySlotWhereItIs)
{
    bench.peer.conns() = {nullptr};
    EXPECT_EQ(bench.peer.removeConn(0), 1);
    EXPECT_EQ(g_milestone.load(), 36) << "an early return leaves the entry number";
    EXPECT_EQ(bench.peer.conns().size(), 1U);
}

TEST_F(ServiceLoop, ErasesNullPortsWhenItLooksForOne)
{
    bench.peer.ports() = {nullptr};
    FakePort& port = bench.addPort(8);
    bench.addConn(8, 1 << 16);
    EXPECT_EQ(bench.peer.removeConn(0), 0);
    EXPECT_EQ(port.closed, 1);
    EXPECT_EQ(bench.peer.ports().size(), 1U);
}

// --- waiting

TEST_F(ServiceLoop, WaitsForThePortsAndConnectionsThatHaveADescriptor)
{
    bench.addPort(4).fd = 5;
    bench.addPort(8).fd = -1;
    bench.addConn(8, 0).fd = 9;
    bench.addConn(8, 0).fd = -1;
    bench.addConn(8, 0).fd = FD_SETSIZE;
    bench.addConn(8, 0).fd = 7;
    bench.peer.conns().insert(bench.peer.conns().begin(), nullptr);
    bench.peer.ports().insert(bench.peer.ports().begin(), nullptr);
    fd_set set;
    EXPECT_EQ(bench.peer.collectDescriptors(set), 9);
    std::vector<int> members;
    for (int fd = 0; fd < FD_SETSIZE; ++fd)
        if (FD_ISSET(fd, &set)) members.push_back(fd);
    EXPECT_THAT(members, ElementsAre(5, 7, 9));
    EXPECT_EQ(bench.peer.conns().size(), 4U) << "null entries are erased";
    EXPECT_EQ(bench.peer.ports().size(), 2U);
}

TEST_F(ServiceLoop, TakesTheHighestDescriptorThatASetHolds)
{
    bench.addConn(8, 0).fd = FD_SETSIZE - 1;
    bench.addConn(8, 0).fd = 0;
    fd_set set;
    EXPECT_EQ(bench.peer.collectDescriptors(set), FD_SETSIZE - 1);
    EXPECT_TRUE(FD_ISSET(FD_SETSIZE - 1, &set));
    EXPECT_TRUE(FD_ISSET(0, &set));
}

TEST_F(ServiceLoop, HasNothingToWaitForWithoutDescriptors)
{
    bench.addPort(4).fd = -1;
    bench.addConn(8, 0).fd = -1;
    fd_set set;
    EXPECT_EQ(bench.peer.collectDescriptors(set), -1);
}

TEST_F(ServiceLoop, LeavesAMutedSerialLineOutOfTheWaitAndItsPortToo)
{
    bench.addPort(1).fd = 6;
    FakeConn& serial = bench.addConn(1, 0);
    serial.fd = 6;
    serial.serial = 1;
    FakeConn& other = bench.addConn(8, 0);
    other.fd = 4;
    other.unmuted = 0; // means nothing on a connection that is no serial line
    fd_set set;
    EXPECT_EQ(bench.peer.collectDescriptors(set), 6);
    EXPECT_TRUE(FD_ISSET(6, &set));
    serial.unmuted = 0;
    EXPECT_EQ(bench.peer.collectDescriptors(set), 6);
    EXPECT_FALSE(FD_ISSET(6, &set));
    EXPECT_TRUE(FD_ISSET(4, &set));
}

// --- the loop

namespace {

/// The service loop on a port that has nothing but a descriptor.
class ServiceLoopThread : public ServiceLoop {
protected:
    ServiceLoopThread() { port.fd = input; }
    ~ServiceLoopThread() override
    {
        bench.endDaemon();
        ::close(input);
    }

    StreamPair pair;
    const int input = pair.releaseServer();
    FakePort& port = bench.addPort(8);
};

} // namespace

TEST_F(ServiceLoopThread, LooksAtItsPortsOnceASecondWhenNothingHappens)
{
    ASSERT_EQ(bench.tess->startService(), 0);
    const Stopwatch watch;
    ASSERT_TRUE(waitUntil([this] { return port.checks >= 3; }));
    EXPECT_GE(watch.ms(), 1900);
    EXPECT_LT(watch.ms(), atMost(3000));
    bench.tess->requestStop();
}

TEST_F(ServiceLoopThread, LooksFourTimesASecondWhileACommandIsDelayed)
{
    bench.peer.delayQueues().emplace(UINT64_MAX, "X");
    ASSERT_EQ(bench.tess->startService(), 0);
    const Stopwatch watch;
    ASSERT_TRUE(waitUntil([this] { return port.checks >= 5; }));
    EXPECT_GE(watch.ms(), 950);
    EXPECT_LT(watch.ms(), atMost(3000));
    bench.tess->requestStop();
}

TEST_F(ServiceLoopThread, RunsDelayedCommandsWithoutTheConnectionLock)
{
    FakeSystem system;
    std::optional<LockProbe<FairMutex>> probe;
    bool free = false;
    system.onFork = [&] {
        free = probe.emplace(bench.peer.connLock()).takenWithin(std::chrono::seconds(5));
        bench.tess->requestStop();
    };
    bench.peer.delayQueues().emplace(0, "RESET");
    g_serviceGate.open(bench.tess.get());
    bench.peer.serviceLoop();
    EXPECT_THAT(system.calls, ElementsAre("fork"));
    EXPECT_TRUE(free);
}

TEST_F(ServiceLoopThread, WakesUpAtOnceForInput)
{
    ASSERT_EQ(bench.tess->startService(), 0);
    ASSERT_TRUE(waitUntil([this] { return port.checks >= 1; }));
    ASSERT_TRUE(pair.send("X")); // stays there: the port never reads it
    const Stopwatch watch;
    ASSERT_TRUE(waitUntil([this] { return port.checks >= 100; }));
    EXPECT_LT(watch.ms(), atMost(5000));
    bench.tess->requestStop();
}

TEST_F(ServiceLoopThread, EndsSoonAfterItIsAskedToStop)
{
    ASSERT_EQ(bench.tess->startService(), 0);
    EXPECT_FALSE(bench.peer.serviceDone());
    ASSERT_TRUE(waitUntil([this] { return port.checks >= 1; }));
    bench.tess->requestStop();
    EXPECT_TRUE(waitUntil([this] { return bench.peer.serviceDone(); }, std::chrono::seconds(5)));
}

TEST_F(ServiceLoopThread, AcceptsOnceAndEndsWhenAStopIsAlreadyRequested)
{
    bench.tess->requestStop();
    g_serviceGate.open(bench.tess.get());
    bench.peer.serviceLoop();
    EXPECT_EQ(port.checks, 1);
    EXPECT_TRUE(bench.peer.serviceDone());
    EXPECT_EQ(g_milestone.load(), 21);
}

TEST_F(ServiceLoop, SkipsItsPassesWithoutDescriptors)
{
    FakePort& port = bench.addPort(8);
    bench.addConn(8, 0, "a");
    g_serviceGate.open(bench.tess.get());
    rusage used{};
    std::thread loop([&] {
        bench.peer.serviceLoop();
        ::getrusage(RUSAGE_THREAD, &used);
    });
    clockid_t clock{};
    EXPECT_EQ(::pthread_getcpuclockid(loop.native_handle(), &clock), 0);
    const bool spins = waitUntil([clock] {
        timespec time{};
        ::clock_gettime(clock, &time);
        return time.tv_sec > 0 || time.tv_nsec > 200'000'000;
    });
    bench.tess->requestStop();
    loop.join();
    EXPECT_TRUE(spins) << "it repeats at once";
    EXPECT_LT(used.ru_nvcsw, 100) << "and does not wait in between";
    EXPECT_TRUE(bench.peer.serviceDone());
    EXPECT_EQ(port.checks, 1) << "only the first look";
    EXPECT_THAT(bench.events, IsEmpty());
}
