#include "tools/tess-mqtt/command_filter.h"

#include <gtest/gtest.h>

#include "commands/delayed_line.h"

static_assert(CommandFilter::MOST_DELAYED_BYTES == DELAYED_LINE_BYTES - 1);

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

TEST(CommandFilter, LetsAStarOfAnAllowedPatternTakeNoBlankButAtItsEnd)
{
    struct Row {
        const char* rule;
        const char* line;
        bool allowed;
    };
    constexpr Row rows[] = {
        {"allow s3.* GET*", "s3.ENC GETX", true},
        {"allow s3.* GET*", "s3.ENC GETX 1 2", true},
        {"allow s3.* GET*", "s3.ENC SETX 5 GETX", false},
        {"allow s3.* GET*", "s3.ENC SETX 5\tGETX", false},
        {"allow *.ENC GETX", "s3.ENC GETX", true},
        {"allow *.ENC GETX", "*.ENC GETX", true},
        {"allow *.ENC GETX", "SETX 5 .ENC GETX", false},
        {"allow s3.ENC GET?", "s3.ENC GETX", true},
        {"allow s3.EN? GETX", "s3.EN  GETX", false},
        {"allow s3.*C GET", "s3.ENCC GET", true},
        {"allow s3.* * GET", "s3.ENC a GET", true},
        {"allow s3.* * GET", "s3.ENC a b GET", false},
        {"allow *", "s3.ENC SETX 5", true},
        {"allow s3.ENC **", "s3.ENC SETX 5", true},
    };
    for (const Row& row : rows) {
        CommandFilter filter;
        EXPECT_EQ(filter.add(row.rule), "");
        EXPECT_EQ(filter.add("deny *"), "");
        EXPECT_EQ(filter.allows(row.line), row.allowed) << row.rule << ": " << row.line;
    }
    CommandFilter filter;
    EXPECT_EQ(filter.add("deny *SETX*"), "");
    EXPECT_FALSE(filter.allows("s3.ENC a SETX 5"));
}

TEST(CommandFilter, KnowsADelayHoweverItIsSpelt)
{
    CommandFilter filter;
    EXPECT_EQ(filter.add("deny DELAY CLEAR*"), "");
    for (const char* line : {"DELAY CLEAR", "delayclear", "DELAY\t\vCLEAR", "DelayClearing", "x| DELAYCLEAR"})
        EXPECT_FALSE(filter.allows(line)) << line;
    EXPECT_TRUE(filter.allows("DELAY"));
    EXPECT_TRUE(filter.allows("DELAY5|x"));
}

TEST(CommandFilter, JudgesADelayedLineAlsoAsItIsRunWhenItIsTooLong)
{
    CommandFilter filter;
    EXPECT_EQ(filter.add("deny *OFF"), "");
    const std::string longest = std::string(252, 'x') + "OFF"; // more of a delayed line is not run
    EXPECT_FALSE(filter.allows("DELAY 5|" + longest));
    EXPECT_FALSE(filter.allows("DELAY 5|" + longest + "x"));
    EXPECT_FALSE(filter.allows("s3.ENC y||delay 5||" + longest + "x|s3.ENC y"));
    EXPECT_FALSE(filter.allows("DELAY 5|s3|" + longest.substr(3) + "x"));
    EXPECT_TRUE(filter.allows("DELAY 5|x" + longest + "x"));
    EXPECT_TRUE(filter.allows(longest + "x"));
}

TEST(CommandFilter, SaysWhatARuleIs)
{
    for (const char* rule : {"", "allow", "allow ", "permit *", "allowed *"})
        EXPECT_EQ(CommandFilter().add(rule), "is 'allow PATTERN' or 'deny PATTERN'") << rule;
}
