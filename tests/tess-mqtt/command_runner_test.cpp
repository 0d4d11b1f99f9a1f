#include "tools/tess-mqtt/command_runner.h"

#include <gtest/gtest.h>

#include "framework/tess_messages.h"

namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t OWN = MSG_TEXT; // the kind of what tessd says by itself

struct Sent {
    std::uint16_t tag;
    std::string line;
};

/// A runner whose tessd is the test.
class Bench {
public:
    explicit Bench(std::size_t most = 32) : runner({.most = most, .timeout = 5s}, send(), done()) { runner.onUp(now); }

    void ask(const std::string& line, const std::string& name, Instant expires = NEVER)
    {
        runner.take({.responseTopic = name, .correlation = {}, .line = line, .arrived = now, .expires = expires}, now);
    }

    void fence() { own("0\r\n\r\n"); }
    void own(const std::string& text, std::uint32_t tag = 0)
    {
        runner.onFrame({.kind = OWN, .sender = 0, .tag = tag, .text = text}, now);
    }
    void reply(std::uint16_t tag, const std::string& text)
    {
        runner.onFrame({.kind = MSG_REPLY, .sender = 1500, .tag = tag, .text = text}, now);
    }

    void pass(std::chrono::milliseconds time)
    {
        now += time;
        runner.onTime(now);
    }

    Instant now{1h};
    std::vector<Sent> sent; ///< lines without fences
    std::vector<std::string> fences;
    std::vector<std::string> over; ///< "NAME STATUS TEXT", with " (not begun)" behind it where it is so
    CommandRunner runner;

private:
    CommandRunner::Send send()
    {
        return [this](const std::string& bytes) {
            std::string rest = bytes;
            const auto line = takeFrame(rest);
            const auto fence = takeFrame(rest);
            ASSERT_TRUE(line && fence && rest.empty());
            sent.push_back({static_cast<std::uint16_t>(line->tag), line->text});
            fences.push_back(fence->text);
        };
    }

    CommandRunner::Done done()
    {
        return [this](const Request& request, const Reply& reply, bool begun) {
            over.push_back(request.responseTopic + " " + wordOf(reply.status) + " " + reply.text +
                           (begun ? "" : " (not begun)"));
        };
    }
};

using Over = std::vector<std::string>;

} // namespace

TEST(CommandRunner, SendsALineWhenTheFenceBehindTheOneBeforeItIsBack)
{
    Bench bench;
    bench.ask("s3.A x", "a");
    bench.ask("s3.B x", "b");
    ASSERT_EQ(bench.sent.size(), 1U);
    EXPECT_EQ(bench.sent[0].line, "s3.A x");
    EXPECT_EQ(bench.fences[0], "*");
    bench.fence();
    ASSERT_EQ(bench.sent.size(), 2U);
    EXPECT_NE(bench.sent[0].tag, bench.sent[1].tag);
    EXPECT_EQ(bench.runner.inFlight(), 2U);
}

TEST(CommandRunner, GivesAnswersOfProcessesToTheirTags)
{
    Bench bench;
    for (const char* name : {"a", "b", "c"}) {
        bench.ask("s3.P x", name);
        bench.fence();
    }
    bench.reply(bench.sent[2].tag, "third\r\n\r\n");
    bench.reply(bench.sent[0].tag, "one\r\ntwo\r\n\r\n");
    bench.reply(bench.sent[1].tag, "Error: no\r\n\r\n");
    EXPECT_EQ(bench.over, (Over{"c answered third", "a answered one\ntwo", "b refused Error: no"}));
    bench.reply(bench.sent[1].tag, "twice\r\n\r\n");
    EXPECT_EQ(bench.over.size(), 3U);
    EXPECT_EQ(bench.runner.strays(), 1U);
}

TEST(CommandRunner, GivesTessdsOwnAnswersToTheLineInFrontOfTheFenceWhateverTheirTag)
{
    Bench bench;
    bench.ask("s3.SLOW x", "slow");
    bench.fence();
    bench.ask("s3.NONE x", "none");
    bench.own("?\r\n", bench.sent[0].tag);
    EXPECT_EQ(bench.over, Over{}); // not before the fence
    bench.fence();
    EXPECT_EQ(bench.over, (Over{"none refused ?"}));
    bench.reply(bench.sent[0].tag, "done\r\n\r\n");
    EXPECT_EQ(bench.over.back(), "slow answered done");
}

TEST(CommandRunner, WaitsForAsManyAnswersAsThereAreCommands)
{
    Bench bench;
    bench.ask("s3.A x|s3.NONE x|s3.B x", "many");
    bench.reply(bench.sent[0].tag, "a\r\n\r\n");
    bench.own("?\r\n");
    bench.fence();
    EXPECT_EQ(bench.over, Over{});
    bench.reply(bench.sent[0].tag, "b\r\n\r\n");
    EXPECT_EQ(bench.over, (Over{"many refused a\n?\nb"}));
}

