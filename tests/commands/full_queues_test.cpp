#include "commands/full_queues.h"

#include <array>
#include <ctime>
#include <deque>
#include <filesystem>
#include <gmock/gmock.h>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>

#include "framework/bundled/own_queue.h"
#include "tests/commands/command_test_bench.h"
#include "tests/commands/fake_clock.h"
#include "tests/support/descriptor_limit.h"
#include "tests/support/in_background.h"
#include "tests/support/waiting.h"

using namespace std::chrono_literals;
using testing::ElementsAre;

namespace {

constexpr auto PATIENCE = FullQueues::PATIENCE;

class FullQueuesTest : public testing::Test {
protected:
    static constexpr long ADDRESS = 2001;

    long send(QueueWaiter& who, std::string_view text = "X", long address = ADDRESS)
    {
        Outgoing out = message(MSG_TEXT, text);
        return queues.send(who, address, out.record, static_cast<long>(out.length));
    }

    bool mayTry(const QueueWaiter& who) const { return queues.mayTry(who, bench.look()); }

    /// Tries whenever that may help, as the service loop does, while time passes by the
    /// millisecond.
    /// @return how often
    int triesFor(QueueWaiter& who, std::string_view text, long address, std::chrono::milliseconds span)
    {
        int tries = 0;
        for (auto passed = 0ms; passed < span && who.address != 0; passed += 1ms) {
            for (; who.address != 0 && mayTry(who) && tries < 1000; ++tries)
                send(who, text, address);
            time.pass(1ms);
        }
        return tries;
    }

    std::vector<std::string> forwarded() const { return CommandTestBench::forwardedTo(*process); }

    static std::ptrdiff_t openDescriptors()
    {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    }

    CommandTestBench bench;
    FullQueues& queues = bench.fullQueues;
    std::unique_ptr<QueueProcess> process = std::make_unique<QueueProcess>(bench.directory, ADDRESS);
    StoppedTime time;
    QueueWaiter first, second, third;
};

/// The same with a queue that is full, and somebody who waits for it.
class FullQueue : public FullQueuesTest {
protected:
    FullQueue()
    {
        CommandTestBench::fill(ADDRESS);
        EXPECT_EQ(send(first, "1"), SEND_QUEUE_FULL);
        EXPECT_EQ(first.address, ADDRESS);
    }
};

} // namespace

TEST_F(FullQueuesTest, SendAtOnceWhereThereIsRoom)
{
    EXPECT_EQ(send(first, "A"), SEND_DONE);
    EXPECT_EQ(first.address, 0);
    EXPECT_THAT(forwarded(), ElementsAre("A"));
    EXPECT_TRUE(mayTry(first)) << "whoever does not wait may always";
    EXPECT_FALSE(bench.look().hasDescriptors());
}

TEST_F(FullQueuesTest, FailAtOnceWithoutAQueue)
{
    process.reset();
    EXPECT_EQ(send(first), SEND_FAILED);
    EXPECT_EQ(first.address, 0);
}

// --- who is next

TEST_F(FullQueue, ServesThoseWhoWaitInTheOrderOfAsking)
{
    EXPECT_EQ(send(second, "2"), SEND_QUEUE_FULL);
    EXPECT_EQ(send(third, "3"), SEND_QUEUE_FULL);
    std::array<QueueWaiter*, 3> waiters{&first, &second, &third};
    for (std::size_t next = 0; next < waiters.size(); ++next) {
        SCOPED_TRACE(next);
        for (QueueWaiter* const who : waiters)
            EXPECT_EQ(mayTry(*who), who->address == 0);
        (void)process->receive();
        for (std::size_t i = next; i < waiters.size(); ++i)
            EXPECT_EQ(mayTry(*waiters[i]), i == next) << i;
        for (std::size_t i = waiters.size() - 1; i > next; --i)
            EXPECT_EQ(send(*waiters[i], "out of turn"), SEND_QUEUE_FULL) << i;
        EXPECT_EQ(send(*waiters[next], std::to_string(next + 1)), SEND_DONE);
        EXPECT_EQ(waiters[next]->address, 0);
    }
    EXPECT_THAT(forwarded(), ElementsAre("1", "2", "3"));
    EXPECT_FALSE(bench.look().hasDescriptors());
}

