#include "common/fair_mutex.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

#include "tests/support/lock_probe.h"
#include "tests/support/waiting.h"

TEST(FairMutex, LetsOneThreadInAtATime)
{
    FairMutex mutex;
    long count = 0; // guarded by the mutex alone
    const auto countUp = [&] {
        for (int i = 0; i < 20'000; ++i) {
            const std::scoped_lock lock(mutex);
            ++count;
        }
    };
    std::thread one(countUp);
    std::thread two(countUp);
    std::thread three(countUp);
    one.join();
    two.join();
    three.join();
    EXPECT_EQ(count, 60'000);
}

TEST(FairMutex, LetsAWaitingThreadInBetweenTwoTurnsOfABusyOne)
{
    FairMutex mutex;
    std::atomic<bool> end{false};
    std::atomic<int> turns{0};
    std::thread busy([&] {
        while (!end) {
            const std::scoped_lock lock(mutex);
            ++turns;
            Stopwatch watch;
            while (watch.ms() < 2) {
            }
        }
    });
    ASSERT_TRUE(waitUntil([&] { return turns > 0; }));
    const int before = turns;
    for (int i = 0; i < 20; ++i) {
        const std::scoped_lock lock(mutex);
    }
    const int passed = turns - before;
    end = true;
    busy.join();
    EXPECT_LE(passed, 20 * 5) << "turns of the busy thread while another took 20";
}

TEST(FairMutex, IsLockedAtOnceOrNotAtAllWhenOnlyTried)
{
    FairMutex mutex;
    ASSERT_TRUE(mutex.try_lock());
    EXPECT_TRUE(mutex.isMine());
    std::thread([&] { EXPECT_FALSE(mutex.try_lock()); }).join();
    mutex.unlock();
    std::thread([&] {
        EXPECT_TRUE(mutex.try_lock());
        mutex.unlock();
    }).join();
}

TEST(FairMutex, KnowsWhoHasLockedIt)
{
    FairMutex mutex;
    EXPECT_FALSE(mutex.isMine());
    {
        const std::scoped_lock lock(mutex);
        EXPECT_TRUE(mutex.isMine());
        std::thread([&] { EXPECT_FALSE(mutex.isMine()); }).join();
    }
    EXPECT_FALSE(mutex.isMine());
}

TEST(FairMutex, IsAsGoodAsNewInACopyThatForgetsWhoWaited)
{
    FairMutex mutex;
    mutex.lock();
    mutex.forgetWaiters();
    EXPECT_TRUE(mutex.isMine());
    mutex.unlock();
    EXPECT_TRUE(LockProbe(mutex).takenWithin(DEADLINE));
}
