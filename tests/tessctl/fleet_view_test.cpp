#include "tools/tessctl/fleet_view.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using Lines = std::vector<std::string>;

} // namespace

TEST(FleetView, TakesOfAStatusWhatItUnderstands)
{
    const auto whole =
        deviceState(R"({"status":"online","device":"d1","groups":["hall","yard"],"tessd":"1.0","names":["A","B"]})");
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->device, "d1");
    EXPECT_TRUE(whole->online);
    EXPECT_EQ(whole->tessd, "1.0");
    EXPECT_EQ(whole->names, (Lines{"A", "B"}));
    EXPECT_EQ(whole->groups, (Lines{"hall", "yard"}));
    const auto odd = deviceState(R"({"status":1,"device":"d1","groups":"hall","tessd":null,"names":[1,"A"]})");
    ASSERT_TRUE(odd);
    EXPECT_FALSE(odd->online);
    EXPECT_EQ(odd->tessd, "");
    EXPECT_EQ(odd->names, Lines{"A"});
    EXPECT_EQ(odd->groups, Lines{});
    for (const char* payload : {"", "{", "[]", "{}", R"({"device":1})", R"({"device":""})"})
        EXPECT_FALSE(deviceState(payload)) << payload;
}

TEST(FleetView, ShowsEachDeviceInALineWhateverItSaysOfItself)
{
    const std::vector<DeviceState> states{
        {.device = "d1", .online = true, .tessd = "1.0", .names = {"A", "B"}, .groups = {"hall"}},
        {.device = "d2\x1B[2J", .online = false, .tessd = "\n", .names = {"a\nb", "c\td"}, .groups = {"x\ry"}},
        {.device = "d3", .isKnown = false},
    };
    EXPECT_EQ(stateLines(states, 0),
              (Lines{"DEVICE     STATUS   TESSD  GROUPS  PROCESSES", "d1         online   1.0    hall    A,B",
                     R"(d2\x1b[2J  offline         x y     a b,c d)", "d3         unknown  -      -       -"}));
}

TEST(FleetView, ShowsEachLineOfAnAnswerInALineOfItsOwn)
{
    const std::vector<FleetAnswer> answers{
        {.device = "d1", .status = "answered", .ms = "3", .text = "one\ntwo\x07"},
        {.device = "d2", .status = "offline", .ms = "", .text = ""},
    };
    EXPECT_EQ(fleetLines(answers, 0), (Lines{"DEVICE  STATUS    MS  ANSWER", "d1      answered  3   one",
                                             R"(                      two\x07)", "d2      offline   -"}));
}

TEST(FleetView, CountsInOneLineWhateverTheStatusesAre)
{
    const std::vector<FleetAnswer> answers{{.device = "d1", .status = "answered", .ms = "3", .text = ""},
                                           {.device = "d2", .status = "offline", .ms = "", .text = ""},
                                           {.device = "d3", .status = "answered", .ms = "3", .text = ""},
                                           {.device = "d4", .status = "on\n\x1B", .ms = "3", .text = ""}};
    EXPECT_EQ(fleetSummary(answers), R"(2 answered, 1 offline, 1 on \x1b)");
}

TEST(FleetView, IsAnObjectOfJsonADevice)
{
    const std::vector<FleetAnswer> answers{
        {.device = "d1", .status = "answered", .ms = "3", .text = "one\ntwo"},
        {.device = "d2", .status = "no answer", .ms = "", .text = ""},
        {.device = "d3", .status = "answered", .ms = "soon", .text = ""},
        {.device = "d4", .status = "answered", .ms = "1234567890", .text = "x"},
    };
    EXPECT_EQ(fleetJson(answers).dump(), R"([{"device":"d1","status":"answered","ms":3,"answer":"one\ntwo"},)"
                                         R"({"device":"d2","status":"no answer","ms":null,"answer":null},)"
                                         R"({"device":"d3","status":"answered","ms":null,"answer":""},)"
                                         R"({"device":"d4","status":"answered","ms":null,"answer":"x"}])");
    EXPECT_EQ(stateJson({{.device = "d3", .isKnown = false}}).dump(),
              R"([{"device":"d3","status":"unknown","tessd":null,"groups":[],"names":[]}])");
}

TEST(FleetView, TellsByItsStatusWhetherAllHaveAnswered)
{
    struct Case {
        Lines statuses;
        ExitStatus status;
    };
    const std::vector<Case> cases{
        {{"answered", "answered"}, STATUS_DONE},       {{"answered", "refused"}, STATUS_REFUSED},
        {{"refused", "timeout"}, STATUS_NO_ANSWER},    {{"answered", "offline"}, STATUS_NO_ANSWER},
        {{"answered", "no answer"}, STATUS_NO_ANSWER}, {{"busy"}, STATUS_NO_ANSWER},
    };
    for (const auto& [statuses, status] : cases) {
        std::vector<FleetAnswer> answers;
        for (const std::string& each : statuses)
            answers.push_back({.device = "d", .status = each, .ms = "1", .text = ""});
        EXPECT_EQ(fleetStatus(answers), status) << statuses.back();
    }
}