TEST_F(FullQueue, PutsNewcomersBehindAlsoWhereThereIsRoomByNow)
{
    (void)process->receiveAll();
    EXPECT_EQ(send(second, "2"), SEND_QUEUE_FULL);
    EXPECT_EQ(send(first, "1"), SEND_DONE);
    EXPECT_EQ(send(second, "2"), SEND_DONE);
    EXPECT_THAT(forwarded(), ElementsAre("1", "2"));
}

TEST_F(FullQueue, LetsWhoeverIsServedGoOnUntilItIsRefused)
{
    EXPECT_EQ(send(second, "2"), SEND_QUEUE_FULL);
    for (int i = 0; i < 2; ++i)
        (void)process->receive();
    EXPECT_EQ(send(first, "1"), SEND_DONE);
    EXPECT_EQ(send(third, "3"), SEND_QUEUE_FULL) << "a newcomer";
    EXPECT_EQ(send(first, "1 again"), SEND_DONE);
    EXPECT_EQ(send(first, "1 too late"), SEND_QUEUE_FULL);
    (void)process->receiveAll();
    EXPECT_EQ(send(first, "1 too late"), SEND_QUEUE_FULL) << "behind the others now";
    EXPECT_EQ(send(second, "2"), SEND_DONE);
    second.turnAt = 0;
    EXPECT_EQ(send(second, "2 again"), SEND_QUEUE_FULL) << "its turn is over";
    EXPECT_EQ(send(third, "3"), SEND_DONE);
    EXPECT_EQ(send(first, "1 too late"), SEND_DONE);
    EXPECT_EQ(send(second, "2 again"), SEND_DONE);
    EXPECT_THAT(forwarded(), ElementsAre("2", "3", "1 too late", "2 again"));
}

TEST_F(FullQueue, IsNotTriedAgainForWhatWasReportedBeforeARefusal)
{
    EXPECT_EQ(send(second, "2"), SEND_QUEUE_FULL);
    (void)process->receive();
    time.pass(1ms);
    const WaitSet report = bench.look();
    time.pass(1ms);
    EXPECT_TRUE(queues.mayTry(first, report));
    EXPECT_EQ(send(first, "1"), SEND_DONE);
    EXPECT_TRUE(queues.mayTry(second, report));
    EXPECT_EQ(send(second, "2"), SEND_QUEUE_FULL);
    EXPECT_FALSE(queues.mayTry(second, report));
    (void)process->receive();
    time.pass(1ms);
    EXPECT_TRUE(mayTry(second));
}

TEST_F(FullQueue, KeepsAPlaceForWhoeverAsksAgain)
{
    EXPECT_EQ(send(second, "2"), SEND_QUEUE_FULL);
    EXPECT_EQ(send(first, "1"), SEND_QUEUE_FULL);
    EXPECT_EQ(send(second, "2"), SEND_QUEUE_FULL);
    queues.leave(first);
    queues.leave(second);
    EXPECT_FALSE(bench.look().hasDescriptors()) << "each stood there once";
}

TEST_F(FullQueue, DoesNotHoldWhoeverSendsElsewhere)
{
    const QueueProcess other(bench.directory, 2002);
    EXPECT_EQ(send(second, "X", 2002), SEND_DONE);
    EXPECT_EQ(other.receiveAll().size(), 1U);
}

