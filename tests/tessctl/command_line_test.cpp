#include "tools/tessctl/command_line.h"

#include <gtest/gtest.h>

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
