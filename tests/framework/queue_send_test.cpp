#include <algorithm>
#include <atomic>
#include <csignal>
#include <limits>
#include <memory>
#include <pthread.h>
#include <thread>
#include <type_traits>
#include <vector>

#include "framework/bundled/own_queue.h"
#include "tests/framework/child_process.h"
#include "tests/framework/fake_system.h"
#include "tests/framework/queue_owner.h"
#include "tests/framework/queue_test.h"
#include "tests/framework/signal_counter.h"
#include "tests/support/allocation_count.h"
#include "tests/support/raw_socket.h"
#include "tests/support/waiting.h"
#include "tests/support/waiting_thread.h"

namespace {

// To the last const: a library that stands in for this one is found by names that are made of these
// types.
static_assert(std::is_same_v<decltype(&TQueueMgr::sendMsg), long (TQueueMgr::*)(long, TOrbAttachmentMsg*, long, bool)>);
static_assert(
    std::is_same_v<decltype(&TQueueMgr::getMsg), long (TQueueMgr::*)(TOrbAttachmentMsg*, TMsgQueueTypes, bool)>);

constexpr long PATIENCE_MS = 250;

class QueueSend : public QueueTest {
protected:
    static long send(long address, std::uint32_t number, std::size_t length = 64, bool wait = false)
    {
        TOrbAttachmentMsg msg = numbered(number);
        return g_qMgr.sendMsg(address, &msg, static_cast<long>(length), wait);
    }

    /// What a process does that answers each of the next records, numbered from 0, with itself.
    /// @return 0; 1 a record was another one; 2 an answer was not sent
    static int answerEach(long address, std::uint32_t records, Signpost& ready)
    {
        const QuietProc proc(address);
        ready.pass();
        TOrbAttachmentMsg msg{};
        for (std::uint32_t i = 0; i < records; ++i) {
            if (receiveNext(msg) != 64 || msg.tag != i || msg.sender != 1001) return 1;
            if (g_qMgr.sendMsg(msg.sender, &msg, 64, true) != 0) return 2;
        }
        return 0;
    }