TEST_F(FullQueue, ForgetsWhoeverLeaves)
{
    const auto before = openDescriptors();
    EXPECT_EQ(send(second, "2"), SEND_QUEUE_FULL);
    EXPECT_EQ(send(third, "3"), SEND_QUEUE_FULL);
    queues.leave(second);
    queues.leave(second);
    QueueWaiter nobody;
    queues.leave(nobody);
    queues.leave(first);
    EXPECT_EQ(first.address, 0);
    EXPECT_FALSE(mayTry(third));
    (void)process->receive();
    EXPECT_TRUE(mayTry(third)) << "the next one now";
    queues.leave(third);
    EXPECT_EQ(openDescriptors(), before - 1);
    EXPECT_FALSE(bench.look().hasDescriptors());
    EXPECT_EQ(send(second, "4"), SEND_DONE);
    EXPECT_THAT(forwarded(), ElementsAre("4"));
}

// --- patience

TEST_F(FullQueue, IsGivenTimeFromTheFirstRefusalOn)
{
    time.pass(PATIENCE / 2);
    EXPECT_EQ(send(second, "2"), SEND_QUEUE_FULL);
    EXPECT_EQ(send(first, "1"), SEND_QUEUE_FULL) << "an attempt in vain changes nothing";
    time.pass(PATIENCE / 2 - 1ns);
    EXPECT_FALSE(mayTry(first));
    EXPECT_EQ(send(first, "1"), SEND_QUEUE_FULL);
    time.pass(1ns);
    EXPECT_TRUE(mayTry(first));
    EXPECT_EQ(send(first, "1"), SEND_FAILED);
    EXPECT_EQ(first.address, 0);
    EXPECT_TRUE(mayTry(second)) << "and so is everybody";
    EXPECT_EQ(send(second, "2"), SEND_FAILED);
}

TEST_F(FullQueue, IsGivenTimeFromTheLastRecordThatItHasTaken)
{
    EXPECT_EQ(send(second, "2"), SEND_QUEUE_FULL);
    EXPECT_EQ(send(third, "3"), SEND_QUEUE_FULL);
    time.pass(PATIENCE - 1ns);
    (void)process->receive();
    EXPECT_EQ(send(first, "1"), SEND_DONE);
    time.pass(PATIENCE - 1ns);
    EXPECT_FALSE(mayTry(second));
    (void)process->receive();
    EXPECT_EQ(send(second, "2"), SEND_DONE);
    time.pass(PATIENCE - 1ns);
    EXPECT_EQ(send(third, "3"), SEND_QUEUE_FULL);
    time.pass(1ns);
    EXPECT_EQ(send(third, "3"), SEND_FAILED);
}

TEST_F(FullQueue, IsFoundStuckByAnAttemptAndNotByTheClock)
{
    EXPECT_EQ(send(second, "2"), SEND_QUEUE_FULL);
    time.pass(10 * PATIENCE); // this process was late
    EXPECT_FALSE(mayTry(second));
    EXPECT_EQ(send(second, "2"), SEND_QUEUE_FULL);
    EXPECT_EQ(send(third, "3"), SEND_QUEUE_FULL);
    (void)process->receive();
    EXPECT_TRUE(mayTry(first));
    EXPECT_EQ(send(first, "1"), SEND_DONE);
    EXPECT_FALSE(mayTry(second)) << "it has its time";
    time.pass(PATIENCE);
    EXPECT_TRUE(mayTry(second));
    EXPECT_FALSE(mayTry(third));
    EXPECT_EQ(send(second, "2"), SEND_FAILED);
    EXPECT_EQ(send(third, "3"), SEND_FAILED);
}

TEST_F(FullQueue, RefusesAtOnceWhenItIsStuckUntilItTakesARecord)
{
    time.pass(PATIENCE);
    EXPECT_EQ(send(second, "2"), SEND_QUEUE_FULL);
    EXPECT_EQ(send(first, "1"), SEND_FAILED);
    EXPECT_EQ(send(third, "3"), SEND_FAILED) << "also behind somebody who does not know yet";
    EXPECT_EQ(send(first, "1"), SEND_FAILED);
    EXPECT_EQ(second.address, ADDRESS);
    EXPECT_EQ(send(second, "2"), SEND_FAILED);
    EXPECT_FALSE(bench.look().hasDescriptors());
    EXPECT_EQ(send(first, "1"), SEND_FAILED);

    (void)process->receive();
    EXPECT_EQ(send(first, "1"), SEND_DONE);
    EXPECT_EQ(send(first, "2"), SEND_QUEUE_FULL) << "it is full as any other";
    EXPECT_THAT(forwarded(), ElementsAre("1"));
}

