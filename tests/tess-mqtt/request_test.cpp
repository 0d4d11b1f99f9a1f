#include "tools/tess-mqtt/request.h"

#include <gtest/gtest.h>

namespace {

const Topics TOPICS("tess", "d1", {});
const Instant NOW{std::chrono::hours(1)};

Publication publication(const std::string& payload)
{
    return {.topic = "tess/d1/command", .payload = payload, .responseTopic = "mine", .correlation = "c"};
}

Judgement judged(const Publication& publication)
{
    return judge(publication, TOPICS, CommandFilter(), NOW);
}

} // namespace

TEST(Request, IsALineWithAPlaceForItsAnswer)
{
    for (const char* payload : {"s3.ENC GETX", "s3.ENC GETX\n", "s3.ENC GETX\r\n", "s3.ENC GETX\r"}) {
        const Judgement judgement = judged(publication(payload));
        ASSERT_TRUE(judgement.request) << payload;
        EXPECT_FALSE(judgement.refusal) << payload;
        EXPECT_EQ(judgement.request->line, "s3.ENC GETX");
        EXPECT_EQ(judgement.request->responseTopic, "mine");
        EXPECT_EQ(judgement.request->correlation, "c");
        EXPECT_EQ(judgement.request->arrived, NOW);
        EXPECT_EQ(judgement.request->expires, NEVER);
    }
}

TEST(Request, ExpiresWhenItsPublicationDoes)
{
    Publication short_ = publication("*");
    short_.expiry = 7;
    EXPECT_EQ(judged(short_).request->expires, NOW + std::chrono::seconds(7));
    short_.expiry = 0;
    EXPECT_EQ(judged(short_).request->expires, NOW);
}

TEST(Request, IsNoneWhereNobodyCouldBeTold)
{
    Publication none = publication("*");
    none.responseTopic.reset();
    EXPECT_FALSE(judged(none).request);
    none = publication("*");
    none.responseTopic = "tess/d2/command";
    EXPECT_FALSE(judged(none).request);
    none = publication("*");
    none.retained = true;
    EXPECT_FALSE(judged(none).request);
    none = publication("*");
    none.topic = "tess/d2/command";
    const Judgement judgement = judged(none);
    EXPECT_FALSE(judgement.request);
    EXPECT_STREQ(judgement.whyIgnored, "it is for another topic");
}

TEST(Request, IsRefusedWhenItIsNotOneLineThatMayCome)
{
    using namespace std::string_literals;
    const std::pair<std::string, std::string> rows[] = {
        {"", "Error: an empty line is no command"},
        {" \t\n", "Error: an empty line is no command"},
        {"a\0b"s, "Error: a request is one line, without a line end or a NUL in it"},
        {"a\nb", "Error: a request is one line, without a line end or a NUL in it"},
        {"a\n\n", "Error: a request is one line, without a line end or a NUL in it"},
        {std::string(1007, 'a'), "Error: a line has 1006 bytes at most, and this has 1007"},
        {"RESET", "Error: this command may not come from afar: the bridge's filter says so"},
    };
    for (const auto& [payload, text] : rows) {
        const Judgement judgement = judged(publication(payload));
        ASSERT_TRUE(judgement.refusal) << payload;
        EXPECT_EQ(judgement.refusal->status, ReplyStatus::refused);
        EXPECT_EQ(judgement.refusal->text, text);
    }
    EXPECT_FALSE(judged(publication(std::string(1006, 'a'))).refusal);
}
