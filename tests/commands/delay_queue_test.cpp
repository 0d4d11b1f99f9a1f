#include "commands/delay_queue.h"

#include <gmock/gmock.h>
#include <string>
#include <vector>

#include "commands/delay_command.h"
#include "commands/delay_runner.h"
#include "commands/interpreter.h"
#include "framework/fixed_text.h"
#include "tests/commands/command_test_bench.h"
#include "tests/commands/fake_clock.h"
#include "tests/support/fake_conn.h"
#include "tests/support/readable.h"
#include "tests/support/waiting.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;
using Texts = std::vector<std::string>;
using Due = std::pair<const std::uint64_t, std::string>;

namespace {

constexpr std::int64_t START = 1000; // seconds on the clock

class DelayQueueTest : public testing::Test {
protected:
    DelayQueueTest()
    {
        bench.outMsg.kind = MSG_TEXT;
        bench.context.resetDevice = [this](const char* line, const void*) {
            resetLines.emplace_back(line);
            return resetResult;
        };
        bench.registerProcess(2001, 0, "ENC"); // takes nothing but delayed commands
    }

    int process(std::string line)
    {
        CmdEntry entry{0, line.data()};
        return processCmd(bench.context, &conn, &entry);
    }

    /// What the connection is told for one line.
    Texts replies(std::string line)
    {
        conn.written.clear();
        process(std::move(line));
        return conn.written;
    }

    /// The commands that reach the process in one walk.
    Texts run()
    {
        runDelays(bench.context);
        return encoder.receiveTexts();
    }

    DelayQueue& queue() { return bench.delayQueues; }

    /// Lets nothing but these be in the queue.
    void queueUp(std::initializer_list<Due> lines)
    {
        queue().clear();
        for (const auto& [due, line] : lines)
            queue().add(due, line);
    }

    /// The listing in one piece.
    std::string listing()
    {
        conn.written.clear();
        EXPECT_EQ(listDelays(bench.context, &conn), 0);
        std::string all;
        for (const std::string& part : conn.written)
            all += part;
        return all;
    }

