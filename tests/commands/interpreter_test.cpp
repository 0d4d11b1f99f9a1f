#include "commands/interpreter.h"

#include <cstring>
#include <gmock/gmock.h>
#include <string>
#include <thread>
#include <vector>

#include "common/milestone.h"
#include "tests/commands/command_test_bench.h"
#include "tests/commands/fake_clock.h"
#include "tests/support/allocation_count.h"
#include "tests/support/fake_conn.h"
#include "tests/support/readable.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;
using Texts = std::vector<std::string>;

namespace {

constexpr const char* RESET_FAILED = "Error Processing Reset Command.\r\n\r\n";
constexpr const char* DONE = "OK\r\n\r\n";
constexpr const char* DELAY_REFUSED = "Error Setting Command: Invalid Arguments.\r\n\r\n";
constexpr const char* NOBODY = "?\r\n";
constexpr std::uint32_t ALL_PORTS = PORT_COM2 | PORT_TELNET | PORT_XCP | PORT_IPC;

class Interpreter : public testing::Test {
protected:
    Interpreter()
    {
        bench.outMsg.kind = MSG_TEXT;
        bench.outMsg.sender = 4711;
        bench.context.resetDevice = [this](const char* line, const void* asker) {
            resetLines.emplace_back(line);
            resetAskers.push_back(asker);
            return resetResult;
        };
        bench.tokens.reserve(513);
    }

    int process(TPortConn* conn, std::string line, std::uint32_t tag = 0)
    {
        CmdEntry entry{tag, line.data()};
        return processCmd(bench.context, conn, &entry);
    }

    /// What the connection is told for one line.
    Texts replies(std::string line)
    {
        ipc.written.clear();
        result = process(&ipc, std::move(line));
        return ipc.written;
    }

