#include <gmock/gmock.h>
#include <optional>
#include <sys/eventfd.h>
#include <thread>

#include "common/milestone.h"
#include "framework/queue_mgr.h"
#include "tests/daemon/daemon_test_bench.h"
#include "tests/daemon/fake_restart.h"
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

TEST_F(ServiceLoop, WritesBehindThePassWhatHasComeForItsConnectionsMeanwhile)
{
    FakeConn& a = bench.addConn(8, 1 << 16, "a");
    FakeConn& b = bench.addConn(8, 2 << 16, "b");
    a.willRead({"*"});
    b.willRead({"*"});
    a.onRead = [&] {
        std::thread([&] { // nobody waits, though the connections are locked
            for (const std::uint32_t id : {2U, 1U, 2U}) {
                const Outgoing answer = message(MSG_REPLY, "X" + std::to_string(id), id << 16);
                bench.peer.takeAnswer(answer.record, answer.length);
            }
        })
            .join();
    };
    pass();
    EXPECT_THAT(a.written, ElementsAre("0\r\n\r\n", "X1"));
    EXPECT_THAT(b.written, ElementsAre("0\r\n\r\n", "X2", "X2"));
    EXPECT_TRUE(LockProbe(bench.peer.connLock()).takenWithin(DEADLINE));
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

TEST_F(ServiceLoopWithEncoder, TakesNoLinesFromAConnectionInFrontWhosePasswordIsLookedAt)
{
    bench.addPort(2);
    FakeConn& a = bench.addConn(2, 0xAA01'0000, "a");
    a.willRead({"a0", "a1", "a2"});
    FakeConn& b = bench.addConn(2, 0xAA02'0000, "b");
    b.willRead({"quit", "b1", "b2"});
    b.onRead = [&a] { a.login.owes = LoginOwes::verdict; };
    bench.addConn(8, 0xBB01'0000, "c").willRead({"c0"});
    EXPECT_THAT(pass(), ElementsAre("a read", "b read", "b gone", "c read"));
    EXPECT_THAT(encoder.receiveTexts(), ElementsAre("a0\n", "a1\n", "a2\n", "c0\n"));
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

namespace {

/// A descriptor that always has something to read.
class ReadyInput {
public:
    ReadyInput() : fd_(::eventfd(1, EFD_CLOEXEC)) {}
    ReadyInput(const ReadyInput&) = delete;
    ReadyInput& operator=(const ReadyInput&) = delete;
    ~ReadyInput() { ::close(fd_); }

    int fd() const { return fd_; }

private:
    int fd_;
};

constexpr std::chrono::hours LONG{1};

/// Waits for what was collected, if that is anything, and tells which of the descriptors are ready.
std::vector<int> readyOf(WaitSet& waits, const std::vector<int>& fds)
{
    std::vector<int> ready;
    waits.wait({});
    for (const int fd : fds)
        if (waits.hasInput(fd)) ready.push_back(fd);
    return ready;
}

} // namespace

TEST_F(ServiceLoop, WaitsForThePortsAndConnectionsThatHaveADescriptor)
{
    const ReadyInput inputs[5];
    bench.addPort(4).fd = inputs[0].fd();
    bench.addPort(8).fd = -1;
    FakePort& resting = bench.addPort(8);
    resting.fd = inputs[1].fd();
    resting.wantsInput = false;
    bench.addConn(8, 0).fd = inputs[2].fd();
    bench.addConn(8, 0).fd = -1;
    bench.addConn(8, 0).fd = FD_SETSIZE;
    FakeConn& sated = bench.addConn(8, 0);
    sated.fd = inputs[3].fd();
    sated.wantsInput = false;
    bench.addConn(8, 0).fd = inputs[4].fd();
    bench.peer.conns().insert(bench.peer.conns().begin(), nullptr);
    bench.peer.ports().insert(bench.peer.ports().begin(), nullptr);
    WaitSet waits;
    EXPECT_TRUE(bench.peer.collectConns(waits));
    std::vector<int> fds;
    for (const ReadyInput& input : inputs)
        fds.push_back(input.fd());
    EXPECT_THAT(readyOf(waits, fds), ElementsAre(fds[0], fds[2], fds[4]));
    EXPECT_EQ(bench.peer.conns().size(), 5U) << "null entries are erased";
    EXPECT_EQ(bench.peer.ports().size(), 3U);
}

TEST_F(ServiceLoop, HasNothingToWaitForWithoutDescriptors)
{
    bench.addPort(4).fd = -1;
    bench.addConn(8, 0).fd = -1;
    bench.addConn(8, 0).fd = FD_SETSIZE;
    WaitSet waits;
    EXPECT_FALSE(bench.peer.collectConns(waits));
    FakeConn& conn = bench.addConn(8, 0);
    conn.fd = 0;
    conn.wantsInput = false;
    EXPECT_TRUE(bench.peer.collectConns(waits)) << "whether or not it is waited for";
}

TEST_F(ServiceLoop, LeavesAMutedSerialLineOutOfTheWait)
{
    const ReadyInput line;
    const ReadyInput socket;
    FakeConn& serial = bench.addConn(1, 0);
    serial.fd = line.fd();
    serial.makeSerial();
    FakeConn& other = bench.addConn(8, 0);
    other.fd = socket.fd();
    other.unmuted = 0; // means nothing on a connection that is no serial line
    for (const int unmuted : {1, 0}) {
        serial.unmuted = unmuted;
        WaitSet waits;
        bench.peer.collectConns(waits);
        const auto ready = readyOf(waits, {line.fd(), socket.fd()});
        EXPECT_EQ(ready.size(), unmuted != 0 ? 2U : 1U);
        EXPECT_EQ(ready.back(), socket.fd());
    }
}

TEST_F(ServiceLoop, WaitsNoLongerThanUntilSomethingIsDue)
{
    FakePort& port = bench.addPort(8);
    FakeConn& conn = bench.addConn(8, 0);
    auto& arriving = *port.arriving.emplace_back(new FakeConn(8, 0));
    for (Instant* const due : {&port.due, &conn.due, &arriving.due}) {
        port.due = conn.due = arriving.due = NEVER;
        *due = AT_ONCE;
        WaitSet waits;
        bench.peer.collectConns(waits);
        waits.wait(LONG); // or else the test would take as long
    }
    delete port.arriving.back();
}

TEST_F(ServiceLoop, LooksOnlyAtConnectionsThatAreReadyOrDueOrNew)
{
    const ReadyInput input;
    bench.addConn(8, 0, "new");
    bench.addConn(8, 0, "idle").due = NEVER;
    bench.addConn(8, 0, "later").due = instantNow() + LONG;
    bench.addConn(8, 0, "due").due = instantNow();
    FakeConn& ready = bench.addConn(8, 0, "ready");
    ready.due = NEVER;
    ready.fd = input.fd();
    FakeConn& sated = bench.addConn(8, 0, "sated");
    sated.due = NEVER;
    sated.fd = input.fd();
    sated.wantsInput = false;
    bench.peer.serve();
    EXPECT_THAT(bench.events, ElementsAre("new read", "due read", "ready read"));
}

TEST_F(ServiceLoop, AsksOnlyPortsThatSomebodyKnocksAtOrThatAreDueOrNew)
{
    const ReadyInput input;
    struct Row {
        const char* behaviour;
        int checks;
        Instant due;
        int fd;
        bool wantsInput;
        bool standing;
    };
    const Row rows[] = {
        {"new", 1, AT_ONCE, -1, true, false},
        {"idle", 0, NEVER, -1, true, false},
        {"due later", 0, instantNow() + LONG, -1, true, false},
        {"somebody knocks", 1, NEVER, input.fd(), true, false},
        {"rests, and somebody knocks", 0, instantNow() + LONG, input.fd(), false, false},
        {"has a place for its one connection", 1, NEVER, -1, false, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        FakePort& port = bench.addPort(8);
        port.due = row.due;
        port.fd = row.fd;
        port.wantsInput = row.wantsInput;
        port.standing = row.standing;
        bench.peer.serve();
        EXPECT_EQ(port.checks, row.checks);
        port.activeConns = port.maxConns;
        port.due = NEVER;
        port.fd = -1;
        bench.peer.serve();
        EXPECT_EQ(port.checks, row.checks) << "there is no place";
    }
}

TEST_F(ServiceLoop, LooksAtWhomThePortIsStillSettingUp)
{
    FakePort& port = bench.addPort(8);
    const ReadyInput input;
    port.due = NEVER;
    FakeConn conn(8, 0);
    conn.due = NEVER;
    port.arriving.push_back(&conn);
    bench.peer.serve();
    EXPECT_EQ(port.checks, 0);
    conn.fd = input.fd();
    bench.peer.serve();
    EXPECT_EQ(port.checks, 1);
    conn.wantsInput = false;
    bench.peer.serve();
    EXPECT_EQ(port.checks, 1);
    conn.due = instantNow();
    bench.peer.serve();
    EXPECT_EQ(port.checks, 2);
    port.arriving.clear();
}

// --- the loop

namespace {

/// Counts the turns of the loop: each asks it once.
class TurnCounter : public FakeConn {
public:
    explicit TurnCounter(std::atomic<int>& turns) : FakeConn(1, 0), turns_(turns) { due = NEVER; }
    int isSerialLine() override
    {
        ++turns_;
        return 0;
    }

private:
    std::atomic<int>& turns_;
};

/// The service loop on a port that has nothing but a descriptor.
class ServiceLoopThread : public ServiceLoop {
protected:
    ServiceLoopThread()
    {
        port.fd = input;
        bench.peer.conns().push_back(new TurnCounter(turns));
    }
    ~ServiceLoopThread() override
    {
        bench.tess->requestStop();
        bench.endDaemon();
        ::close(input);
    }

    StreamPair pair;
    const int input = pair.releaseServer();
    FakePort& port = bench.addPort(8);
    std::atomic<int> turns = 0;
};

} // namespace

TEST_F(ServiceLoopThread, WakesUpOnceASecondWhenNothingHappens)
{
    ASSERT_EQ(bench.tess->startService(), 0);
    const Stopwatch watch;
    ASSERT_TRUE(waitUntil([this] { return turns >= 4; }));
    EXPECT_GE(watch.ms(), 2900) << "of the first turn and three more";
    EXPECT_EQ(port.checks, 1) << "nobody knocks";
}

TEST_F(ServiceLoopThread, WakesUpFourTimesASecondWhileACommandIsDelayed)
{
    bench.peer.delayQueues().add(UINT64_MAX, "X");
    ASSERT_EQ(bench.tess->startService(), 0);
    const Stopwatch watch;
    ASSERT_TRUE(waitUntil([this] { return turns >= 5; }));
    EXPECT_GE(watch.ms(), 950);
}

TEST_F(ServiceLoopThread, RunsDelayedCommandsWithoutTheConnectionLock)
{
    FakeRestart system;
    std::optional<LockProbe<FairMutex>> probe;
    bool free = false;
    system.onFork = [&] {
        EXPECT_TRUE(bench.peer.connLock().isMine()) << "a copy begins with whole lists";
        bench.tess->requestStop();
    };
    bench.peer.delayQueues().add(0, "RESET");
    port.onCheck = [&] { free = probe.emplace(bench.peer.connLock()).takenWithin(DEADLINE); };
    bench.peer.serviceLoop();
    EXPECT_THAT(system.calls, ElementsAre("fork"));
    EXPECT_TRUE(free);
}

TEST_F(ServiceLoopThread, WakesUpForInput)
{
    ASSERT_EQ(bench.tess->startService(), 0);
    ASSERT_TRUE(pair.send("X")); // stays there: the port never reads it
    EXPECT_TRUE(waitUntil([this] { return port.checks >= 100; }, 20 * DEADLINE)) << "not once a second";
}

TEST_F(ServiceLoopThread, IsWokenByOthersWithoutSpinningAfterwards)
{
    ASSERT_EQ(bench.tess->startService(), 0);
    ASSERT_TRUE(waitUntil([this] { return turns >= 1; }));
    const int before = turns;
    const Stopwatch watch;
    for (int i = 0; i < 200; ++i) {
        const int seen = turns;
        g_wakeUp.wake();
        ASSERT_TRUE(waitUntil([&] { return turns > seen; }));
    }
    EXPECT_LE(turns - before, 200 + 200 + static_cast<int>(watch.ms() / 1000) + 1) << "one turn for each, or two";
    EXPECT_LT(watch.ms(), 200 * 500) << "not once a second";
}

TEST_F(ServiceLoopThread, AcceptsOnceAndEndsWhenAStopIsAlreadyRequested)
{
    bench.tess->requestStop();
    bench.peer.serviceLoop();
    EXPECT_EQ(port.checks, 1);
    EXPECT_TRUE(bench.peer.serviceDone());
    EXPECT_EQ(g_milestone.load(), 21);
}

TEST_F(ServiceLoopThread, WakesTheMessageLoopWhenItEnds)
{
    ASSERT_EQ(bench.tess->startService(), 0);
    bench.tess->requestStop();
    TOrbAttachmentMsg msg;
    EXPECT_TRUE(waitUntil([&] { return g_qMgr.getMsg(&msg, MSG_QUEUE_ALL, true) == 16; }));
    EXPECT_EQ(msg.kind, 0U);
    EXPECT_EQ(msg.sender, TESS_QUEUE_ID);
}

TEST_F(ServiceLoop, SkipsItsPassesWithoutDescriptors)
{
    FakePort& port = bench.addPort(8);
    std::atomic<int> turns = 0;
    bench.peer.conns().push_back(new TurnCounter(turns));
    bench.addConn(8, 0, "a");
    std::thread loop([&] { bench.peer.serviceLoop(); });
    EXPECT_TRUE(waitUntil([&] { return turns >= 1000; })) << "it repeats at once";
    bench.tess->requestStop();
    loop.join();
    EXPECT_TRUE(bench.peer.serviceDone());
    EXPECT_EQ(port.checks, 1) << "only the first look";
    EXPECT_THAT(bench.events, IsEmpty());
}