    CommandTestBench bench;
    QueueProcess encoder{bench.directory, 2001};
    FakeConn conn{PORT_IPC, 0xBB01'0000};
    FakeClock clock{START, 0};
    Texts resetLines;
    ResetResult resetResult = RESET_REFUSED;
};

} // namespace

// --- setting

TEST_F(DelayQueueTest, QueuesALineForItsTime)
{
    struct Row {
        const char* line;
        std::int64_t seconds, nanoseconds; ///< on the clock
        std::uint64_t due;
    };
    const Row rows[] = {
        {"DELAY 10.0|X", 1000, 0, 1'010'000},
        {"DELAY 1:30.0|X", 1000, 0, 1'090'000},
        {"DELAY 1:0:0:0|X", 1000, 0, 4'600'000},
        {"DELAY 10.0|X", 1000, 989'900'000, 1'010'989},
        {"DELAY 10.0|X", 1000, 999'999'999, 1'011'000},
        {"DELAY 1500|X", 1000, 0, 1'001'000}, // the milliseconds are dropped
        {"DELAY 1.999|X", 1000, 0, 1'001'000},
        {"DELAY 1.999|X", 1000, 999'000, 1'001'001}, // but for their remainder, as nanoseconds
        {"DELAY 500|X", 1000, 0, 1'000'000},         // due at once
        {"DELAY 999|X", 1000, 999'999'900, 1'001'000},
        {"DELAY 1|X", 0, 0, 0},
        {"DELAY 2147483647|X", 1000, 0, 2'148'483'000}, // its 483647 ns do not make a millisecond
        {"DELAY 2147483647|X", 1000, 600'000, 2'148'483'001},
        {"DELAY 10.0|X", 3'000'000'000, 0, 3'000'000'010'000}, // an uptime that needs 64 bits
        // The product has overflowed: the low 32 bits of the seconds are added.
        {"DELAY 597:0:0:0|X", 1000, 0, 1'269'165'552'000},
        {"DELAY 597:0:0:0|X", 1000, 300'000, 1'269'165'552'001}, // the remainder is that of all 64 bits: 784320 ns
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << row.line << " at " << row.seconds << " s, " << row.nanoseconds << " ns");
        clock.set(row.seconds, row.nanoseconds);
        EXPECT_THAT(replies(row.line), ElementsAre("OK\r\n\r\n"));
        EXPECT_THAT(queue().lines(), ElementsAre(Due(row.due, "X")));
        queue().clear();
    }
}

TEST_F(DelayQueueTest, KeepsTheLineAsItWasTyped)
{
    struct Row {
        const char* line;
        const char* queued;
    };
    const Row rows[] = {
        {"DELAY 10.0|X", "X"},
        {"delay 10.0|A|B|C", "A|B|C"},
        {"DELAY 10.0| A | B ", " A | B "},
        {"DELAY 10.0", ""},
        {"DELAY 10.0|", ""},
        {"DELAY 10.0||A||B|", "A|B"}, // empty tokens do not come about
        {"DELAY10.0|X", "X"},
        {"  DELAY   10.0  |X", "X"},
        {"DELAY 10.0|DELAY 5.0|X", "DELAY 5.0|X"},
        {"DELAY 10.0|%s%n %1% \xE4", "%s%n %1% \xE4"},
    };
    for (const Row& row : rows) {
        EXPECT_THAT(replies(row.line), ElementsAre("OK\r\n\r\n")) << row.line;
        EXPECT_THAT(queue().lines(), ElementsAre(Due(1'010'000, row.queued))) << row.line;
        queue().clear();
    }
}

TEST_F(DelayQueueTest, RefusesALineWithoutAUsableTime)
{
    for (const char* const line : {"DELAY 0|X", "DELAY x|X", "DELAY -5|X", "DELAY 1000:0:0.0|X", "DELAY 1:2:3:4:5|X",
                                   "DELAYED|X", "DELAY CLEA|X", "DELAY 1 x|X"})
        EXPECT_THAT(replies(line), ElementsAre("Error Setting Command: Invalid Arguments.\r\n\r\n")) << line;
    EXPECT_THAT(queue().lines(), IsEmpty());
}

TEST_F(DelayQueueTest, RefusesALineWhenTheClockCannotBeRead)
{
    clock.fails = true;
    EXPECT_THAT(replies("DELAY 10.0|X"), ElementsAre("Error Setting Command: Invalid Arguments.\r\n\r\n"));
    EXPECT_THAT(queue().lines(), IsEmpty());
}

TEST_F(DelayQueueTest, IsClearedByAnythingThatBeginsWithClear)
{
    for (const char* const line : {"DELAY CLEAR", "delay clear", "DelayClear", "DELAY CLEARANCE", "DELAY  CLEAR |X"}) {
        queueUp({{1, "A"}, {2, "B"}});
        EXPECT_THAT(replies(line), ElementsAre("OK\r\n\r\n")) << line;
        EXPECT_THAT(queue().lines(), IsEmpty()) << line;
        EXPECT_THAT(replies(line), ElementsAre("OK\r\n\r\n")) << line << " once more";
    }
    clock.fails = true;
    EXPECT_THAT(replies("DELAY CLEAR"), ElementsAre("OK\r\n\r\n")) << "it needs no clock";
}

// --- listing

TEST_F(DelayQueueTest, ListsAnEmptyQueue)
{
    EXPECT_EQ(readable(listing()), "OK\\r\\n\\r\\n");
    EXPECT_THAT(conn.written, SizeIs(1));
}

TEST_F(DelayQueueTest, ListsMillisecondsToTheNextSecondOfTheClockAndASecondLess)
{
    struct Row {
        const char* behaviour;
        std::int64_t seconds, nanoseconds; ///< on the clock
        std::uint64_t due;
        const char* time;
    };
    const Row rows[] = {
        {"at a whole second nothing is borrowed", 1000, 0, 1'010'000, "000:00:10.000"},
        {"a nanosecond later", 1000, 1, 1'010'000, "000:00:09.999"},
        {"in the middle of a second", 1000, 500'000'000, 1'010'000, "000:00:09.500"},
        {"the milliseconds of the due time do not count", 1000, 500'000'000, 1'010'700, "000:00:09.500"},
        {"but for nanoseconds up to them", 1000, 700, 1'010'700, "000:00:10.000"},
        {"and not beyond", 1000, 701, 1'010'700, "000:00:09.999"},
        {"at the end of a second", 1000, 999'999'999, 1'010'000, "000:00:09.000"},
        {"minutes", 1000, 0, 1'090'000, "000:01:30.000"},
        {"hours", 1000, 0, 4'723'000, "001:02:03.000"},
        {"many hours", 0, 0, 3'599'999'000, "999:59:59.000"},
        {"more hours than three digits", 0, 0, 36'000'000'000, "10000:00:00.000"},
        {"due within the second", 1000, 500'000'000, 1'000'600, "000:00:-1.500"},
        {"due now", 1000, 0, 1'000'000, "000:00:00.000"},
        {"overdue", 1000, 500'000'000, 990'000, "000:00:-11.500"},
        {"seconds that need 32 bits", 0, 0, 4'294'967'295'000, "000:00:-1.000"},
        {"seconds that wrap", 0, 0, 4'294'967'296'000, "000:00:00.000"},
        {"an uptime that needs 64 bits", 5'000'000'000, 0, 5'000'000'010'000, "000:00:10.000"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        clock.set(row.seconds, row.nanoseconds);
        queueUp({{row.due, "X"}});
        EXPECT_EQ(readable(listing()), readable("OK\r\n" + std::string(row.time) + " X\r\n\r\n"));
    }
}

TEST_F(DelayQueueTest, CrashesForNoTimeWhatever)
{
    const std::uint64_t dues[] = {0,
                                  1,
                                  999,
                                  2'147'483'648'000,
                                  2'147'483'647'999,
                                  4'294'967'295'999,
                                  1ULL << 63,
                                  (1ULL << 63) - 1,
                                  ~0ULL,
                                  18'446'744'073'709'551'000U};
    for (const std::uint64_t due : dues)
        for (const std::int64_t seconds : {0LL, 1LL, 1000LL, 2'147'483'648LL, 4'294'967'296LL, 9'000'000'000'000LL})
            for (const std::int64_t nanoseconds : {0LL, 1LL, 999'999'999LL}) {
                clock.set(seconds, nanoseconds);
                queueUp({{due, "X"}});
                EXPECT_THAT(listing(), testing::MatchesRegex("OK\r\n-?[0-9]+:-?[0-9]+:-?[0-9]+\\.[0-9]{3} X\r\n\r\n"))
                    << due << " at " << seconds;
            }
}

TEST_F(DelayQueueTest, ListsInTheOrderOfDueTimesAndOfQueueing)
{
    for (const char* const line : {"DELAY 30.0|C", "DELAY 10.0|A1|x", "DELAY 20.0|B", "DELAY 10.0|A2", "DELAY 10.0"})
        replies(line);
    EXPECT_EQ(readable(listing()), readable("OK\r\n"
                                            "000:00:10.000 A1|x\r\n"
                                            "000:00:10.000 A2\r\n"
                                            "000:00:10.000 \r\n"
                                            "000:00:20.000 B\r\n"
                                            "000:00:30.000 C\r\n"
                                            "\r\n"));
}

TEST_F(DelayQueueTest, ListsLinesWithFormatCharactersAsTheyAre)
{
    queueUp({{1'010'000, "%s%n %1% %5$s \xE4"}});
    EXPECT_EQ(readable(listing()), readable("OK\r\n000:00:10.000 %s%n %1% %5$s \xE4\r\n\r\n"));
}

TEST_F(DelayQueueTest, ListsMoreThanARecordHoldsInSeveralWritesAndLeavesNothingOut)
{
    for (const std::size_t length : {1U, 15U, 100U, 1000U}) {
        SCOPED_TRACE(length);
        queue().clear();
        std::string expected = "OK\r\n";
        for (int i = 0; i < 700; ++i) {
            const std::string line(length, static_cast<char>('a' + i % 26));
            queue().add(1'010'000, line);
            expected += "000:00:10.000 " + line + "\r\n";
        }
        EXPECT_EQ(listing(), expected + "\r\n");
        EXPECT_GT(conn.written.size(), 1U);
        for (const std::string& part : conn.written) {
            EXPECT_LE(part.size(), 8175U);
            EXPECT_EQ(part.substr(part.size() - 2), "\r\n") << "cut at a line end";
        }
    }
}

TEST_F(DelayQueueTest, ListsExactlyARecordFullInOneWrite)
{
    // "OK", a line and the empty line: 4 + 16 + n + 2 bytes.
    for (const std::size_t bytes : {8174U, 8175U, 8176U}) {
        queue().clear();
        queue().add(1'010'000, std::string(4000, 'a'));
        queue().add(1'010'000, std::string(bytes - 4000 - 4 - 16 - 16 - 2, 'b'));
        EXPECT_THAT(listing(), SizeIs(bytes));
        EXPECT_EQ(conn.written.size(), bytes <= 8175 ? 1U : 2U) << bytes;
    }
}

TEST_F(DelayQueueTest, ReportsAClockThatCannotBeReadWhenItLists)
{
    clock.fails = true;
    EXPECT_EQ(process("DELAY"), 1);
    EXPECT_THAT(conn.written, ElementsAre("Error Getting Delay Queues\r\n\r\n"));
    EXPECT_EQ(listDelays(bench.context, nullptr), 1);
}

TEST_F(DelayQueueTest, ListsNothingWithoutAConnection)
{
    queueUp({{1'010'000, "X"}});
    bench.outMsg.text[0] = '!';
    EXPECT_EQ(listDelays(bench.context, nullptr), 0);
    EXPECT_EQ(bench.outMsg.text[0], '!');
}

// --- running

TEST_F(DelayQueueTest, RunsWhatIsDueAndKeepsTheRest)
{
    queueUp({{999'999, "A"}, {1'000'000, "B"}, {1'000'001, "C"}, {2'000'000, "D"}});
    EXPECT_THAT(run(), ElementsAre("A\n", "B\n"));
    EXPECT_THAT(queue().lines(), ElementsAre(Due(1'000'001, "C"), Due(2'000'000, "D")));
    EXPECT_THAT(run(), IsEmpty());
    clock.set(1000, 999'999);
    EXPECT_THAT(run(), IsEmpty()) << "not a whole millisecond yet";
    clock.set(1000, 1'000'000);
    EXPECT_THAT(run(), ElementsAre("C\n"));
    clock.set(1'000'000, 0);
    EXPECT_THAT(run(), ElementsAre("D\n"));
    EXPECT_THAT(queue().lines(), IsEmpty());
}

TEST_F(DelayQueueTest, RunsLinesOfTheSameTimeInTheOrderInWhichTheyWereQueued)
{
    Texts expected;
    for (int i = 0; i < 10; ++i) { // as many as the queue of the process holds
        replies("DELAY 1.0|s3.ENC " + std::to_string(i));
        expected.push_back(std::to_string(i) + "\n");
    }
    clock.set(START + 1, 0);
    EXPECT_THAT(run(), ElementsAreArray(expected));
}

TEST_F(DelayQueueTest, RunsALineWithoutAConnection)
{
    conn.written.clear();
    queueUp({{1, "s3.ENC A|s3.NONE B|SET $5|*|quit|s3.ENC C"}});
    runDelays(bench.context);
    const auto received = encoder.receiveAll();
    ASSERT_EQ(received.size(), 3U);
    EXPECT_EQ(received[0].text(), "A\n");
    EXPECT_EQ(received[1].text(), "quit\n");
    EXPECT_EQ(received[2].text(), "C\n");
    for (const Received& record : received) {
        EXPECT_EQ(record.record.tag, 0U);
        EXPECT_EQ(record.record.kind, 101U);
    }
    EXPECT_THAT(conn.written, IsEmpty());
}

TEST_F(DelayQueueTest, CutsALineTo255Characters)
{
    for (const std::size_t length : {254U, 255U, 256U, 257U, 1000U}) {
        queueUp({{1, std::string(length, 'x')}});
        EXPECT_THAT(run(), ElementsAre(std::string(std::min<std::size_t>(length, 255), 'x') + "\n")) << length;
    }
}

TEST_F(DelayQueueTest, RunsAnEmptyLineAsNothing)
{
    queueUp({{1, ""}, {1, " "}, {1, "X"}});
    EXPECT_THAT(run(), ElementsAre("\n", "X\n")) << "a blank is an empty broadcast";
    EXPECT_THAT(queue().lines(), IsEmpty());
}

TEST_F(DelayQueueTest, ForwardsADelayedResetThatFails)
{
    queueUp({{1, "RESET A B"}});
    EXPECT_THAT(run(), ElementsAre("RESET A B\n"));
    EXPECT_THAT(resetLines, ElementsAre("RESET A B"));
}

TEST_F(DelayQueueTest, EndsItsWalkWhenALineClearsIt)
{
    queueUp({{1, "A"}, {2, "DELAY CLEAR"}, {3, "B"}, {1'000'000'000, "C"}});
    EXPECT_THAT(run(), ElementsAre("A\n"));
    EXPECT_THAT(queue().lines(), IsEmpty());
    queueUp({{1, "D"}});
    EXPECT_THAT(run(), ElementsAre("D\n")) << "the next walk is a whole one";
}

TEST_F(DelayQueueTest, IsClearedByItsOnlyLine)
{
    queueUp({{1, "delay clear"}});
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_THAT(queue().lines(), IsEmpty());
}

TEST_F(DelayQueueTest, TakesTokensInFrontOfAClear)
{
    queueUp({{1, "A|DELAY CLEAR|B"}, {2, "C"}});
    EXPECT_THAT(run(), ElementsAre("A\n"));
    EXPECT_THAT(queue().lines(), IsEmpty());
}

TEST_F(DelayQueueTest, GoesOnAfterAClearThatWasTyped)
{
    replies("DELAY CLEAR");
    queueUp({{1, "A"}, {2, "B"}});
    EXPECT_THAT(run(), ElementsAre("A\n", "B\n"));
}

TEST_F(DelayQueueTest, TakesALineThatQueuesAnother)
{
    replies("DELAY 1.0|A|DELAY 1.0|B");
    clock.set(START + 1, 0);
    EXPECT_THAT(run(), ElementsAre("A\n"));
    EXPECT_THAT(queue().lines(), ElementsAre(Due(1'002'000, "B")));
    clock.set(START + 2, 0);
    EXPECT_THAT(run(), ElementsAre("B\n"));
    EXPECT_THAT(queue().lines(), IsEmpty());
}

TEST_F(DelayQueueTest, RunsInTheSameWalkWhatALineQueuesForNow)
{
    queueUp({{999'000, "DELAY 1|A"}, {1'000'000, "B"}, {1'000'001, "C"}});
    EXPECT_THAT(run(), ElementsAre("B\n", "A\n")) << "behind what is due then already";
    EXPECT_THAT(queue().lines(), ElementsAre(Due(1'000'001, "C")));
}

TEST_F(DelayQueueTest, TakesManyLinesThatQueueOthers)
{
    for (int i = 0; i < 200; ++i)
        queue().add(static_cast<std::uint64_t>(i), "DELAY " + std::to_string(1 + i % 7) + ".0|*");
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_THAT(queue().lines(), SizeIs(200));
    for (const auto& [due, line] : queue().lines())
        EXPECT_EQ(line, "*");
    clock.set(START + 100, 0);
    EXPECT_THAT(run(), IsEmpty()) << "the bare star reaches nobody";
    EXPECT_THAT(queue().lines(), IsEmpty());
}

TEST_F(DelayQueueTest, ListsNothingForADelayedListing)
{
    queueUp({{1, "DELAY"}, {1'010'000, "X"}});
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_THAT(queue().lines(), SizeIs(1));
    EXPECT_THAT(conn.written, IsEmpty());
}

TEST_F(DelayQueueTest, WaitsALittleWhenTheClockCannotBeRead)
{
    queueUp({{1, "A"}});
    clock.fails = true;
    const Stopwatch watch;
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_GE(watch.ms(), 95);
    EXPECT_THAT(queue().lines(), SizeIs(1));
    clock.fails = false;
    EXPECT_THAT(run(), ElementsAre("A\n"));
}

TEST_F(DelayQueueTest, ComparesTimesWithoutASign)
{
    queueUp({{~0ULL, "never"}, {1ULL << 63, "never"}});
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_THAT(queue().lines(), SizeIs(2));
}

// --- lines that wait

namespace {

/// With a second process, whose queue is full.
class WaitingDelay : public DelayQueueTest {
protected:
    WaitingDelay()
    {
        bench.registerProcess(2002, 0, "MOT");
        CommandTestBench::fill(2002);
    }

    bool waits() const { return bench.delayedLine.runs; }

    QueueProcess motor{bench.directory, 2002};
    StoppedTime time;
};

} // namespace

TEST_F(WaitingDelay, KeepsThoseBehindItInOrder)
{
    queueUp({{1, "s3.ENC A|s3.MOT B|s3.ENC C"}, {2, "s3.ENC D"}, {3, "s3.MOT E"}, {2'000'000, "s3.ENC F"}});
    EXPECT_THAT(run(), ElementsAre("A\n"));
    EXPECT_TRUE(waits());
    EXPECT_THAT(queue().lines(), SizeIs(3));
    EXPECT_THAT(run(), IsEmpty()) << "nothing has been taken";
    clock.set(START, 200'000'000);
    EXPECT_THAT(run(), IsEmpty());
    (void)motor.receive();
    EXPECT_THAT(run(), ElementsAre("C\n", "D\n"));
    EXPECT_TRUE(waits()) << "the next one for that process";
    EXPECT_THAT(queue().lines(), ElementsAre(Due(2'000'000, "s3.ENC F")));
    (void)motor.receive();
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_FALSE(waits());
    EXPECT_THAT(CommandTestBench::forwardedTo(motor), ElementsAre("B\n", "E\n"));
    EXPECT_FALSE(bench.delayedLine.progress.waits());
}

TEST_F(WaitingDelay, RunsWhatHasFallenDueMeanwhile)
{
    queueUp({{1, "s3.MOT A"}, {1'001'000, "s3.ENC B"}});
    EXPECT_THAT(run(), IsEmpty());
    clock.set(START + 1, 0);
    (void)motor.receive();
    EXPECT_THAT(run(), ElementsAre("B\n"));
    EXPECT_THAT(queue().lines(), IsEmpty());
}

TEST_F(WaitingDelay, IsGivenUpWithoutAnAnswerWhenTheProcessIsStuck)
{
    queueUp({{1, "s3.MOT A|s3.ENC B"}, {2, "s3.MOT C"}, {3, "s3.ENC D"}});
    EXPECT_THAT(run(), IsEmpty());
    time.pass(FullQueues::PATIENCE);
    EXPECT_THAT(run(), ElementsAre("B\n", "D\n")) << "C does not wait any more";
    EXPECT_FALSE(waits());
    EXPECT_THAT(CommandTestBench::forwardedTo(motor), IsEmpty());
    EXPECT_THAT(conn.written, IsEmpty());
}

TEST_F(WaitingDelay, DoesNotHoldLinesThatAreTyped)
{
    queueUp({{1, "s3.MOT A"}});
    run();
    bench.regProcs.front()->portMask = PORT_IPC;
    EXPECT_THAT(replies("s3.ENC X|DELAY 10.0|Y"), ElementsAre("OK\r\n\r\n"));
    EXPECT_THAT(encoder.receiveTexts(), ElementsAre("X\n"));
    EXPECT_THAT(queue().lines(), ElementsAre(Due(1'010'000, "Y")));
    EXPECT_TRUE(waits());
    (void)motor.receive();
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_THAT(CommandTestBench::forwardedTo(motor), ElementsAre("A\n"));
}

TEST_F(WaitingDelay, IsNeitherListedNorClearedAsItIsUnderWay)
{
    queueUp({{1, "s3.MOT A|s3.ENC B"}, {998'000, "s3.ENC C"}, {1'010'000, "s3.ENC D"}});
    run();
    EXPECT_EQ(readable(listing()), readable("OK\r\n"
                                            "000:00:-2.000 s3.ENC C\r\n"
                                            "000:00:10.000 s3.ENC D\r\n"
                                            "\r\n"));
    EXPECT_THAT(replies("DELAY CLEAR"), ElementsAre("OK\r\n\r\n"));
    EXPECT_THAT(queue().lines(), IsEmpty());
    EXPECT_TRUE(waits());
    EXPECT_EQ(readable(listing()), "OK\\r\\n\\r\\n");
    (void)motor.receive();
    EXPECT_THAT(run(), ElementsAre("B\n"));
    EXPECT_THAT(CommandTestBench::forwardedTo(motor), ElementsAre("A\n"));
    queueUp({{1, "s3.ENC E"}});
    EXPECT_THAT(run(), ElementsAre("E\n")) << "the next walk is a whole one";
}

TEST_F(WaitingDelay, ClearsWhatIsBehindItWhenItGoesOn)
{
    queueUp({{1, "s3.MOT A|DELAY CLEAR"}, {2, "s3.ENC B"}});
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_THAT(queue().lines(), SizeIs(1));
    (void)motor.receive();
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_THAT(queue().lines(), IsEmpty());
    EXPECT_FALSE(waits());
}

TEST_F(WaitingDelay, GoesOnWithALineThatIsCut)
{
    const std::string tail(300, 'x');
    queueUp({{1, "s3.MOT A|s3.ENC " + tail}});
    run();
    (void)motor.receive();
    EXPECT_THAT(run(), ElementsAre(tail.substr(0, 255 - 16) + "\n"));
}

TEST_F(WaitingDelay, WaitsForAResetAndIsForwardedOnceWhenItFails)
{
    queueUp({{1, "RESET REINIT s3"}, {2, "s3.ENC A"}});
    (void)motor.receiveAll();
    resetResult = RESET_WAITS;
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_TRUE(waits());
    resetResult = RESET_REFUSED;
    EXPECT_THAT(run(), ElementsAre("RESET REINIT s3\n", "A\n"));
    EXPECT_FALSE(waits());
    EXPECT_THAT(resetLines, SizeIs(3));
    EXPECT_THAT(run(), IsEmpty());
}