TEST_F(FullQueue, IsStuckForEverybodyWhoeverIsNext)
{
    EXPECT_EQ(send(second, "2"), SEND_QUEUE_FULL);
    EXPECT_EQ(send(third, "3"), SEND_QUEUE_FULL);
    time.pass(PATIENCE);
    EXPECT_FALSE(mayTry(third));
    EXPECT_EQ(send(first, "1"), SEND_FAILED);
    EXPECT_TRUE(mayTry(third));
    EXPECT_EQ(send(third, "3"), SEND_FAILED);
    EXPECT_TRUE(mayTry(second));
    EXPECT_EQ(send(second, "2"), SEND_FAILED);
}

TEST_F(FullQueue, IsStuckForNobodyAnyMoreWhenItTakesARecord)
{
    EXPECT_EQ(send(second, "2"), SEND_QUEUE_FULL);
    EXPECT_EQ(send(third, "3"), SEND_QUEUE_FULL);
    time.pass(PATIENCE);
    EXPECT_EQ(send(first, "1"), SEND_FAILED);
    (void)process->receive();
    EXPECT_EQ(send(second, "2"), SEND_DONE);
    EXPECT_FALSE(mayTry(third));
    EXPECT_EQ(send(third, "3"), SEND_QUEUE_FULL);
    EXPECT_EQ(send(first, "1"), SEND_QUEUE_FULL);
}

TEST_F(FullQueue, MakesAWaitEndAtOnceForThoseWhoAreStillToBeTold)
{
    EXPECT_EQ(send(second, "2"), SEND_QUEUE_FULL);
    time.pass(PATIENCE);
    EXPECT_EQ(send(first, "1"), SEND_FAILED);
    WaitSet waits;
    queues.addTo(waits);
    timespec before{};
    ::clock_gettime(CLOCK_MONOTONIC, &before); // the time that is not stopped
    waits.wait(DEADLINE);
    timespec after{};
    ::clock_gettime(CLOCK_MONOTONIC, &after);
    EXPECT_LT(after.tv_sec - before.tv_sec, DEADLINE.count() / 2) << "it has waited for nothing";
    EXPECT_TRUE(queues.mayTry(second, waits));
}

TEST_F(FullQueuesTest, RememberManyStuckQueuesAndForgetTheOldest)
{
    constexpr std::size_t COUNT = FullQueues::MAX_QUEUES + 2;
    std::deque<QueueProcess> processes;
    for (long address = 3000; address < 3000 + static_cast<long>(COUNT); ++address) {
        processes.emplace_back(bench.directory, address);
        CommandTestBench::fill(address);
        ASSERT_EQ(send(first, "X", address), SEND_QUEUE_FULL) << address;
        time.pass(PATIENCE);
        ASSERT_EQ(send(first, "X", address), SEND_FAILED) << address;
    }
    for (std::size_t i = COUNT; i-- > 2;)
        EXPECT_EQ(send(first, "X", processes[i].address()), SEND_FAILED) << i;
    for (const std::size_t i : {0U, 1U}) {
        EXPECT_EQ(send(first, "X", processes[i].address()), SEND_QUEUE_FULL) << i << ": it is given time once more";
        time.pass(PATIENCE);
        EXPECT_EQ(send(first, "X", processes[i].address()), SEND_FAILED) << i;
    }
}

