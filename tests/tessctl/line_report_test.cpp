#include "tools/tessctl/line_report.h"

#include <gtest/gtest.h>

#include "tools/tessctl/time_text.h"

TEST(LineReport, IsOneObjectInOneLine)
{
    EXPECT_EQ(
        jsonText(
            {.line = "s3.ENC GETX", .time = "", .answers = {{"5", false}}, .took = std::chrono::microseconds(1250)}),
        R"({"line":"s3.ENC GETX","answers":["5"],"refused":false,"milliseconds":1.25})");
    EXPECT_EQ(jsonText({.line = "A|B", .time = "T", .answers = {{"one\ntwo", false}, {"?", true}}, .took = {}}),
              R"({"line":"A|B","answers":["one\ntwo","?"],"refused":true,"milliseconds":0.0,"time":"T"})");
    EXPECT_EQ(jsonText({.line = "\xFF", .time = "", .answers = {}, .took = {}}),
              "{\"line\":\"\uFFFD\",\"answers\":[],\"refused\":false,\"milliseconds\":0.0}");
}

TEST(TimeText, IsThatOfTheLog)
{
    const std::chrono::system_clock::time_point time(std::chrono::milliseconds(1'795'250'096'007));
    EXPECT_EQ(timeText(time), "2026-11-21T08:34:56.007Z");
}
