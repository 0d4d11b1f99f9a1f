#include "framework/reply_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::string_literals;

TEST(ReplyText, MakesAnAnswerOfWhatAProgramPrints)
{
    struct Row {
        std::string output;
        const char* failure;
        const char* reply;
    };
    const Row rows[] = {
        {"", "", "OK\r\n\r\n"},
        {"\n\n", "", "OK\r\n\r\n"},
        {"5", "", "5\r\n\r\n"},
        {"5\n", "", "5\r\n\r\n"},
        {"5\r\n\r\n", "", "5\r\n\r\n"},
        {"a\nb\n", "", "a\r\nb\r\n\r\n"},
        {"a\r\nb\r\n", "", "a\r\nb\r\n\r\n"},
        {"a\n\nb\n\n", "", "a\r\n \r\nb\r\n\r\n"},
        {"\na\n", "", " \r\na\r\n\r\n"},
        {"?\n", "", "?\r\n"},
        {"? no\n", "", "? no\r\n\r\n"},
        {"?\n", "false ended with status 1", "?\r\n"}, // a refusal says it all
        {"?\nwhat\n", "", "? \r\nwhat\r\n\r\n"},       // it must not end the answer
        {"", "false ended with status 1", "Error: false ended with status 1\r\n\r\n"},
        {"half", "it was ended by signal 9", "half\r\nError: it was ended by signal 9\r\n\r\n"},
        {"a\0b\n"s, "", "ab\r\n\r\n"},
        {"\0"s, "", "OK\r\n\r\n"},
    };
    for (const Row& row : rows)
        EXPECT_EQ(replyText(row.output, row.failure), row.reply) << testing::PrintToString(row.output);
}

TEST(ReplyText, TravelsInMessagesCutBehindLineEnds)
{
    EXPECT_THAT(replyMessages(""), IsEmpty());
    EXPECT_THAT(replyMessages("5\r\n\r\n"), ElementsAre("5\r\n\r\n"));
    const std::string line = std::string(98, 'x') + "\r\n";
    std::string text;
    for (int i = 0; i < 200; ++i)
        text += line;
    std::string together;
    for (const std::string_view message : replyMessages(text)) {
        EXPECT_LE(message.size(), 8175U);
        EXPECT_TRUE(message.ends_with("\r\n"));
        together += message;
    }
    EXPECT_EQ(together, text);
    EXPECT_EQ(replyMessages(text).size(), 3U) << "81 lines a message";
}

TEST(ReplyText, IsCutInALineThatIsTooLong)
{
    const std::string text(8175 * 2 + 1, 'x');
    const auto messages = replyMessages(text);
    ASSERT_EQ(messages.size(), 3U);
    EXPECT_EQ(messages[0].size(), 8175U);
    EXPECT_EQ(messages[2], "x");
}
