#include "tools/tessctl/fleet_answers.h"

#include <gtest/gtest.h>

namespace {

DeviceState device(const char* name, bool online, bool isKnown = true)
{
    return {.device = name, .online = online, .tessd = {}, .names = {}, .groups = {}, .isKnown = isKnown};
}

std::string textOf(const FleetAnswers& answers)
{
    std::string text;
    for (const FleetAnswer& row : answers.rows())
        text += row.device + " " + row.status + " " + row.text + ";";
    return text;
}

} // namespace

TEST(FleetAnswers, AreWaitedForFromThoseWhoAreOnline)
{
    FleetAnswers answers({device("b", true), device("a", false), device("c", false, false), device("b", true)});
    EXPECT_EQ(answers.expected(), 1U);
    EXPECT_EQ(answers.missing(), std::set<std::string>{"b"});
    EXPECT_EQ(textOf(answers), "a offline ;b no answer ;c unknown ;");
    answers.take({"b", "answered", "1", "20"});
    EXPECT_TRUE(answers.missing().empty());
    EXPECT_EQ(textOf(answers), "a offline ;b answered 20;c unknown ;");
}

TEST(FleetAnswers, AreTakenFromThoseWhoHaveComeMeanwhileToo)
{
    FleetAnswers answers({device("a", false), device("b", true)});
    for (const char* name : {"a", "d", ""})
        answers.take({name, "answered", "1", "20"});
    EXPECT_EQ(answers.missing(), std::set<std::string>{"b"});
    EXPECT_EQ(textOf(answers), "a answered 20;b no answer ;d answered 20;");
}

TEST(FleetAnswers, ThatComeAgainCountWhenTheyKnowMore)
{
    struct Row {
        const char* first;
        const char* second;
        const char* counts;
    };
    constexpr Row rows[] = {
        {"answered", "timeout", "answered"}, // asked again after its bridge was started again
        {"refused", "timeout", "refused"},   {"busy", "answered", "answered"}, {"refused", "answered", "answered"},
        {"timeout", "answered", "answered"}, {"busy", "timeout", "timeout"},
    };
    for (const Row& row : rows) {
        FleetAnswers answers({device("a", true)});
        answers.take({"a", row.first, "1", ""});
        answers.take({"a", row.second, "1", ""});
        EXPECT_EQ(answers.rows().at(0).status, row.counts) << row.first << ", then " << row.second;
    }
}