    /// Fills a queue until it takes no more.
    /// @return records that it took
    static std::uint32_t fill(long address, std::size_t length = 64)
    {
        std::uint32_t taken = 0;
        long result = SEND_DONE;
        while (taken < 100'000 && (result = send(address, taken, length)) == SEND_DONE)
            ++taken;
        EXPECT_EQ(result, SEND_QUEUE_FULL);
        return taken;
    }

    static std::uint32_t tagOf(const std::string& datagram)
    {
        TOrbAttachmentMsg msg{};
        std::memcpy(static_cast<void*>(&msg), datagram.data(), std::min(datagram.size(), sizeof msg));
        return msg.tag;
    }
};

TEST_F(QueueSend, PutsTheRecordIntoTheDestinationsQueue)
{
    const QuietProc proc(1001);
    const RawSocket peer(pathOf(2001));
    TOrbAttachmentMsg msg = numbered(77, 'x');
    EXPECT_EQ(g_qMgr.sendMsg(2001, &msg, 100, false), 0);
    EXPECT_EQ(peer.receive(), std::string(reinterpret_cast<const char*>(&msg), 100));
}

TEST_F(QueueSend, ClampsTheLengthAboveARecordAndRefusesLessThanItsHeader)
{
    const QuietProc proc(1001);
    const RawSocket peer(pathOf(2001));
    const struct {
        long length;
        long sent; ///< 0: refused
    } cases[] = {{16, 16}, {8191, 8191}, {8192, 8192}, {8193, 8192}, {2147483647, 8192}, {15, 0}, {0, 0}, {-1, 0}};
    for (const auto& c : cases) {
        TOrbAttachmentMsg msg = numbered(1);
        EXPECT_EQ(g_qMgr.sendMsg(2001, &msg, c.length, false) != 0, c.sent == 0) << c.length;
        const std::string there = peer.receiveNow();
        if (c.sent == 0) {
            EXPECT_EQ(there, "<nothing there>") << c.length;
        } else {
            EXPECT_EQ(there.size(), static_cast<std::size_t>(c.sent)) << c.length;
        }
    }
}

TEST_F(QueueSend, CarriesTheAddressOfTheOpenQueueAndNoneWithoutOne)
{
    Signpost ready;
    ChildProcess receiver([&] {
        const QuietProc proc(2001);
        ready.pass();
        const std::int32_t expected[] = {0, 1001, 0};
        TOrbAttachmentMsg msg{};
        for (const std::int32_t sender : expected)
            if (receiveNext(msg) != 64 || msg.sender != sender) return 1;
        return 0;
    });
    ASSERT_TRUE(ready.await());
    {
        const QuietProc sendsOnly(1001, false);
        EXPECT_EQ(send(2001, 0), 0);
    }
    {
        const QuietProc proc(1001);
        EXPECT_EQ(send(2001, 1), 0);
    }
    EXPECT_EQ(send(2001, 2), 0);
    EXPECT_EQ(receiver.result(), 0);
}

TEST_F(QueueSend, FailsAtOnceWithoutADestination)
{
    const QuietProc proc(1001);
    {
        const RawSocket dead(pathOf(2002));
    }
    const unsigned before = fake_system::pollCount();
    for (const bool wait : {false, true}) {
        EXPECT_EQ(send(2001, 1, 64, wait), SEND_FAILED) << "no such queue";
        EXPECT_EQ(send(2002, 1, 64, wait), SEND_FAILED) << "its owner is gone";
        EXPECT_EQ(send(2001, 1, 15, wait), SEND_FAILED) << "no record";
        EXPECT_EQ(send(0, 1, 64, wait), SEND_FAILED);
        EXPECT_EQ(send(-1, 1, 64, wait), SEND_FAILED);
        EXPECT_EQ(send(std::numeric_limits<long>::max(), 1, 64, wait), SEND_FAILED)
            << "2147483647 where long has 32 bits: no such queue";
    }
    EXPECT_EQ(fake_system::pollCount(), before) << "it has waited";
}

TEST_F(QueueSend, FailsWhenTheDestinationsPathIsTooLong)
{
    ::setenv("TESS_QUEUE_DIR", (dir_ / std::string(100, 'd')).c_str(), 1);
    const QuietProc proc(1001, false);
    EXPECT_EQ(send(2001, 1), SEND_FAILED);
}

TEST_F(QueueSend, WithoutWaitingAFullQueueIsToldAtOnceAndNothingIsTakenAside)
{
    const QuietProc proc(1001);
    const RawSocket stuck(pathOf(2001));
    const unsigned before = fake_system::pollCount();
    const std::uint32_t taken = fill(2001);
    EXPECT_GE(taken, 1U);
    ASSERT_EQ(send(1001, 77), SEND_DONE) << "something arrives meanwhile";
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(send(2001, 1), SEND_QUEUE_FULL);
    char byte = 0;
    EXPECT_EQ(::recv(ownQueue.socket(), &byte, 1, MSG_PEEK | MSG_DONTWAIT), 1) << "it is where it was";

    EXPECT_EQ(tagOf(stuck.receiveNow()), 0U);
    EXPECT_EQ(send(2001, taken), SEND_DONE) << "it has room again";
    EXPECT_EQ(send(2001, 1), SEND_QUEUE_FULL) << "full anew";
    EXPECT_EQ(fake_system::pollCount(), before) << "it has waited";

    for (std::uint32_t i = 1; i <= taken; ++i)
        EXPECT_EQ(tagOf(stuck.receive()), i);
    EXPECT_EQ(stuck.receiveNow(), "<nothing there>") << "a record that was refused did arrive";
}

TEST_F(QueueSend, AFullQueueHoldsUpNoOther)
{
    const QuietProc proc(1001);
    std::vector<std::unique_ptr<RawSocket>> stuck;
    for (long address = 2001; address <= 2008; ++address) {
        stuck.push_back(std::make_unique<RawSocket>(pathOf(address)));
        (void)fill(address);
    }
    const RawSocket healthy(pathOf(3001));
    for (std::uint32_t i = 0; i < 200; ++i) {
        for (long address = 2001; address <= 2008; ++address)
            EXPECT_EQ(send(address, i), SEND_QUEUE_FULL);
        ASSERT_EQ(send(3001, i), SEND_DONE);
        EXPECT_EQ(tagOf(healthy.receive()), i);
    }
}

TEST_F(QueueSend, ANewOwnerOfAFullQueuesAddressIsSentTo)
{
    const QuietProc proc(1001);
    {
        const RawSocket stuck(pathOf(2001));
        (void)fill(2001);
    }
    EXPECT_EQ(send(2001, 1), SEND_FAILED) << "its owner is gone";
    ASSERT_EQ(::unlink(pathOf(2001).c_str()), 0);
    const RawSocket next(pathOf(2001));
    EXPECT_EQ(send(2001, 2), SEND_DONE);
    EXPECT_EQ(tagOf(next.receive()), 2U);
}

TEST_F(QueueSend, EnoughFullQueuesOfFullRecordsLeaveTheSendBufferWithRoom)
{
    const QuietProc proc(1001);
    const int bytes = 1'000'000;
    if (::setsockopt(RawSocket().fd(), SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof bytes) != 0)
        GTEST_SKIP() << "not privileged: the kernel gives no more than net.core.wmem_max";
    std::vector<std::unique_ptr<RawSocket>> stuck;
    for (long address = 2001; address <= 2032; ++address) {
        stuck.push_back(std::make_unique<RawSocket>(pathOf(address)));
        (void)fill(address, MSG_RECORD_BYTES);
    }
    const RawSocket healthy(pathOf(3001));
    EXPECT_EQ(send(3001, 1, MSG_RECORD_BYTES), 0);
}

TEST_F(QueueSend, AUsedUpSendBufferIsWaitedForWithoutSpinning)
{
    const QuietProc proc(1001);
    const int small = 20'000;
    ASSERT_EQ(::setsockopt(ownQueue.socket(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    const RawSocket stuck(pathOf(2001));
    const RawSocket healthy(pathOf(3001));
    ASSERT_LT(fill(2001, MSG_RECORD_BYTES), 10U) << "the buffer was to be used up before the queue is";

    EXPECT_EQ(send(3001, 1, MSG_RECORD_BYTES), SEND_QUEUE_FULL) << "whose queue it is cannot be told";

    std::thread reader([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(PATIENCE_MS));
        while (stuck.receiveNow() != "<nothing there>") {
        }
    });
    const Stopwatch watch;
    const unsigned before = fake_system::pollCount();
    EXPECT_EQ(send(3001, 2, MSG_RECORD_BYTES, true), 0) << "there is room again";
    const long pauses =
        static_cast<long>(watch.ms()) + 4; // none is shorter, but for the first reports, which were believed
    EXPECT_LE(static_cast<long>(fake_system::pollCount() - before), pauses);
    reader.join();
    EXPECT_EQ(tagOf(healthy.receive()), 2U);
}

TEST_F(QueueSend, AnUnboundedWaitEndsWhenThereIsRoom)
{
    const QuietProc proc(1001);
    const RawSocket peer(pathOf(2001));
    const std::uint32_t taken = fill(2001);
    std::atomic<bool> read{false};
    std::thread reader([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(2 * PATIENCE_MS));
        read = true;
        (void)peer.receiveNow();
    });
    EXPECT_EQ(send(2001, taken, 64, true), SEND_DONE);
    EXPECT_TRUE(read) << "before there was room";
    reader.join();
    for (std::uint32_t i = 1; i <= taken; ++i)
        EXPECT_EQ(tagOf(peer.receive()), i);
}

TEST_F(QueueSend, ASignalDoesNotEndTheWait)
{
    const QuietProc proc(1001);
    const RawSocket peer(pathOf(2001));
    (void)fill(2001);
    const SignalCounter signals(SIGUSR1);
    const pthread_t waiting = ::pthread_self();
    std::thread disturbing([&] {
        while (signals.count() < 10) {
            ::pthread_kill(waiting, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        (void)peer.receiveNow();
    });
    EXPECT_EQ(send(2001, 1, 64, true), SEND_DONE);
    EXPECT_GE(signals.count(), 10) << "before there was room";
    disturbing.join();
}

TEST_F(QueueSend, AnUnboundedWaitEndsWhenTheOwnerIsKilled)
{
    QueueOwner owner(2001);
    const QuietProc proc(1001);
    (void)fill(2001);
    const WaitingThread sender;
    std::thread killer([&] {
        EXPECT_TRUE(sender.untilAsleep());
        owner.kill();
    });
    EXPECT_EQ(send(2001, 1, 64, true), SEND_FAILED);
    EXPECT_GT(fake_system::lastPoll(), 0) << "found out by the clock";
    killer.join();
}

TEST_F(QueueSend, AnUnboundedWaitEndsWhenTheOwnerClosesItsQueueAndLivesOn)
{
    QueueOwner owner(2001);
    const QuietProc proc(1001);
    (void)fill(2001);
    const WaitingThread sender;
    std::thread closer([&] {
        EXPECT_TRUE(sender.untilAsleep());
        owner.closeQueue();
    });
    EXPECT_EQ(send(2001, 1, 64, true), SEND_FAILED);
    EXPECT_GT(fake_system::lastPoll(), 0) << "found out by the clock";
    closer.join();
    EXPECT_EQ(owner.end(), 0);
}

TEST_F(QueueSend, ABurstToAProcessThatAnswersEachArrivesWholeAndSoDoTheAnswers)
{
    constexpr std::uint32_t BURST = 1000;
    Signpost ready;
    ChildProcess answering([&] { return answerEach(2001, BURST, ready); });
    ASSERT_TRUE(ready.await());
    const QuietProc proc(1001);
    for (std::uint32_t i = 0; i < BURST; ++i)
        ASSERT_EQ(send(2001, i, 64, true), 0) << "command " << i;
    TOrbAttachmentMsg msg{};
    for (std::uint32_t i = 0; i < BURST; ++i) {
        ASSERT_EQ(receiveNext(msg), 64) << "answer " << i;
        ASSERT_EQ(msg.tag, i);
        ASSERT_EQ(msg.sender, 2001);
    }
    EXPECT_EQ(answering.result(), 0);
}

TEST_F(QueueSend, ABurstToAPeerThatBlocksInItsAnswersArrivesWhole)
{
    constexpr std::uint32_t BURST = 50;
    constexpr std::uint32_t ANSWERS = 40; // to each command: more than a queue holds
    Signpost opened;
    Signpost ready;
    ChildProcess answering([&] {
        const RawSocket peer(pathOf(2001));
        if (!opened.await() || !peer.connectTo(pathOf(1001))) return 3;
        ready.pass();
        for (std::uint32_t i = 0; i < BURST; ++i) {
            if (tagOf(peer.receive()) != i) return 1;
            for (std::uint32_t k = 0; k < ANSWERS; ++k) {
                const TOrbAttachmentMsg answer = numbered(i * ANSWERS + k);
                if (::send(peer.fd(), &answer, 64, 0) != 64) return 2;
            }
        }
        return 0;
    });
    const QuietProc proc(1001);
    opened.pass();
    ASSERT_TRUE(ready.await());
    for (std::uint32_t i = 0; i < BURST; ++i)
        ASSERT_EQ(send(2001, i, 64, true), 0) << "command " << i;
    TOrbAttachmentMsg msg{};
    for (std::uint32_t i = 0; i < BURST * ANSWERS; ++i) {
        ASSERT_EQ(receiveNext(msg), 64) << "answer " << i;
        ASSERT_EQ(msg.tag, i);
    }
    EXPECT_EQ(answering.result(), 0);
}

/// Sends `count` records without looking at what comes, and then takes as many.
/// @return 0 all went through, in order
int sendThenReceive(long to, std::uint32_t count)
{
    TOrbAttachmentMsg msg = numbered(0);
    for (std::uint32_t i = 0; i < count; ++i) {
        msg.tag = i;
        if (g_qMgr.sendMsg(to, &msg, 1000, true) != 0) return 1;
    }
    for (std::uint32_t i = 0; i < count; ++i)
        if (receiveNext(msg) != 1000 || msg.tag != i || msg.sender != to) return 2;
    return 0;
}

TEST_F(QueueSend, TwoProcessesThatFillEachOthersQueuesDoNotLockUp)
{
    Signpost opened;
    Signpost start;
    ChildProcess other([&] {
        const QuietProc proc(2001);
        opened.pass();
        (void)start.await();
        return sendThenReceive(1001, 3000);
    });
    ASSERT_TRUE(opened.await());
    const QuietProc proc(1001);
    start.pass();
    EXPECT_EQ(sendThenReceive(2001, 3000), 0);
    EXPECT_EQ(other.result(), 0);
}

TEST_F(QueueSend, OneThreadMayWaitInGetMsgWhileAnotherSendsABurst)
{
    constexpr std::uint32_t BURST = 2000;
    Signpost ready;
    ChildProcess answering([&] { return answerEach(2001, BURST, ready); });
    ASSERT_TRUE(ready.await());
    const QuietProc proc(1001);
    std::atomic<std::uint32_t> refused{0};
    std::thread sender([&] {
        for (std::uint32_t i = 0; i < BURST; ++i)
            refused += send(2001, i, 64, true) != 0 ? 1 : 0;
    });
    TOrbAttachmentMsg msg{};
    for (std::uint32_t i = 0; i < BURST; ++i) {
        if (receiveNext(msg) != 64 || msg.tag != i) {
            ADD_FAILURE() << "expected answer " << i << ", got " << msg.tag;
            break;
        }
    }
    sender.join();
    EXPECT_EQ(refused, 0U);
    EXPECT_EQ(answering.result(), 0);
}

TEST_F(QueueSend, TwoThreadsMayWaitAtOnce)
{
    Signpost opened;
    ChildProcess reader([&] {
        const QuietProc proc(2001);
        opened.pass();
        std::uint32_t next[2] = {0, 0};
        TOrbAttachmentMsg msg{};
        for (int i = 0; i < 4000; ++i) {
            if (receiveNext(msg) != 64) return 1;
            if ((msg.tag & 0xFFFFU) != next[msg.tag >> 16]++) return 2;
        }
        return 0;
    });
    ASSERT_TRUE(opened.await());
    const QuietProc proc(1001);
    std::atomic<std::uint32_t> refused{0};
    const auto sendMany = [&](std::uint32_t who) {
        for (std::uint32_t i = 0; i < 2000; ++i)
            refused += send(2001, who << 16 | i, 64, true) != 0 ? 1 : 0;
    };
    std::thread other(sendMany, 1);
    sendMany(0);
    other.join();
    EXPECT_EQ(refused, 0U);
    EXPECT_EQ(reader.result(), 0);
}

TEST_F(QueueSend, AProcessMaySendToItselfAsMuchAsItsBacklogHolds)
{
    const QuietProc proc(1001);
    std::uint32_t sent = 0;
    Stopwatch watch;
    while (sent < 100'000 && send(1001, sent, MSG_RECORD_BYTES, true) == SEND_DONE) {
        ++sent;
        watch = Stopwatch();
    }
    ASSERT_LT(sent, 100'000U) << "there has to be an end";
    EXPECT_GT(sent, 1500U);
    EXPECT_GE(watch.ms(), PATIENCE_MS);
    EXPECT_EQ(send(1001, sent, MSG_RECORD_BYTES, true), SEND_QUEUE_FULL) << "a wait without progress ends";

    TOrbAttachmentMsg msg{};
    for (std::uint32_t i = 0; i < sent; ++i) {
        ASSERT_EQ(g_qMgr.getMsg(&msg, MSG_QUEUE_ALL, false), 8192);
        ASSERT_EQ(msg.tag, i);
        ASSERT_EQ(msg.sender, 1001);
    }
    EXPECT_EQ(g_qMgr.getMsg(&msg, MSG_QUEUE_ALL, false), 0);
    EXPECT_EQ(send(1001, 1), 0) << "room again";
}

TEST_F(QueueSend, SendingAndReceivingAllocateOnlyForWhatIsTakenAsideWhileACallWaits)
{
    const QuietProc proc(1001);
    TOrbAttachmentMsg msg = numbered(1);
    long failed = 0;
    const unsigned before = allocationCount();
    const unsigned mallocsBefore = fake_system::mallocCount();
    for (int i = 0; i < 100; ++i) {
        failed += g_qMgr.sendMsg(1001, &msg, 8192, false);
        failed += g_qMgr.getMsg(&msg, MSG_QUEUE_ALL, true) == 8192 ? 0 : 1;
        failed += g_qMgr.sendMsg(2001, &msg, 8192, false) != 0 ? 0 : 1; // no such queue
        failed += g_qMgr.getMsg(&msg, MSG_QUEUE_ALL, false);
    }
    EXPECT_EQ(allocationCount(), before);
    EXPECT_EQ(fake_system::mallocCount(), mallocsBefore);
    EXPECT_EQ(failed, 0);

    ASSERT_EQ(g_qMgr.sendMsg(1001, &msg, 16, false), 0);
    ASSERT_EQ(ownQueue.drain(), OwnQueue::Drained::records);
    EXPECT_EQ(allocationCount(), before);
    EXPECT_LT(mallocsBefore, fake_system::mallocCount());
}

TEST_F(QueueSend, ADeadDestinationRaisesNoSignal)
{
    const auto before = std::signal(SIGPIPE, SIG_DFL);
    const QuietProc proc(1001);
    const RawSocket peer(pathOf(2001));
    ASSERT_EQ(::shutdown(peer.fd(), SHUT_RD), 0);
    EXPECT_NE(send(2001, 1), 0); // EPIPE, and this process lives on
    std::signal(SIGPIPE, before);
}

TEST_F(QueueSend, ThreadsMaySendWhileTheQueueIsClosedAndOpened)
{
    const RawSocket peer(pathOf(2001));
    std::atomic<bool> done{false};
    std::thread sender([&] {
        while (!done)
            (void)send(2001, 1);
    });
    std::thread reader([&] {
        while (!done)
            (void)peer.receiveNow();
    });
    for (int i = 0; i < 200; ++i) {
        const QuietProc proc(1001);
        std::this_thread::yield();
    }
    done = true;
    sender.join();
    reader.join();
    EXPECT_NE(send(1001, 1), 0) << "closed";
}

} // namespace
