#include "commands/delay_time.h"

#include <gtest/gtest.h>
#include <string>

namespace {

struct Time {
    const char* text;
    std::uint64_t milliseconds;
};

/// What a sum of 32-bit products that have overflowed is in 64 bits.
constexpr std::uint64_t negative(std::int64_t sum)
{
    return static_cast<std::uint64_t>(sum);
}

} // namespace

TEST(DelayTime, ReadsOneToFourNumbers)
{
    const Time rows[] = {
        {"500", 500},
        {"1", 1},
        {"10.0", 10'000},
        {"10.5", 10'005},
        {"0.5", 5},
        {"1:30.0", 90'000},
        {"0:0:5.0", 5'000},
        {"1:0:0:0", 3'600'000},
        {"1:2:3.4", 3'723'004},
        {"999:59999:2999999.999", negative(999LL * 3'600'000 - (1LL << 32)) +
                                      negative(59'999LL * 60'000 - (1LL << 32)) +
                                      negative(2'999'999LL * 1'000 - (1LL << 32)) + 999},
    };
    for (const Time& row : rows)
        EXPECT_EQ(parseDelayTime(row.text), row.milliseconds) << row.text;
}

TEST(DelayTime, TakesAnyOfItsSeparatorsInAnyOrderAndNumber)
{
    for (const char* const text :
         {"1:2:3.4", "1.2.3:4", "1 2 3 4", "1: 2. 3 :4", " 1:2:3.4 ", "::1:2..3  4..", "1 2:3.4."})
        EXPECT_EQ(parseDelayTime(text), 3'723'004U) << text;
}

TEST(DelayTime, RefusesWhatIsNoTime)
{
    for (const char* const text : {"",
                                   " ",
                                   ":",
                                   "...",
                                   "0",
                                   "0.0",
                                   "0:0:0:0",
                                   "1:2:3:4:5",
                                   "1:2:3:4:5:6:7:8",
                                   "x",
                                   "1x",
                                   "x1",
                                   "1:x",
                                   "-1",
                                   "1:-1",
                                   "+1",
                                   "1,5",
                                   "0x10",
                                   "1\t2",
                                   "1e3",
                                   "1/2",
                                   "CLEA",
                                   "%s",
                                   "\xE4",
                                   "2147483648",
                                   "99999999999999999999",
                                   "1.2147483648",
                                   "4294967296"})
        EXPECT_EQ(parseDelayTime(text), 0U) << text;
}

TEST(DelayTime, HoldsEachNumberToItsLimit)
{
    const Time rows[] = {
        {"999:0:0.0", negative(999LL * 3'600'000 - (1LL << 32))},
        {"1000:0:0.0", 0},
        {"2147483647:0:0.0", 0},
        {"59999:0.0", negative(59'999LL * 60'000 - (1LL << 32))},
        {"60000:0.0", 0},
        {"0:60000:0.0", 0},
        {"2999999.0", negative(2'999'999LL * 1'000 - (1LL << 32))},
        {"3000000.0", 0},
        {"0:0:3000000.0", 0},
        {"2147483647", 2'147'483'647},
        {"1.2147483647", 2'147'484'647},
        {"0:0:0.2147483647", 2'147'483'647},
    };
    for (const Time& row : rows)
        EXPECT_EQ(parseDelayTime(row.text), row.milliseconds) << row.text;
}

TEST(DelayTime, FormsEachProductIn32SignedBitsAndTheSumIn64)
{
    const Time rows[] = {
        {"596:0:0.0", 2'145'600'000},               // the last number of hours that fits
        {"597:0:0.0", 18'446'744'071'563'784'320U}, // the first that does not
        {"2147483.0", 2'147'483'000},               // the last number of seconds that fits
        {"2147484.0", 18'446'744'071'562'068'320U}, // the first that does not
        {"35791:0.0", 2'147'460'000},               // the last number of minutes that fits
        {"35792:0.0", 18'446'744'071'562'104'320U}, // the first that does not
        {"596:35791:2147483.2147483647", 8'588'026'647U},
        {"597:597:0.0", 18'446'744'071'599'604'320U},
    };
    for (const Time& row : rows)
        EXPECT_EQ(parseDelayTime(row.text), row.milliseconds) << row.text;
}
