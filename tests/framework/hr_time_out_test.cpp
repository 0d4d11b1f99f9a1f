#include "framework/hr_time_out.h"

#include <chrono>
#include <gtest/gtest.h>
#include <thread>

namespace {

timeval span(long seconds, long microseconds)
{
    timeval result{};
    result.tv_sec = seconds;
    result.tv_usec = microseconds;
    return result;
}

/// Waits until it has timed out, ten seconds at most.
/// @return how long that took
std::chrono::milliseconds waitFor(const TOrbHRTimeOut& timeOut)
{
    const auto start = std::chrono::steady_clock::now();
    while (!timeOut.hasTimedOut() && std::chrono::steady_clock::now() - start < std::chrono::seconds(10))
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
}

TEST(HRTimeOut, UnarmedCountsAsTimedOut)
{
    EXPECT_TRUE(TOrbHRTimeOut().hasTimedOut());
}

TEST(HRTimeOut, TimesOutOnceItsSpanIsOverAndStaysSo)
{
    const TOrbHRTimeOut timeOut(span(0, 100'000));
    EXPECT_FALSE(timeOut.hasTimedOut());
    const auto took = waitFor(timeOut);
    EXPECT_GE(took.count(), 99);
    EXPECT_LT(took.count(), 5000);
    EXPECT_TRUE(timeOut.hasTimedOut());
}

TEST(HRTimeOut, MicrosecondsMayBeMoreThanASecond)
{
    const TOrbHRTimeOut timeOut(span(0, 1'200'000));
    EXPECT_GE(waitFor(timeOut).count(), 1199);
}

TEST(HRTimeOut, AnEmptyOrNegativeSpanIsOverAtOnce)
{
    EXPECT_TRUE(TOrbHRTimeOut(span(0, 0)).hasTimedOut());
    EXPECT_TRUE(TOrbHRTimeOut(span(-1, 0)).hasTimedOut());
    EXPECT_TRUE(TOrbHRTimeOut(span(0, -500'000)).hasTimedOut());
}

TEST(HRTimeOut, NegativeMicrosecondsShortenTheSpan)
{
    EXPECT_FALSE(TOrbHRTimeOut(span(3600, -999'999)).hasTimedOut());
    EXPECT_GE(waitFor(TOrbHRTimeOut(span(1, -900'000))).count(), 99);
}

TEST(HRTimeOut, ArmingAgainCountsFromNow)
{
    TOrbHRTimeOut timeOut(span(0, 0));
    ASSERT_TRUE(timeOut.hasTimedOut());
    timeOut.setTimeOut(span(3600, 999'999));
    EXPECT_FALSE(timeOut.hasTimedOut()) << "longer than before";
    timeOut.setTimeOut(span(0, 0));
    EXPECT_TRUE(timeOut.hasTimedOut()) << "shorter than before";
}

} // namespace
