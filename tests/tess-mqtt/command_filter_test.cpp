#include "tools/tess-mqtt/command_filter.h"

#include <gtest/gtest.h>

TEST(CommandFilter, MatchesPatternsOverTheWholeText)
{
    struct Row {
        const char* pattern;
        const char* text;
        bool matches;
    };
    constexpr Row rows[] = {
        {"*", "", true},
        {"*", "anything", true},
        {"", "", true},
        {"", "a", false},
        {"a", "A", true},
        {"A", "a", true},
        {"a", "ab", false},
        {"a*", "ab", true},
        {"*b", "ab", true},
        {"*b", "ba", false},
        {"a?c", "abc", true},
        {"a?c", "ac", false},
        {"*a*b*", "xaxxbx", true},
        {"*a*b*", "xbxxax", false},
        {"a**", "a", true},
        {"s3.ENC *", "s3.ENC", false},
        {"*?", "", false},
        {"a*a*a*a*b", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", false},
    };
    for (const Row& row : rows)
        EXPECT_EQ(matchesPattern(row.pattern, row.text), row.matches) << row.pattern << " and " << row.text;
}

TEST(CommandFilter, LetsEverythingButAResetComeWithoutRules)
{
    struct Row {
        const char* line;
        bool allowed;
    };
    constexpr Row rows[] = {
        {"s3.ENC GETX", true},
        {"*", true},
        {"RESET", false},
        {"resetting", false},
        {"  \t\v\fRESET", false},
        {"s3.ENC RESET", true}, // a process's own command
        {"s3.ENC GETX|RESET", false},
        {"DELAY 5|Reset REINIT s3", false},
        {"DELAY 5|DELAY 5| reset", false},
        {"PRESET", true},
    };
    for (const Row& row : rows)
        EXPECT_EQ(CommandFilter().allows(row.line), row.allowed) << row.line;
}

TEST(CommandFilter, GoesByTheFirstRuleThatMatchesForEachCommand)
{
    CommandFilter filter;
    for (const char* rule : {"deny s3.ENC SET *", "allow  s3.ENC\t *", "allow reset", "deny *"})
        EXPECT_EQ(filter.add(rule), "") << rule;
    struct Row {
        const char* line;
        bool allowed;
    };
    constexpr Row rows[] = {
        {"s3.ENC GET", true},
        {"S3.enc  GET", true},
        {"s3.ENC SET 5", false},
        {"s3.ENC \t SET\t5", false},
        {"s3.ENC GET|s3.ENC SET 5", false},
        {"s3.MOT GET", false},
        {"RESET", true},
        {"RESET REINIT s3", false},
        {"", false},
        {"s3.ENC GET|", false},
    };
    for (const Row& row : rows)
        EXPECT_EQ(filter.allows(row.line), row.allowed) << row.line;
}

TEST(CommandFilter, SaysWhatARuleIs)
{
    for (const char* rule : {"", "allow", "allow ", "permit *", "allowed *"})
        EXPECT_EQ(CommandFilter().add(rule), "is 'allow PATTERN' or 'deny PATTERN'") << rule;
}
