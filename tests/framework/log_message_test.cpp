#include "framework/log_message.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <string>

#include "tests/support/allocation_count.h"
#include "tests/support/log_capture.h"

namespace {

constexpr LogMessage plain{7, "nothing varies"};
constexpr LogMessage<Number> onlyNumber{7, "{}"};
constexpr LogMessage<Hex, Text> opened{7, "connection 0x{} from {}"};
constexpr LogMessage<Text, Number> closed{7, "{}: {} left"};

// What does not compile is in tests/tools/test_log_rows.py.
static_assert(countGaps("nothing") == 0);
static_assert(countGaps("{}") == 1);
static_assert(countGaps("a {}{} b {}") == 3);

template <class Given>
concept IsNumber = std::convertible_to<Given, Number>;
static_assert(IsNumber<int> && IsNumber<std::size_t> && IsNumber<std::uint8_t>);
static_assert(!IsNumber<bool> && !IsNumber<char> && !IsNumber<const char*> && !IsNumber<Hex>);

std::string linesOf(auto logIt)
{
    const LogCapture captured;
    logIt();
    return captured.text();
}

TEST(LogMessage, PutsTheValuesIntoItsTextInOrder)
{
    EXPECT_EQ(composed(opened, Hex{0xAA00'0000}, "127.0.0.1").view(), "connection 0xaa000000 from 127.0.0.1");
    EXPECT_EQ(composed(closed, "here", -1).view(), "here: -1 left");
    EXPECT_EQ(composed(plain).view(), "nothing varies");
}

TEST(LogMessage, TakesEveryNumber)
{
    EXPECT_EQ(composed(onlyNumber, std::numeric_limits<std::int64_t>::min()).view(), "-9223372036854775808");
    EXPECT_EQ(composed(onlyNumber, std::numeric_limits<std::uint32_t>::max()).view(), "4294967295");
    EXPECT_EQ(composed(onlyNumber, std::uint8_t{65}).view(), "65");
}

TEST(LogMessage, LeavesGapsInValuesAlone)
{
    EXPECT_EQ(composed(closed, "{} {}", 2).view(), "{} {}: 2 left");
}

TEST(LogMessage, CutsWhatDoesNotFit)
{
    const std::string longText(2 * LOG_TEXT_BYTES, 'x');
    EXPECT_EQ(composed(closed, longText.c_str(), 1).view(), longText.substr(0, LOG_TEXT_BYTES - 1));
}

TEST(LogMessage, IsLoggedWithItsNumberInOneLine)
{
    EXPECT_TRUE(linesOf([] { logMessage(plain); }).ends_with(" 7 nothing varies\n"));
    EXPECT_TRUE(linesOf([] { logMessage(closed, "here", 2); }).ends_with(" 7 here: 2 left\n"));
}

TEST(LogMessage, AllocatesNothing)
{
    const LogCapture captured;
    const unsigned before = allocationCount();
    logMessage(opened, Hex{1}, "127.0.0.1");
    EXPECT_EQ(allocationCount() - before, 0U);
}

} // namespace
