#include "common/item_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

using namespace std::string_literals;
using testing::EndsWith;

TEST(ItemLine, ComposesAWordKeysAndValues)
{
    ItemLine line("process");
    line.text("name", "ENC").number("address", 1500).number("least", INT64_MIN).hex("id", 0xBB01'0000).hex("none", 0);
    EXPECT_EQ(line.view(),
              "process name=\"ENC\" address=1500 least=-9223372036854775808 id=0xbb010000 none=0x00000000");
}

TEST(ItemLine, BeginsWithItsFirstKeyWhereItHasNoWord)
{
    EXPECT_EQ(ItemLine("").number("a", 1).number("b", 2).view(), "a=1 b=2");
}

TEST(ItemLine, TellsMomentsWithThreeDecimals)
{
    struct Row {
        std::int64_t milliseconds;
        const char* text;
    };
    const Row rows[] = {{0, "t=0.000"}, {7, "t=0.007"}, {999, "t=0.999"}, {1'764'038'096'120, "t=1764038096.120"}};
    for (const Row& row : rows)
        EXPECT_EQ(ItemLine("").seconds("t", row.milliseconds).view(), row.text);
}

TEST(ItemLine, QuotesTextsSoThatNobodyCanForgeAnother)
{
    struct Row {
        std::string value;
        const char* quoted;
    };
    const Row rows[] = {
        {"", R"(t="")"},
        {"plain text", R"(t="plain text")"},
        {R"(a"b\c)", R"(t="a\"b\\c")"},
        {"\" x=1\nline y=2", R"(t="\" x=1\x0aline y=2")"},
        {"\0\x1f ~\x7f\x80\xff"s, R"(t="\x00\x1f ~\x7f\x80\xff")"},
    };
    for (const Row& row : rows)
        EXPECT_EQ(ItemLine("").text("t", row.value).view(), row.quoted);
}

TEST(ItemLine, CutsALongTextBetweenItsCharacters)
{
    struct Row {
        const char* behaviour;
        std::string value;
        std::string kept;
    };
    constexpr std::size_t MOST = ItemLine::QUOTED_BYTES;
    const Row rows[] = {
        {"one that just fits", std::string(MOST, 'n'), std::string(MOST, 'n') + "\""},
        {"one that is a byte too long", std::string(MOST + 1, 'n'), std::string(MOST, 'n') + "\"..."},
        {"an escape is not cut", std::string(MOST - 1, 'n') + "\n", std::string(MOST - 1, 'n') + "\"..."},
        {"the longest of a record", std::string(8172, 'n'), std::string(MOST, 'n') + "\"..."},
    };
    for (const Row& row : rows)
        EXPECT_EQ(ItemLine("").text("t", row.value).view(), "t=\"" + row.kept) << row.behaviour;
}

TEST(ItemLine, HasRoomForTheLongestTextAndName)
{
    ItemLine line("answer");
    line.seconds("time", 1'764'038'096'120).hex("connection", 1).text("port", "telnet").number("process", 2147483647);
    line.text("user", std::string(256, '\xff')).text("text", std::string(8172, '\xff'));
    EXPECT_THAT(std::string(line.view()), EndsWith("\\xff\"..."));
}