TEST(CommandRunner, KeepsTheOrderInWhichAnswersToALineCame)
{
    Bench bench;
    bench.ask("*|s3.A x", "both");
    ASSERT_EQ(bench.fences[0], "*|$|$");
    bench.own("0\r\n\r\n");
    bench.reply(bench.sent[0].tag, "20\r\n\r\n");
    bench.fence();
    bench.own("?\r\n");
    EXPECT_EQ(bench.over, Over{});
    bench.own("?\r\n");
    EXPECT_EQ(bench.over, (Over{"both answered 0\n20"}));
}

TEST(CommandRunner, TellsWhatHasComeWhenTheFenceDoesNotComeInTime)
{
    Bench bench;
    bench.ask("s3.A x|s3.B x", "late");
    bench.reply(bench.sent[0].tag, "a\r\n\r\n");
    bench.pass(5s);
    EXPECT_EQ(bench.over,
              (Over{"late timeout a\nError: no answer within 5 s: it may have been carried out, or may still be"}));
    bench.ask("s3.A x|s3.B x", "next");
    bench.fence();
    bench.reply(bench.sent[1].tag, "a\r\n\r\n");
    bench.runner.onDown(bench.now, false);
    EXPECT_EQ(bench.over.back(),
              "next timeout a\nError: the connection to tessd has ended before the answer: it may have "
              "been carried out or not");
}

TEST(CommandRunner, TakesAnAnswerWithoutAnEndAfterAPause)
{
    Bench bench;
    bench.ask("s3.A x", "a");
    bench.fence();
    bench.reply(bench.sent[0].tag, "no end");
    EXPECT_EQ(bench.runner.due(), bench.now + 200ms);
    bench.pass(100ms);
    EXPECT_EQ(bench.over, Over{});
    bench.pass(100ms);
    EXPECT_EQ(bench.over, (Over{"a answered no end"}));
}

TEST(CommandRunner, GivesUpAndGivesTheTagToNobodyElse)
{
    Bench bench;
    bench.ask("s3.A x", "a");
    const std::uint16_t tag = bench.sent[0].tag;
    bench.fence();
    EXPECT_EQ(bench.runner.due(), bench.now + 5s);
    bench.pass(5s);
    ASSERT_EQ(bench.over.size(), 1U);
    EXPECT_EQ(bench.over[0], "a timeout Error: no answer within 5 s: it may have been carried out, or may still be");
    for (int i = 0; i < 70000; ++i) {
        bench.ask("s3.NONE x", "none");
        ASSERT_NE(bench.sent.back().tag, tag);
        ASSERT_NE(bench.sent.back().tag, 0);
        bench.own("?\r\n");
        bench.fence();
    }
    bench.reply(tag, "late\r\n\r\n");
    EXPECT_EQ(bench.over.size(), 70001U);
}

TEST(CommandRunner, DoesNotBeginWhatHasExpired)
{
    Bench bench;
    bench.ask("s3.A x", "at once", bench.now);
    EXPECT_EQ(bench.over, (Over{"at once timeout Error: it has expired, and was not carried out (not begun)"}));
    bench.ask("s3.A x", "first");
    bench.ask("s3.A x", "waits", bench.now + 1s);
    bench.now += 1s;
    bench.fence();
    EXPECT_EQ(bench.sent.size(), 1U);
    EXPECT_EQ(bench.over.back(), "waits timeout Error: it has expired, and was not carried out (not begun)");
}

TEST(CommandRunner, IsBusyWhenThereAreTooMany)
{
    Bench bench(2);
    for (const char* name : {"a", "b", "c"})
        bench.ask("s3.A x", name);
    EXPECT_EQ(bench.over, (Over{"c busy Error: too many commands are under way: try again (not begun)"}));
    bench.reply(bench.sent[0].tag, "done\r\n\r\n");
    bench.ask("s3.A x", "d");
    EXPECT_EQ(bench.over.back(), "a answered done");
}

TEST(CommandRunner, IsBusyWithWhatTessdHasNotComeTo)
{
    Bench bench;
    bench.ask("s3.A x", "a");
    bench.ask("s3.B x", "b");
    bench.pass(5s);
    ASSERT_EQ(bench.over.size(), 2U);
    EXPECT_EQ(bench.over[1], "b busy Error: tessd has not come to it within 5 s (not begun)");
    bench.ask("s3.C x", "c");
    bench.own("?\r\n"); // to what has been given up
    bench.fence();
    ASSERT_EQ(bench.sent.size(), 2U);
    EXPECT_EQ(bench.sent[1].line, "s3.C x");
    EXPECT_EQ(bench.over.size(), 2U);
}

TEST(CommandRunner, SaysWhatIsOverWithTheConnection)
{
    Bench bench;
    bench.ask("s3.A x", "a");
    bench.ask("s3.B x", "b");
    bench.runner.onDown(bench.now, false);
    ASSERT_EQ(bench.over.size(), 2U);
    EXPECT_TRUE(bench.over[0].starts_with("a timeout Error: the connection to tessd has ended")) << bench.over[0];
    EXPECT_EQ(bench.over[1], "b refused Error: tessd is not there (not begun)");
    bench.ask("s3.C x", "c");
    EXPECT_EQ(bench.over[2], "c refused Error: tessd is not there (not begun)");
}