TEST_F(FullQueuesTest, ForgetNoQueueThatSomebodyWaitsFor)
{
    constexpr std::size_t COUNT = FullQueues::MAX_QUEUES + 6;
    std::deque<QueueProcess> processes;
    std::array<QueueWaiter, COUNT> waiters;
    for (std::size_t i = 0; i < COUNT; ++i) {
        processes.emplace_back(bench.directory, 3000 + static_cast<long>(i));
        CommandTestBench::fill(processes[i].address());
        ASSERT_EQ(send(waiters[i], "X", processes[i].address()), SEND_QUEUE_FULL) << i;
    }
    for (std::size_t i = 0; i < COUNT; ++i) {
        (void)processes[i].receiveAll();
        EXPECT_EQ(send(waiters[i], "X", processes[i].address()), SEND_DONE) << i;
        EXPECT_THAT(CommandTestBench::forwardedTo(processes[i]), ElementsAre("X")) << i;
    }
    EXPECT_FALSE(bench.look().hasDescriptors());
}

// --- how room is told

TEST_F(FullQueue, IsWaitedForByItsRoom)
{
    InBackground reader([this] {
        (void)process->receive();
        return 0;
    });
    int waitsDone = 0;
    while (!queues.mayTry(first, bench.look()) && waitsDone < 1000) {
        WaitSet waits;
        queues.addTo(waits);
        waits.wait(20ms);
        ++waitsDone;
    }
    reader.wait();
    EXPECT_LT(waitsDone, 1000) << "no time has passed: only room lets it try";
    EXPECT_EQ(send(first, "1"), SEND_DONE);
}

TEST_F(FullQueuesTest, AreTriedByTheClockWhereNothingTellsTheirRoom)
{
    CommandTestBench::fill(ADDRESS);
    {
        const DescriptorLimit none(0);
        ASSERT_TRUE(none.isSet());
        ASSERT_EQ(send(first, "1"), SEND_QUEUE_FULL);
        EXPECT_EQ(send(second, "2"), SEND_QUEUE_FULL);
        EXPECT_FALSE(bench.look().hasDescriptors());
        (void)process->receiveAll();
        time.pass(FullQueues::RETRY_TIME - 1ns);
        EXPECT_FALSE(mayTry(first));
        EXPECT_EQ(send(third, "3"), SEND_QUEUE_FULL) << "a newcomer does not put it off";
        time.pass(1ns);
        EXPECT_TRUE(mayTry(first));
        EXPECT_FALSE(mayTry(second));
        EXPECT_EQ(send(first, "1"), SEND_DONE);
        CommandTestBench::fill(ADDRESS);
        EXPECT_EQ(triesFor(second, "2", ADDRESS, PATIENCE * 2), 26) << "25 times within its patience, once at its end";
    }
    EXPECT_EQ(send(third, "3"), SEND_FAILED) << "stuck";
}

TEST_F(FullQueuesTest, AreTriedByTheClockWhereNoSetHoldsTheDescriptor)
{
    CommandTestBench::fill(ADDRESS);
    const NoRoomInSets noRoom;
    if (!noRoom.isSet()) GTEST_SKIP() << "the limit of open files cannot be raised";
    ASSERT_EQ(send(first, "1"), SEND_QUEUE_FULL);
    EXPECT_FALSE(mayTry(first));
    (void)process->receive();
    time.pass(FullQueues::RETRY_TIME);
    EXPECT_TRUE(mayTry(first));
    EXPECT_EQ(send(first, "1"), SEND_DONE);
}

TEST_F(FullQueue, IsTriedOnceWhenItTakesNothing)
{
    EXPECT_EQ(triesFor(first, "1", ADDRESS, PATIENCE * 2), 1);
}

