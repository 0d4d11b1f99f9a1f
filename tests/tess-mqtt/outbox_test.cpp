#include "tools/tess-mqtt/outbox.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using namespace std::chrono_literals;

Publication answer(const std::string& text)
{
    return {.topic = "t", .payload = text};
}

/// What is handed out, one text behind the other.
std::string sent(Outbox& outbox, Instant now, int& number)
{
    std::string texts;
    outbox.send(
        [&](const Publication& each) {
            texts += each.payload;
            return std::optional(++number);
        },
        now);
    return texts;
}

} // namespace

TEST(Outbox, HandsOutEachAnswerOnceAConnectionUntilItIsAcknowledged)
{
    Outbox outbox(60s, 100);
    const Instant now{1h};
    int number = 0;
    for (const char* text : {"a", "b", "c"})
        EXPECT_TRUE(outbox.add(answer(text), now));
    EXPECT_EQ(sent(outbox, now, number), "abc");
    EXPECT_EQ(sent(outbox, now, number), "");
    outbox.onAcknowledged(2);
    outbox.onAcknowledged(99);
    outbox.onDown();
    EXPECT_EQ(sent(outbox, now, number), "ac");
    EXPECT_EQ(outbox.size(), 2U);
}

TEST(Outbox, KeepsTheOrderWhenOneCannotBeSent)
{
    Outbox outbox(60s, 100);
    const Instant now{1h};
    (void)outbox.add(answer("a"), now);
    (void)outbox.add(answer("b"), now);
    int tries = 0;
    outbox.send([&](const Publication&) { return ++tries, std::optional<int>(); }, now);
    EXPECT_EQ(tries, 1);
    int number = 0;
    EXPECT_EQ(sent(outbox, now, number), "ab");
}

TEST(Outbox, ForgetsWhatIsTooOldOrTooMany)
{
    Outbox outbox(60s, 2);
    const Instant now{1h};
    EXPECT_EQ(outbox.due(), NEVER);
    EXPECT_TRUE(outbox.add(answer("a"), now));
    EXPECT_TRUE(outbox.add(answer("b"), now + 1s));
    EXPECT_EQ(outbox.due(), now + 60s);
    EXPECT_FALSE(outbox.add(answer("c"), now + 2s));
    EXPECT_EQ(outbox.expire(now + 60s), 0U);
    EXPECT_EQ(outbox.expire(now + 61s), 1U);
    int number = 0;
    EXPECT_EQ(sent(outbox, now + 61s, number), "c");
}