TEST(CommandRunner, WantsANewConnectionWhenTheOldOneIsAtRest)
{
    Bench bench;
    EXPECT_EQ(bench.runner.due(), NEVER); // nothing is due for its own sake
    bench.now += CommandRunner::RENEWAL;
    EXPECT_FALSE(bench.runner.wantsNewConnection(bench.now)); // nothing is to be sent
    bench.ask("s3.A x", "a");
    EXPECT_TRUE(bench.sent.empty());
    EXPECT_TRUE(bench.runner.wantsNewConnection(bench.now));
    bench.runner.onDown(bench.now, true);
    EXPECT_EQ(bench.over, Over{});
    bench.runner.onUp(bench.now);
    EXPECT_EQ(bench.sent.size(), 1U);
    EXPECT_FALSE(bench.runner.wantsNewConnection(bench.now));
}

TEST(CommandRunner, WantsANewConnectionWhenAllTagsAreForLateAnswers)
{
    Bench bench(1000);
    while (bench.sent.size() < UINT16_MAX - 1000) {
        for (int i = 0; i < 1000; ++i) {
            bench.ask("s3.SLOW x", "slow");
            bench.fence();
        }
        bench.pass(5s);
    }
    ASSERT_LT(bench.now, Instant(1h) + CommandRunner::RENEWAL); // it is not the time
    for (int i = 0; i < 1000; ++i) {
        bench.ask("s3.SLOW x", "last");
        bench.fence();
    }
    bench.pass(5s);
    const std::size_t over = bench.over.size();
    bench.ask("s3.A x", "a");
    EXPECT_TRUE(bench.runner.wantsNewConnection(bench.now));
    bench.runner.onDown(bench.now, true);
    bench.runner.onUp(bench.now);
    EXPECT_EQ(bench.sent.back().line, "s3.A x");
    EXPECT_EQ(bench.over.size(), over);
}

TEST(CommandRunner, HoldsLinesBackFromAConnectionThatIsNeverAtRest)
{
    Bench bench;
    bench.now += CommandRunner::RENEWAL - 1s;
    bench.ask("s3.A x", "a");
    bench.fence();
    bench.now += 2s;
    bench.ask("s3.B x", "b");
    bench.fence();
    EXPECT_EQ(bench.sent.size(), 2U); // old, but not at rest
    bench.reply(bench.sent[0].tag, "done\r\n\r\n");
    bench.now += CommandRunner::LATEST_RENEWAL - CommandRunner::RENEWAL - 1s;
    bench.ask("s3.C x", "c");
    EXPECT_EQ(bench.sent.size(), 2U);
    bench.reply(bench.sent[1].tag, "done\r\n\r\n");
    EXPECT_TRUE(bench.runner.wantsNewConnection(bench.now));
}

TEST(CommandRunner, WantsANewConnectionWhenAFenceDoesNotComeBack)
{
    Bench bench;
    bench.ask("s3.A x", "a");
    bench.pass(59s);
    EXPECT_FALSE(bench.runner.wantsNewConnection(bench.now));
    bench.pass(1s);
    EXPECT_TRUE(bench.runner.wantsNewConnection(bench.now));
}

TEST(CommandRunner, SendsNothingUntilTheNextConnectionIsThere)
{
    Bench bench;
    bench.ask("s3.A x", "a");
    bench.ask("s3.B x", "b");
    bench.runner.onDown(bench.now, true);
    bench.pass(1s);
    EXPECT_EQ(bench.sent.size(), 1U);
    bench.runner.onUp(bench.now);
    ASSERT_EQ(bench.sent.size(), 2U);
    EXPECT_EQ(bench.sent[1].line, "s3.B x");
}

TEST(CommandRunner, GivesUpAnEarlierLineWhileALaterOneHasTimeLeft)
{
    Bench bench;
    bench.ask("s3.A x", "a");
    bench.fence();
    bench.pass(3s);
    bench.ask("s3.B x|s3.C x", "b");
    bench.reply(bench.sent[1].tag, "one\r\n\r\n");
    bench.pass(2s);
    EXPECT_EQ(bench.over,
              (Over{"a timeout Error: no answer within 5 s: it may have been carried out, or may still be"}));
    bench.fence();
    bench.reply(bench.sent[1].tag, "two\r\n\r\n");
    EXPECT_EQ(bench.over.back(), "b answered one\ntwo");
}

TEST(CommandRunner, GivesTheTagOfALongRequestToNobodyElse)
{
    Bench bench(70000);
    bench.ask("s3.LONG x", "long");
    const std::uint16_t tag = bench.sent[0].tag;
    bench.fence();
    for (int i = 0; i < 65600; ++i) {
        bench.ask("s3.NONE x", "none");
        ASSERT_NE(bench.sent.back().tag, tag);
        bench.own("?\r\n");
        bench.fence();
    }
    bench.reply(tag, "at last\r\n\r\n");
    EXPECT_EQ(bench.over.back(), "long answered at last");
}