/// Room that is reported where there is none: the own send buffer is used up by what somebody else
/// does not take.
TEST_F(FullQueuesTest, AreTriedNowAndThenWhereRoomIsReportedInVain)
{
    const int small = 20'000;
    ASSERT_EQ(::setsockopt(ownQueue.socket(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    const QueueProcess hog(bench.directory, 2002);
    TOrbAttachmentMsg big{};
    while (g_qMgr.sendMsg(2002, &big, MSG_RECORD_BYTES, false) == SEND_DONE) {
    }
    ASSERT_EQ(queues.send(first, ADDRESS, big, MSG_RECORD_BYTES), SEND_QUEUE_FULL);
    int tries = 0;
    for (auto passed = 0ms; passed < PATIENCE; passed += 1ms) {
        for (; mayTry(first) && tries < 1000; ++tries)
            EXPECT_EQ(queues.send(first, ADDRESS, big, MSG_RECORD_BYTES), SEND_QUEUE_FULL);
        time.pass(1ms);
    }
    EXPECT_EQ(tries, 2 + 24) << "believed twice, then tried by the clock";
    EXPECT_TRUE(mayTry(first));
    (void)hog.receiveAll();
    EXPECT_EQ(queues.send(first, ADDRESS, big, MSG_RECORD_BYTES), SEND_DONE);
}

// --- owners that come and go

TEST_F(FullQueue, OfAProcessThatDiesFailsForEverybody)
{
    EXPECT_EQ(send(second, "2"), SEND_QUEUE_FULL);
    process->die();
    EXPECT_TRUE(mayTry(first));
    EXPECT_EQ(send(first, "1"), SEND_FAILED);
    EXPECT_TRUE(mayTry(second));
    EXPECT_EQ(send(second, "2"), SEND_FAILED);
    EXPECT_FALSE(bench.look().hasDescriptors());
}

TEST_F(FullQueue, OfAProcessThatIsStartedAnewIsTheNewOnes)
{
    EXPECT_EQ(send(second, "2"), SEND_QUEUE_FULL);
    EXPECT_EQ(send(third, "3"), SEND_QUEUE_FULL);
    process.reset();
    process = std::make_unique<QueueProcess>(bench.directory, ADDRESS);
    EXPECT_TRUE(mayTry(first));
    EXPECT_EQ(send(first, "1"), SEND_DONE);
    const std::size_t fillers = CommandTestBench::fill(ADDRESS);
    EXPECT_EQ(triesFor(second, "2", ADDRESS, 100ms), 1) << "then its own room is waited for";
    EXPECT_EQ(process->receiveAll().size(), fillers + 1);
    EXPECT_TRUE(mayTry(second));
    EXPECT_EQ(send(second, "2"), SEND_DONE);
    EXPECT_EQ(send(third, "3"), SEND_DONE);
    EXPECT_THAT(forwarded(), ElementsAre("2", "3"));
}

TEST_F(FullQueue, ThatWasStuckIsTakenForANewOneWithItsNewOwner)
{
    time.pass(PATIENCE);
    EXPECT_EQ(send(first, "1"), SEND_FAILED);
    process.reset();
    process = std::make_unique<QueueProcess>(bench.directory, ADDRESS);
    EXPECT_EQ(send(first, "1"), SEND_DONE);
    CommandTestBench::fill(ADDRESS);
    EXPECT_EQ(send(first, "2"), SEND_QUEUE_FULL);
}

// --- by the real clock

TEST(FullQueuesWithARealClock, WaitTheirTimeAndTryOnce)
{
    CommandTestBench bench;
    const QueueProcess process(bench.directory, 2001);
    CommandTestBench::fill(2001);
    Outgoing out = message(MSG_TEXT, "X");
    QueueWaiter who;
    const auto send = [&] { return bench.fullQueues.send(who, 2001, out.record, static_cast<long>(out.length)); };
    const Stopwatch watch;
    ASSERT_EQ(send(), SEND_QUEUE_FULL);
    int tries = 0;
    int waitsDone = 0;
    while (who.address != 0 && waitsDone < 1000) {
        WaitSet waits;
        bench.fullQueues.addTo(waits);
        waits.wait(DEADLINE);
        ++waitsDone;
        if (!bench.fullQueues.mayTry(who, waits)) continue;
        ++tries;
        (void)send();
    }
    EXPECT_GE(watch.ms(), 250);
    EXPECT_EQ(who.address, 0);
    EXPECT_EQ(tries, 1);
    EXPECT_EQ(waitsDone, 1) << "nothing else wakes";
}