    CommandTestBench bench;
    QueueProcess encoder{bench.directory, 2001};
    FakeConn ipc{PORT_IPC, 0xBB01'0000};
    FakeConn telnet{PORT_TELNET, 0xAA01'0000};
    int result = 0; ///< of the last line
    Texts resetLines;
    std::vector<const void*> resetAskers;
    ResetResult resetResult = RESET_REFUSED;
};

/// With a process ENC that takes every port.
class InterpreterWithEncoder : public Interpreter {
protected:
    InterpreterWithEncoder() { bench.registerProcess(2001, ALL_PORTS, "ENC"); }
};

} // namespace

TEST_F(Interpreter, DoesNothingWithoutALine)
{
    EXPECT_EQ(processCmd(bench.context, &ipc, nullptr), 1);
    const CmdEntry empty{0, nullptr};
    EXPECT_EQ(processCmd(bench.context, &ipc, &empty), 1);
    EXPECT_THAT(ipc.written, IsEmpty());
}

// --- RESET

TEST_F(Interpreter, TakesEveryLineThatBeginsWithResetForAReset)
{
    resetResult = RESET_STARTED;
    const Texts lines = {"RESET",   "reset",    "ReSeT",         "Resetting", "RESET|X",
                         "RESET A", "reset\t",  "RESETs3.ENC X", "RESET ",    "reset|delay|quit",
                         "RESET*",  "RESET $5", "RESET a b c d", "RESET.X",   "RESET REINIT s3"};
    for (const std::string& line : lines) {
        EXPECT_THAT(replies(line), IsEmpty()) << line;
        EXPECT_EQ(result, 0) << line;
    }
    EXPECT_THAT(resetLines, ElementsAreArray(lines)) << "each as it was typed";
}

TEST_F(Interpreter, ReportsAResetThatFailed)
{
    EXPECT_THAT(replies("RESET A"), ElementsAre(RESET_FAILED));
    EXPECT_EQ(result, 1);
    EXPECT_THAT(resetLines, ElementsAre("RESET A"));
}

TEST_F(InterpreterWithEncoder, DoesNotForwardAResetThatFailedForAConnection)
{
    EXPECT_THAT(replies("RESET A"), ElementsAre(RESET_FAILED));
    EXPECT_THAT(encoder.receiveTexts(), IsEmpty());
}

TEST_F(InterpreterWithEncoder, ForwardsADelayedResetThatFailed)
{
    EXPECT_EQ(process(nullptr, "RESET A|reset"), 0);
    EXPECT_THAT(resetLines, ElementsAre("RESET A|reset"));
    EXPECT_THAT(encoder.receiveTexts(), ElementsAre("RESET A\n", "reset\n"));
}

TEST_F(InterpreterWithEncoder, DoesNotForwardADelayedResetThatSucceeds)
{
    resetResult = RESET_STARTED;
    EXPECT_EQ(process(nullptr, "RESET"), 0);
    EXPECT_THAT(encoder.receiveTexts(), IsEmpty());
}

TEST_F(InterpreterWithEncoder, ForwardsWhatOnlyLooksLikeAReset)
{
    for (const std::string line : {"RESE", "RES ET", "X|RESET", "s3.ENC RESET", "*|RESET", "|RESET"})
        replies(line);
    EXPECT_THAT(resetLines, IsEmpty());
    EXPECT_THAT(encoder.receiveTexts(),
                ElementsAre("RESE\n", "RES ET\n", "X\n", "RESET\n", "RESET\n", "RESET\n", "RESET\n"));
}

TEST_F(InterpreterWithEncoder, TakesBlanksInFrontOfResetForPartOfTheLine)
{
    EXPECT_THAT(replies(" RESET"), IsEmpty());
    EXPECT_THAT(resetLines, IsEmpty());
    EXPECT_THAT(encoder.receiveTexts(), ElementsAre("RESET\n"));
}

// --- quit

TEST_F(InterpreterWithEncoder, EndsATelnetConnectionAtQuit)
{
    for (const char* line : {"quit", "quitting", "quit|s3.ENC X", "quit now"}) {
        EXPECT_EQ(process(&telnet, line), -2) << line;
        EXPECT_THAT(telnet.written, IsEmpty()) << line;
    }
    EXPECT_THAT(encoder.receiveTexts(), IsEmpty());
}

TEST_F(InterpreterWithEncoder, ForwardsOtherSpellingsOfQuitOnTelnet)
{
    for (const char* line : {"QUIT", "Quit", "qui", " quit", "X|quit"})
        EXPECT_EQ(process(&telnet, line), 0) << line;
    EXPECT_THAT(encoder.receiveTexts(), ElementsAre("QUIT\n", "Quit\n", "qui\n", "quit\n", "X\n", "quit\n"));
}

TEST_F(InterpreterWithEncoder, ForwardsQuitEverywhereElse)
{
    FakeConn com2(PORT_COM2, 0x0056'0000);
    FakeConn xcp(PORT_XCP, 0x0057'0000);
    for (TPortConn* const conn : {static_cast<TPortConn*>(&com2), static_cast<TPortConn*>(&xcp),
                                  static_cast<TPortConn*>(&ipc), static_cast<TPortConn*>(nullptr)})
        EXPECT_EQ(process(conn, "quit"), 0);
    EXPECT_THAT(encoder.receiveTexts(), ElementsAre("quit\n", "quit\n", "quit\n", "quit\n"));
}

// --- tokens

TEST_F(Interpreter, AnswersEveryTokenByItself)
{
    struct Row {
        const char* line;
        Texts replies;
    };
    const Row rows[] = {
        {"A", {NOBODY}},
        {"A|B|C", {NOBODY, NOBODY, NOBODY}},
        {"*", {"0\r\n\r\n"}},
        {" * ", {"0\r\n\r\n"}},
        {"*|*", {"0\r\n\r\n", "0\r\n\r\n"}},
        {"*|A|*", {"0\r\n\r\n", NOBODY, "0\r\n\r\n"}},
        {"* X", {NOBODY}},
        {"*.*", {NOBODY}},
        {"**", {NOBODY}},
        {"SET $5", {NOBODY}},
        {"*X Y", {NOBODY}},
        {"$GPGGA,1", {NOBODY}},
        {"$GPRMC,1,A", {NOBODY}},
        {"t1.ENC X", {NOBODY}},
        {"s3.ENC X", {NOBODY}},
        {"", {}},
        {"|", {}},
        {"||||", {}},
        {"|A||B|", {NOBODY, NOBODY}},
        {" ", {NOBODY}},
        {"A| |B", {NOBODY, NOBODY, NOBODY}},
    };
    for (const Row& row : rows) {
        EXPECT_THAT(replies(row.line), ElementsAreArray(row.replies)) << '"' << row.line << '"';
        EXPECT_EQ(result, 0) << '"' << row.line << '"';
    }
}

TEST_F(Interpreter, NotesThatItHasParsedTheAddress)
{
    for (const char* const line : {"*", "SET $5"}) { // neither is forwarded, which would note more
        g_milestone = 0;
        EXPECT_THAT(replies(line), SizeIs(1));
        EXPECT_EQ(g_milestone.load(), 35) << line;
    }
}

TEST_F(InterpreterWithEncoder, ForwardsWithoutAReply)
{
    struct Row {
        const char* line;
        Texts forwarded;
    };
    const Row rows[] = {
        {"SETX 5", {"SETX 5\n"}},
        {"s3.ENC SETX 5", {"SETX 5\n"}},
        {"*.enc SETX 5", {"SETX 5\n"}},
        {"* SETX 5", {"SETX 5\n"}},
        {"s3.ENC *", {"s3.ENC *\n"}},
        {"s3.ENC.A X", {"s3.ENC.A X\n"}},
        {"s3.ENC SET $5", {"SET $5\n"}},
        {"  s3.ENC  SETX 5 \t", {"SETX 5\n"}},
        {"A|B|C", {"A\n", "B\n", "C\n"}},
        {" A | B ", {"A\n", "B\n"}},
        {"||A||", {"A\n"}},
        {"A| |B", {"A\n", "\n", "B\n"}},
        {"*.*", {"\n"}},
        {"\xE4%s%n", {"\xE4%s%n\n"}},
    };
    for (const Row& row : rows) {
        EXPECT_THAT(replies(row.line), IsEmpty()) << '"' << row.line << '"';
        EXPECT_EQ(result, 0) << '"' << row.line << '"';
        EXPECT_THAT(encoder.receiveTexts(), ElementsAreArray(row.forwarded)) << '"' << row.line << '"';
    }
}

TEST_F(InterpreterWithEncoder, RepliesOnlyForTheTokensThatNobodyTook)
{
    EXPECT_THAT(replies("A|s3.NONE X|B|SET $5|*"), ElementsAre(NOBODY, NOBODY, "0\r\n\r\n"));
    EXPECT_THAT(encoder.receiveTexts(), ElementsAre("A\n", "B\n"));
}

TEST_F(Interpreter, SendsAPositionSentenceToTheProcessGpsd)
{
    const QueueProcess gps(bench.directory, 2002);
    bench.registerProcess(2001, ALL_PORTS, "ENC");
    bench.registerProcess(2002, ALL_PORTS, "GPSD");
    EXPECT_THAT(replies("$GPRMC,123519,A"), IsEmpty());
    EXPECT_THAT(gps.receiveTexts(), ElementsAre("MC,123519,A\n"));
    EXPECT_THAT(replies("SETX 5"), IsEmpty());
    EXPECT_THAT(gps.receiveTexts(), IsEmpty()) << "not reached by the wildcard";
    EXPECT_THAT(encoder.receiveTexts(), ElementsAre("SETX 5\n"));
}

// --- DELAY

TEST_F(InterpreterWithEncoder, QueuesDelayedCommands)
{
    struct Row {
        const char* line;
        const char* queued;
    };
    const Row rows[] = {
        {"DELAY 5.0|A|B", "A|B"}, {"delay 1:0.0|A", "A"},          {" Delay 500 | s3.ENC X ", " s3.ENC X "},
        {"DELAY 1:0.0", ""},      {"DELAY5.0|DELAY|X", "DELAY|X"},
    };
    for (const Row& row : rows) {
        EXPECT_THAT(replies(row.line), ElementsAre(DONE)) << row.line;
        EXPECT_EQ(result, 0) << row.line;
        ASSERT_EQ(bench.delayQueues.lines().size(), 1U) << row.line;
        EXPECT_EQ(bench.delayQueues.lines().begin()->second, row.queued) << row.line;
        EXPECT_THAT(replies("delay clear"), ElementsAre(DONE));
        EXPECT_THAT(bench.delayQueues.lines(), IsEmpty());
    }
    EXPECT_THAT(encoder.receiveTexts(), IsEmpty()) << "nothing is executed now";
}

TEST_F(InterpreterWithEncoder, RefusesDelaysWithoutAUsableTime)
{
    for (const char* line : {"DELAYED", "DELAY 0|X", "DELAY x|X", "DELAY -1.0|X", "DELAY 1:2:3:4:5|X", "DELAY *"}) {
        EXPECT_THAT(replies(line), ElementsAre(DELAY_REFUSED)) << line;
        EXPECT_EQ(result, 0) << line;
    }
    EXPECT_THAT(bench.delayQueues.lines(), IsEmpty());
    EXPECT_THAT(encoder.receiveTexts(), IsEmpty());
}

TEST_F(InterpreterWithEncoder, ListsDelaysAtABareDelayAndLeavesTheTokensBehindItAlone)
{
    for (const char* line : {"DELAY", "delay", " Delay "}) {
        EXPECT_THAT(replies(line), ElementsAre("OK\r\n\r\n")) << line;
        EXPECT_EQ(result, 0) << line;
    }
    EXPECT_THAT(replies("A|DELAY|B"), ElementsAre("OK\r\n\r\n"));
    EXPECT_THAT(encoder.receiveTexts(), ElementsAre("A\n"));
}

TEST_F(InterpreterWithEncoder, TakesDelayForACommandOnlyInFrontOfAToken)
{
    EXPECT_THAT(replies("s3.ENC DELAY"), IsEmpty());
    EXPECT_THAT(replies("DELA"), IsEmpty());
    EXPECT_THAT(encoder.receiveTexts(), ElementsAre("DELAY\n", "DELA\n"));
}

// --- without a connection

TEST_F(InterpreterWithEncoder, RepliesToNobodyWithoutAConnection)
{
    for (const char* line : {"s3.NONE X", "DELAY 0|X", "A|DELAY", "quit"})
        EXPECT_EQ(process(nullptr, line), 0) << line;
    EXPECT_THAT(encoder.receiveTexts(), ElementsAre("A\n", "quit\n"));
}

TEST_F(Interpreter, ForwardsWhateverTheMasksWithoutAConnection)
{
    bench.registerProcess(2001, 0x8000'0000, "ENC");
    EXPECT_THAT(replies("SETX 5"), ElementsAre(NOBODY));
    EXPECT_EQ(process(nullptr, "SETX 5", 7), 0);
    const auto received = encoder.receiveAll();
    ASSERT_EQ(received.size(), 1U);
    EXPECT_EQ(received[0].record.tag, 7U) << "no connection's ID, and the entry's tag";
}

TEST_F(InterpreterWithEncoder, HandsTheBareStarOverWithoutAConnectionAndReachesNobody)
{
    EXPECT_EQ(process(nullptr, "*"), 0);
    EXPECT_THAT(encoder.receiveTexts(), IsEmpty());
}

TEST_F(InterpreterWithEncoder, HandsARejectedTokenOverWholeWithoutAConnection)
{
    EXPECT_EQ(process(nullptr, "SET $5"), 0);
    EXPECT_THAT(encoder.receiveTexts(), IsEmpty()) << "its unit is SET";
    EXPECT_STREQ(bench.outMsg.text, "SET $5\n");
}

// --- the record

TEST_F(InterpreterWithEncoder, TagsACommandWithItsConnectionAndItsEntry)
{
    FakeConn xcp(PORT_XCP, 0x0057'0000);
    EXPECT_EQ(process(&xcp, "A|B", 0x0000'0007), 0);
    EXPECT_EQ(process(&xcp, "A", 0x0005'0007), 0);
    EXPECT_EQ(process(&ipc, "A", 0), 0);
    const auto received = encoder.receiveAll();
    ASSERT_EQ(received.size(), 4U);
    EXPECT_EQ(received[0].record.tag, 0x0057'0007U);
    EXPECT_EQ(received[1].record.tag, 0x0057'0007U);
    EXPECT_EQ(received[2].record.tag, 0x0057'0007U) << "or-ed, not added";
    EXPECT_EQ(received[3].record.tag, 0xBB01'0000U);
}

TEST_F(InterpreterWithEncoder, LeavesKindAndSenderOfTheRecordAlone)
{
    EXPECT_THAT(replies("A|*|s3.NONE X|DELAY"), testing::SizeIs(3));
    EXPECT_EQ(bench.outMsg.kind, 101U);
    EXPECT_EQ(bench.outMsg.sender, 4711);
    for (const TOrbAttachmentMsg& record : ipc.records)
        EXPECT_EQ(record.kind, 101U);
    EXPECT_EQ(encoder.receiveAll().at(0).record.kind, 101U);
}

TEST_F(InterpreterWithEncoder, SendsTheBodyALineFeedAndANul)
{
    for (const std::string& body : {std::string("X"), std::string("SETX 5"), std::string(1000, 'x')}) {
        EXPECT_EQ(process(&ipc, "s3.ENC " + body), 0);
        const auto received = encoder.receive();
        ASSERT_TRUE(received);
        EXPECT_EQ(received->length, body.size() + 18);
        EXPECT_EQ(received->textBytes(), body + '\n' + '\0');
        EXPECT_EQ(bench.outLen, static_cast<std::int32_t>(body.size()) + 18);
    }
}

TEST_F(InterpreterWithEncoder, CutsATokenTo1023Characters)
{
    for (const std::size_t length : {1022U, 1023U, 1024U, 1025U, 5000U}) {
        const std::string token(length, 'x');
        EXPECT_EQ(process(&ipc, token + "|Y"), 0);
        EXPECT_THAT(encoder.receiveTexts(), ElementsAre(token.substr(0, 1023) + "\n", "Y\n")) << length;
    }
}

TEST_F(InterpreterWithEncoder, CutsATokenBeforeItLooksAtItsAddress)
{
    EXPECT_EQ(process(&ipc, "s3.ENC " + std::string(2000, 'x')), 0);
    EXPECT_THAT(encoder.receiveTexts(), ElementsAre(std::string(1016, 'x') + "\n"));
    EXPECT_THAT(replies(std::string(1023, 'x') + " $"), IsEmpty()) << "the dollar is cut off";
    EXPECT_EQ(encoder.receiveAll().size(), 1U);
}

TEST_F(InterpreterWithEncoder, TakesManyTokens)
{
    std::string line;
    for (int i = 0; i < 512; ++i)
        line += i == 0 ? "s3.NONE X" : "|*";
    EXPECT_EQ(replies(line).size(), 512U);
    EXPECT_EQ(ipc.written.front(), NOBODY);
    EXPECT_EQ(ipc.written.back(), "0\r\n\r\n");
}

// --- failures of others

TEST_F(Interpreter, AnswersForAProcessThatDied)
{
    bench.registerProcess(2001, ALL_PORTS, "ENC");
    encoder.die();
    EXPECT_THAT(replies("s3.ENC X"), ElementsAre(NOBODY)) << "without a wait";
}

TEST_F(Interpreter, GoesOnWhenAReplyCannotBeWritten)
{
    ipc.writeResult = 1;
    EXPECT_THAT(replies("A|B"), ElementsAre(NOBODY, NOBODY));
    EXPECT_EQ(result, 0);
}

// --- lines that wait

namespace {

/// With three processes whose queues are filled at will, and a time that a test lets pass.
class WaitingLine : public Interpreter {
protected:
    WaitingLine()
    {
        bench.registerProcess(2001, ALL_PORTS, "ENC");
        bench.registerProcess(2002, ALL_PORTS, "MOT");
        bench.registerProcess(2003, ALL_PORTS, "CAM");
    }

    void expectAtItsStart(const CmdProgress& progress)
    {
        EXPECT_FALSE(progress.waits());
        EXPECT_EQ(progress.token, 0U);
        EXPECT_FALSE(progress.pastReset);
        EXPECT_EQ(progress.queueWaiter.address, 0);
    }

    /// What is left of other commands in between.
    void spoilRecord()
    {
        FakeConn other(PORT_XCP, 0x0058'0000);
        EXPECT_EQ(process(&other, "t1.NONE spoilt", 0x77), 0);
        EXPECT_THAT(other.written, ElementsAre(NOBODY));
        bench.outMsg.tag = 0xFFFF'FFFF; // as an XCP connection leaves it
    }

    static Texts forwardedTo(const QueueProcess& process) { return CommandTestBench::forwardedTo(process); }

    QueueProcess motor{bench.directory, 2002};
    QueueProcess camera{bench.directory, 2003};
    StoppedTime time;
};

} // namespace

TEST_F(WaitingLine, GoesOnExactlyWhereItLeftOff)
{
    const Texts lines = {
        "s3.ENC A|s3.MOT B|s3.CAM C", "s3.ENC A|s3.MOT B|DELAY 60.0|s3.ENC later",
        "* A|s3.MOT B|s3.CAM C",      "*|SET $5|s3.ENC A|s3.MOT B|*|t1.ENC",
        "||s3.MOT B||s3.ENC A|",      "s3.NONE A|s3.MOT B|s3.NONE C",
    };
    for (const std::string& line : lines) {
        SCOPED_TRACE(line);
        const auto outcome = [&] {
            std::vector<Texts> all = {ipc.written, encoder.receiveTexts(), forwardedTo(motor), camera.receiveTexts()};
            ipc.written.clear();
            for (const auto& [due, delayed] : bench.delayQueues.lines())
                all.back().push_back(delayed);
            bench.delayQueues.clear();
            return all;
        };
        EXPECT_EQ(process(&ipc, line), 0);
        const std::vector<Texts> expected = outcome();

        CommandTestBench::fill(2002);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(process(&ipc, line), CMD_WAITS);
            EXPECT_EQ(ipc.progress.wait, CmdProgress::Wait::room);
            spoilRecord();
        }
        (void)motor.receiveAll();
        EXPECT_EQ(process(&ipc, line), 0);
        expectAtItsStart(ipc.progress);
        EXPECT_EQ(outcome(), expected);
    }
}

TEST_F(WaitingLine, WaitsAtEveryTokenThatHasTo)
{
    const std::string line = "s3.ENC A|s3.MOT B|s3.MOT C|s3.ENC D";
    CommandTestBench::fill(2001);
    CommandTestBench::fill(2002);
    EXPECT_EQ(process(&ipc, line), CMD_WAITS);
    (void)encoder.receive();
    EXPECT_EQ(process(&ipc, line), CMD_WAITS);
    (void)motor.receive();
    EXPECT_EQ(process(&ipc, line), CMD_WAITS);
    (void)motor.receive();
    EXPECT_EQ(process(&ipc, line), CMD_WAITS);
    (void)encoder.receive();
    EXPECT_EQ(process(&ipc, line), 0);
    EXPECT_THAT(forwardedTo(encoder), ElementsAre("A\n", "D\n"));
    EXPECT_THAT(forwardedTo(motor), ElementsAre("B\n", "C\n"));
    EXPECT_THAT(ipc.written, IsEmpty());
    expectAtItsStart(ipc.progress);
}

TEST_F(WaitingLine, IsAnsweredForEveryTokenOfAStuckProcessAndWaitsOnce)
{
    const std::string line = "s3.MOT A|s3.MOT B|s3.ENC C|s3.MOT D";
    CommandTestBench::fill(2002);
    EXPECT_EQ(process(&ipc, line), CMD_WAITS);
    time.pass(FullQueues::PATIENCE - std::chrono::nanoseconds(1));
    EXPECT_EQ(process(&ipc, line), CMD_WAITS);
    time.pass(std::chrono::nanoseconds(1));
    EXPECT_EQ(process(&ipc, line), 0);
    EXPECT_THAT(ipc.written, ElementsAre(NOBODY, NOBODY, NOBODY));
    EXPECT_THAT(encoder.receiveTexts(), ElementsAre("C\n"));
    expectAtItsStart(ipc.progress);
    EXPECT_THAT(replies("s3.MOT E"), ElementsAre(NOBODY)) << "at once";
    EXPECT_THAT(forwardedTo(motor), IsEmpty());
    EXPECT_THAT(replies("s3.MOT F"), IsEmpty());
    EXPECT_THAT(forwardedTo(motor), ElementsAre("F\n")) << "it reads again";
}

TEST_F(WaitingLine, KeepsTheTagOfItsConnectionAndItsEntry)
{
    FakeConn xcp(PORT_XCP, 0x0057'0000);
    CommandTestBench::fill(2002);
    EXPECT_EQ(process(&xcp, "* A|s3.MOT B", 0x0005'0007), CMD_WAITS);
    spoilRecord();
    (void)motor.receiveAll();
    EXPECT_EQ(process(&xcp, "* A|s3.MOT B", 0x0005'0007), 0);
    std::vector<std::uint32_t> tags;
    for (const QueueProcess* const queue : {&encoder, &motor, &camera})
        for (const Received& received : queue->receiveAll())
            tags.push_back(received.record.tag);
    EXPECT_THAT(tags, ElementsAre(0x0057'0007U, 0x0057'0007U, 0x0057'0007U, 0x0057'0007U));
}

TEST_F(WaitingLine, ReachesTheRestOfABroadcastOnce)
{
    CommandTestBench::fill(2002);
    EXPECT_EQ(process(&ipc, "X|*"), CMD_WAITS);
    EXPECT_THAT(encoder.receiveTexts(), ElementsAre("X\n"));
    EXPECT_THAT(camera.receiveTexts(), IsEmpty());
    (void)motor.receive();
    EXPECT_EQ(process(&ipc, "X|*"), 0);
    EXPECT_THAT(encoder.receiveTexts(), IsEmpty());
    EXPECT_THAT(forwardedTo(motor), ElementsAre("X\n"));
    EXPECT_THAT(camera.receiveTexts(), ElementsAre("X\n"));
    EXPECT_THAT(ipc.written, ElementsAre("0\r\n\r\n"));
}

TEST_F(WaitingLine, LeavesAStuckProcessOutOfABroadcast)
{
    CommandTestBench::fill(2002);
    EXPECT_EQ(process(&ipc, "X"), CMD_WAITS);
    time.pass(FullQueues::PATIENCE);
    EXPECT_EQ(process(&ipc, "X"), 0);
    EXPECT_THAT(ipc.written, IsEmpty()) << "the last send decides";
    EXPECT_THAT(encoder.receiveTexts(), ElementsAre("X\n"));
    EXPECT_THAT(camera.receiveTexts(), ElementsAre("X\n"));
}

TEST_F(WaitingLine, OfOneClientDoesNotHoldAnother)
{
    CommandTestBench::fill(2002);
    EXPECT_EQ(process(&ipc, "s3.MOT A"), CMD_WAITS);
    EXPECT_EQ(process(&telnet, "s3.ENC B|*"), 0);
    EXPECT_THAT(encoder.receiveTexts(), ElementsAre("B\n"));
    EXPECT_EQ(process(&telnet, "s3.MOT C"), CMD_WAITS) << "behind the first one";
    (void)motor.receive();
    EXPECT_EQ(process(&telnet, "s3.MOT C"), CMD_WAITS) << "it is not its turn";
    EXPECT_EQ(process(&ipc, "s3.MOT A"), 0);
    (void)motor.receive();
    EXPECT_EQ(process(&telnet, "s3.MOT C"), 0);
    EXPECT_THAT(forwardedTo(motor), ElementsAre("A\n", "C\n"));
}

TEST_F(WaitingLine, WaitsForAReset)
{
    resetResult = RESET_WAITS;
    for (int i = 0; i < 2; ++i) {
        EXPECT_THAT(replies("RESET REINIT s3"), IsEmpty());
        EXPECT_EQ(result, CMD_WAITS);
        EXPECT_EQ(ipc.progress.wait, CmdProgress::Wait::reInit);
    }
    for (const ResetResult end : {RESET_STARTED, RESET_REFUSED}) {
        resetResult = end;
        if (end == RESET_STARTED)
            EXPECT_THAT(replies("RESET REINIT s3"), IsEmpty());
        else
            EXPECT_THAT(replies("RESET REINIT s3"), ElementsAre(RESET_FAILED));
        EXPECT_EQ(result, end == RESET_STARTED ? 0 : 1);
        expectAtItsStart(ipc.progress);
        resetResult = RESET_WAITS;
        replies("RESET REINIT s3");
    }
    EXPECT_THAT(resetAskers, testing::Each(resetAskers.front())) << "the same asker each time";
    EXPECT_THAT(encoder.receiveTexts(), IsEmpty());
}

TEST_F(WaitingLine, TellsOneAskerForAResetFromAnother)
{
    resetResult = RESET_WAITS;
    replies("RESET REINIT s3");
    resetResult = RESET_REFUSED;
    EXPECT_EQ(process(&telnet, "RESET REINIT s3"), 1);
    EXPECT_THAT(telnet.written, ElementsAre(RESET_FAILED));
    expectAtItsStart(telnet.progress);
    EXPECT_EQ(process(nullptr, "RESET REINIT s3"), 0);
    ASSERT_THAT(resetAskers, SizeIs(3));
    EXPECT_NE(resetAskers[0], resetAskers[1]);
    EXPECT_NE(resetAskers[0], resetAskers[2]);
    EXPECT_NE(resetAskers[1], resetAskers[2]);
    EXPECT_TRUE(ipc.progress.waits()) << "the first one still does";
}

TEST_F(WaitingLine, IsForwardedOnceAfterADelayedResetThatFails)
{
    const std::string line = "RESET REINIT s3|reset|X";
    resetResult = RESET_WAITS;
    EXPECT_EQ(process(nullptr, line), CMD_WAITS);
    resetResult = RESET_REFUSED;
    CommandTestBench::fill(2002);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(process(nullptr, line), CMD_WAITS);
    EXPECT_THAT(resetLines, SizeIs(2)) << "not asked again while it is forwarded";
    (void)motor.receive();
    (void)motor.receive();
    (void)motor.receive();
    EXPECT_EQ(process(nullptr, line), 0);
    EXPECT_THAT(resetLines, SizeIs(2));
    for (const QueueProcess* const queue : {&encoder, &motor, &camera})
        EXPECT_THAT(forwardedTo(*queue), ElementsAre("RESET REINIT s3\n", "reset\n", "X\n"));
    expectAtItsStart(bench.delayedLine.progress);
    EXPECT_EQ(process(nullptr, "RESET"), 0);
    EXPECT_THAT(resetLines, SizeIs(3)) << "the next line is one of its own";
}

// --- costs

TEST_F(InterpreterWithEncoder, AllocatesNothingForACommand)
{
    /// Keeps nothing of what is written.
    class SilentConn : public FakeConn {
    public:
        using FakeConn::FakeConn;
        int write(TOrbAttachmentMsg*) override
        {
            ++writes;
            return 0;
        }
        int writes = 0;
    };
    SilentConn conn(PORT_IPC, 0xBB01'0000);
    char lines[][48] = {"s3.ENC SETX 5", "SETX 5|GETX|*|s3.NONE X", "A|B|C", "$GPRMC,1", "SET $5", "*"};
    const auto processAll = [&] {
        for (char* const line : lines) {
            const CmdEntry entry{0, line};
            processCmd(bench.context, &conn, &entry);
        }
    };
    processAll();
    encoder.receiveAll();
    const unsigned before = allocationCount();
    processAll();
    EXPECT_EQ(allocationCount() - before, 0U);
    EXPECT_EQ(encoder.receiveAll().size(), 6U);
    EXPECT_EQ(conn.writes, 10) << "the lines are meant to do something";
}
