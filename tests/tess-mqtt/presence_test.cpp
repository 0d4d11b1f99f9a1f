#include "tools/tess-mqtt/presence.h"

#include <gtest/gtest.h>

#include "tools/tess-mqtt/bridge_metrics.h"
#include "tools/tess-mqtt/growing_pause.h"
#include "tools/tess-mqtt/xcp_frame.h"

TEST(Presence, IsAnObject)
{
    const Topics topics("tess", "d1", {"a", "b"});
    EXPECT_EQ(onlineText(topics, {"1.0.0", {"ENC", "q\"\xFF"}}, "2.0.0"),
              "{\"status\":\"online\",\"device\":\"d1\",\"groups\":[\"a\",\"b\"],\"tessd\":\"1.0.0\","
              "\"names\":[\"ENC\",\"q\\\"\xEF\xBF\xBD\"],\"bridge\":\"2.0.0\"}");
    EXPECT_EQ(onlineText(Topics("tess", "d1", {}), {}, "2"),
              R"({"status":"online","device":"d1","groups":[],"tessd":null,"names":[],"bridge":"2"})");
    EXPECT_EQ(offlineText(topics), R"({"status":"offline","device":"d1","groups":["a","b"]})");
}

TEST(BridgeMetrics, StandBehindThoseOfTessd)
{
    BridgeCounts counts;
    counts.busy = 3;
    const std::string alone = bridgeMetrics({}, counts);
    EXPECT_NE(alone.find("tess_mqtt_requests_total{status=\"busy\"} 3\n"), std::string::npos);
    EXPECT_TRUE(alone.ends_with("tess_mqtt_requests_in_flight 0\n# EOF\n"));
    const auto items = parseItems("daemon version=\"1\" uptime=1 pid=1 delays=0 watchers=0\ncount lines=7\n");
    const std::string both = bridgeMetrics(items, counts);
    EXPECT_NE(both.find("tess_lines_total 7\n"), std::string::npos);
    EXPECT_EQ(both.find("# EOF"), both.size() - 6);
}

TEST(GrowingPause, DoublesUpToItsLimitAndBeginsAnew)
{
    using namespace std::chrono_literals;
    GrowingPause pause(500ms, 4s);
    for (const auto expected : {500ms, 1000ms, 2000ms, 4000ms, 4000ms})
        EXPECT_EQ(pause.next(0.5), expected);
    EXPECT_EQ(pause.next(0), 3000ms);
    EXPECT_EQ(pause.next(1), 5000ms);
    pause.reset();
    EXPECT_EQ(pause.next(0.5), 500ms);
}

TEST(XcpFrame, IsTakenWhenItIsWhole)
{
    std::string bytes = frameBytes(7, std::string("text\0rest", 9)) + frameBytes(8, "");
    std::string arrived;
    std::vector<std::string> seen;
    for (const char byte : bytes) {
        arrived += byte;
        if (const auto frame = takeFrame(arrived)) seen.push_back(std::to_string(frame->tag) + frame->text);
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"7text", "8"}));
    EXPECT_TRUE(arrived.empty());
}
