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
std::string sent(Outbox& outbox, int& number)
{
    std::string texts;
    outbox.send([&](const Publication& each) {
        texts += each.payload;
        return std::optional(++number);
    });
    return texts;
}

} // namespace

TEST(Outbox, HandsOutEachAnswerOnceAConnectionUntilItIsAcknowledged)
{
    Outbox outbox(60s, 100);
    const Instant now{1h};
    int number = 0;
    for (const char* text : {"a", "b", "c"})
        EXPECT_EQ(outbox.add(answer(text), now), 0U);
    EXPECT_EQ(sent(outbox, number), "abc");
    EXPECT_EQ(sent(outbox, number), "");
    outbox.onAcknowledged(2);
    outbox.onAcknowledged(99);
    outbox.onDown();
    EXPECT_EQ(sent(outbox, number), "ac");
    EXPECT_EQ(outbox.size(), 2U);
}

TEST(Outbox, KeepsTheOrderWhenOneCannotBeSent)
{
    Outbox outbox(60s, 100);
    const Instant now{1h};
    (void)outbox.add(answer("a"), now);
    (void)outbox.add(answer("b"), now);
    int tries = 0;
    outbox.send([&](const Publication&) { return ++tries, std::optional<int>(); });
    EXPECT_EQ(tries, 1);
    int number = 0;
    EXPECT_EQ(sent(outbox, number), "ab");
}

TEST(Outbox, ForgetsWhatIsTooOldOrTooMany)
{
    Outbox outbox(60s, 2);
    const Instant now{1h};
    EXPECT_EQ(outbox.due(), NEVER);
    EXPECT_EQ(outbox.add(answer("a"), now), 0U);
    EXPECT_EQ(outbox.add(answer("b"), now + 1s), 0U);
    EXPECT_EQ(outbox.due(), now + 60s);
    EXPECT_EQ(outbox.add(answer("c"), now + 2s), 1U);
    EXPECT_EQ(outbox.expire(now + 60s), 0U);
    EXPECT_EQ(outbox.expire(now + 61s), 1U);
    int number = 0;
    EXPECT_EQ(sent(outbox, number), "c");
}

TEST(Outbox, HoldsSoManyBytesAndNoMore)
{
    Outbox outbox(60s, 100);
    const Instant now{1h};
    const std::string half(Outbox::MOST_BYTES / 2, 'x');
    EXPECT_EQ(outbox.add(answer("a"), now), 0U);
    EXPECT_EQ(outbox.add(answer(half), now), 0U);
    Publication big = answer("");
    big.correlation = half;
    EXPECT_EQ(outbox.add(std::move(big), now), 2U);
    EXPECT_EQ(outbox.size(), 1U);
    EXPECT_EQ(outbox.add(answer(half + half + "x"), now), 1U); // one that is too large by itself is kept alone
    EXPECT_EQ(outbox.size(), 1U);
    int number = 0;
    (void)sent(outbox, number);
    outbox.onAcknowledged(number);
    EXPECT_EQ(outbox.add(answer(half), now), 0U); // there is room again
    EXPECT_EQ(outbox.add(answer("b"), now), 0U);
}

TEST(Outbox, HandsOutNoMoreThanSoManyBeforeTheyAreAcknowledged)
{
    Outbox outbox(60s, 1000);
    const Instant now{1h};
    for (std::size_t i = 0; i < Outbox::MOST_SENT + 10; ++i)
        (void)outbox.add(answer("x"), now);
    int number = 0;
    EXPECT_EQ(sent(outbox, number).size(), Outbox::MOST_SENT);
    outbox.onAcknowledged(3);
    outbox.onAcknowledged(4);
    EXPECT_EQ(sent(outbox, number), "xx");
}

TEST(Outbox, LosesNothingThatTheBrokerHas)
{
    Outbox outbox(0s, 2);
    const Instant now{1h};
    (void)outbox.add(answer("a"), now);
    int number = 0;
    EXPECT_EQ(sent(outbox, number), "a");
    EXPECT_EQ(outbox.expire(now + 1s), 0U); // it is on its way
    EXPECT_EQ(outbox.add(answer("b"), now), 0U);
    EXPECT_EQ(outbox.add(answer("c"), now), 1U); // b, as a is sent
    EXPECT_EQ(sent(outbox, number), "c");
    outbox.onDown();
    EXPECT_EQ(outbox.expire(now + 1s), 2U);
}

TEST(Outbox, DropsWhatTheBrokerCannotTake)
{
    Outbox outbox(60s, 2);
    const Instant now{1h};
    (void)outbox.add(answer("a"), now);
    EXPECT_EQ(outbox.send([](const Publication&) { return std::optional(0); }), 1U);
    EXPECT_EQ(outbox.size(), 0U);
}
