#include "framework/sleep.h"

#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/time.h>

#include "tests/framework/signal_counter.h"

namespace {

long millisecondsOf(int argument)
{
    const auto start = std::chrono::steady_clock::now();
    Sleep(argument);
    const auto took = std::chrono::steady_clock::now() - start;
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(took).count());
}

TEST(Sleep, LastsAsLongAsAsked)
{
    const long took = millisecondsOf(120);
    EXPECT_GE(took, 120);
    EXPECT_LT(took, 5000);
}

TEST(Sleep, NothingAndLessAreOverAtOnce)
{
    EXPECT_LT(millisecondsOf(0), 1000);
    EXPECT_LT(millisecondsOf(-5000), 1000);
}

TEST(Sleep, GoesOnAfterSignals)
{
    const SignalCounter alarms(SIGALRM);
    itimerval every20ms{};
    every20ms.it_interval.tv_usec = every20ms.it_value.tv_usec = 20'000;
    ASSERT_EQ(::setitimer(ITIMER_REAL, &every20ms, nullptr), 0);
    const long took = millisecondsOf(300);
    const itimerval off{};
    ::setitimer(ITIMER_REAL, &off, nullptr);
    EXPECT_GE(took, 300);
    EXPECT_GE(alarms.count(), 2);
}

} // namespace
