#include "tools/tessctl/command_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;
using testing::StartsWith;

TEST(CommandLine, ExpectsAnAnswerForEachCommand)
{
    struct Row {
        const char* line;
        std::size_t answers;
    };
    const Row rows[] = {
        {"", 0},          {"   \t", 0},         {"*", 1},         {"s3.ENC SETX 5", 1},
        {"A|B|C", 3},     {"A||B|", 2}, // nothing between two separators is no command
        {"A| |B", 3},                   // white space is
        {"DELAY", 1},     {"delay 5.0|A|B", 1}, {"A|DELAY|B", 2}, {"A|  Delay CLEAR|B", 2},
        {"RESET|A|B", 1}, {"resetting", 1},     {"A|RESET", 2},
    };
    for (const Row& row : rows)
        EXPECT_EQ(answersDue(row.line), row.answers) << "'" << row.line << "'";
}

TEST(CommandLine, FindsTheCommandsOfALine)
{
    struct Row {
        const char* line;
        std::vector<std::string_view> commands;
    };
    const Row rows[] = {
        {" ", {}},
        {"s3.ENC GETX", {"s3.ENC GETX"}},
        {"A| B ||C", {"A", " B ", "C"}},
        {"A|delay 5.0|B|C", {"A", "delay 5.0|B|C"}},
        {"RESET|A", {"RESET|A"}},
        {" \tRESET|A", {"RESET|A"}}, // no line has blanks in front by then
    };
    for (const Row& row : rows)
        EXPECT_EQ(commandsOf(row.line), row.commands) << "'" << row.line << "'";
}

TEST(CommandLine, DoesNotMakeARestartOfAPartOfALine)
{
    for (const char* line : {"A|B", "RESET|A", "RESET", "DELAY 5.0|RESET", ""})
        EXPECT_EQ(splitProblem(line), "") << line;
    for (const char* line : {"A|RESET", "A| reset", "A|B|Resetting"})
        EXPECT_THAT(splitProblem(line), HasSubstr("would restart the device")) << line;
}

TEST(CommandLine, FindsWhatTheDaemonWouldCut)
{
    for (const std::string& line : {std::string(), std::string("A"), std::string("A\r"), std::string("A\r\r"),
                                    std::string("A \t\v B"), std::string(MAX_LINE_BYTES, 'x')})
        EXPECT_EQ(lineProblem(line), "") << line;
    EXPECT_THAT(lineProblem("A\rB"), StartsWith("a line with a carriage return or a NUL in it"));
    EXPECT_THAT(lineProblem(std::string_view("A\0", 2)), StartsWith("a line with a carriage return or a NUL in it"));
    EXPECT_EQ(lineProblem(std::string(MAX_LINE_BYTES + 1, 'x')), "a line of 1007 bytes is too long, the limit is 1006");
}
