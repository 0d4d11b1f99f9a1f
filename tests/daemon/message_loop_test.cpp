#include <cstring>
#include <fstream>
#include <gmock/gmock.h>
#include <iterator>
#include <thread>

#include "common/milestone.h"
#include "framework/tess_messages.h"
#include "tests/daemon/daemon_test_bench.h"
#include "tests/daemon/fake_restart.h"
#include "tests/support/allocation_count.h"
#include "tests/support/private_mounts.h"
#include "tests/support/readable.h"
#include "tests/support/waiting.h"

using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* REGISTERED = "Process register operation successful";
constexpr const char* NOTHING_ENABLED = "Command register request with nothing enabled";
constexpr const char* REGISTRY_FULL = "Max # of registered processes reached";
constexpr const char* NO_MEMORY = "Couldn't allocate memory for process register request";
constexpr const char* UNREGISTERED = "Process unregister operation successful";
constexpr const char* REGISTRY_EMPTY = "Registered process list is empty";
constexpr const char* NOT_REGISTERED = "Process not found in registered process list";
constexpr const char* REFUSED = "Error Processing RESET Command\r\n\r\n";
constexpr std::uint32_t FAILURE = 0xFFFF'FFFF;

const LogLine resetReceived{250003, "Received RESET command."};

class MessageLoop : public testing::Test {
protected:
    /// The daemon's one answer to a message.
    Received answerTo(const Outgoing& request)
    {
        bench.serve(process, request);
        const auto answers = process.receiveAll();
        EXPECT_EQ(answers.size(), 1U);
        return answers.empty() ? Received{} : answers[0];
    }

    static void expectAnswer(const Received& answer, std::uint32_t tag, const std::string& text)
    {
        EXPECT_EQ(answer.record.kind, 102U);
        EXPECT_EQ(answer.record.tag, tag);
        EXPECT_EQ(answer.record.len, 0);
        EXPECT_EQ(answer.text(), text);
        EXPECT_EQ(answer.length, text.size() + 17);
    }

    DaemonTestBench bench;
    QueueProcess process{bench.directory, 2001};
};

} // namespace

// --- register, unregister

TEST_F(MessageLoop, AnswersARegistration)
{
    expectAnswer(answerTo(registration(8, "ENC")), 0, REGISTERED);
    ASSERT_EQ(bench.peer.regProcs().size(), 1U);
    EXPECT_EQ(bench.peer.regProcs()[0]->procId, 2001);
    EXPECT_EQ(bench.peer.regProcs()[0]->portMask, 8U);
    EXPECT_EQ(bench.peer.regProcs()[0]->name, "ENC");
}

TEST_F(MessageLoop, AnswersARegistrationWithNothingEnabled)
{
    expectAnswer(answerTo(registration(0, "ENC")), FAILURE, NOTHING_ENABLED);
}

TEST_F(MessageLoop, AnswersARegistrationThatFindsTheListFull)
{
    for (int i = 0; i < 32; ++i)
        bench.registerProcess(3000 + i, 8, "P" + std::to_string(i));
    expectAnswer(answerTo(registration(8, "ENC")), FAILURE, REGISTRY_FULL);
}

TEST_F(MessageLoop, AnswersARegistrationThatThereIsNoMemoryFor)
{
    for (const Outgoing& request : {registration(8, "ENC"), message(MSG_STOP)})
        ASSERT_TRUE(process.send(TESS_QUEUE_ID, request.record, request.length));
    {
        const NoMemory noMemory(NoMemory::EVERYBODY);
        (void)bench.tess->run(); // always 0
    }
    const auto answer = process.receive();
    ASSERT_TRUE(answer);
    expectAnswer(*answer, FAILURE, NO_MEMORY);
    EXPECT_THAT(bench.peer.regProcs(), IsEmpty());
    expectAnswer(answerTo(registration(8, "ENC")), 0,
                 REGISTERED + std::string(NO_MEMORY).substr(std::strlen(REGISTERED)));
}

TEST_F(MessageLoop, AnswersUnregistrations)
{
    expectAnswer(answerTo(message(MSG_UNREGISTER)), FAILURE, REGISTRY_EMPTY);
    bench.registerProcess(2002, 8, "OTHER");
    expectAnswer(answerTo(message(MSG_UNREGISTER)), FAILURE, NOT_REGISTERED);
    bench.registerProcess(2001, 8, "ENC");
    // 44 characters were there before, 39 come.
    expectAnswer(answerTo(message(MSG_UNREGISTER)), 0, UNREGISTERED + std::string(NOT_REGISTERED).substr(39));
    ASSERT_EQ(bench.peer.regProcs().size(), 1U);
    EXPECT_EQ(bench.peer.regProcs()[0]->name, "OTHER");
}

TEST_F(MessageLoop, LeavesTheTailOfALongerAnswerInAShorterOne)
{
    expectAnswer(answerTo(registration(0, "ENC")), FAILURE, NOTHING_ENABLED);
    expectAnswer(answerTo(registration(8, "ENC")), 0, "Process register operation successful enabled");
    expectAnswer(answerTo(message(MSG_UNREGISTER)), 0, "Process unregister operation successfulnabled");
    expectAnswer(answerTo(message(MSG_UNREGISTER)), FAILURE, "Registered process list is emptycessfulnabled");
}

TEST_F(MessageLoop, TakesTheSenderFromTheQueueAndNotFromTheRecord)
{
    Outgoing forged = registration(8, "ENC");
    forged.record.sender = 4711;
    expectAnswer(answerTo(forged), 0, REGISTERED);
    EXPECT_EQ(bench.peer.regProcs().at(0)->procId, 2001);
}

TEST_F(MessageLoop, ReadsWhatAShortRegistrationLacksAsZero)
{
    struct Row {
        const char* behaviour;
        std::size_t length;
        const char* answer;
    };
    const Row rows[] = {
        {"no mask", 16, NOTHING_ENABLED},
        {"a mask and no name", 20, REGISTERED},
        {"a mask and a NUL", 21, REGISTERED},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        bench.serve(process, registration(8, std::string(100, 'x'))); // leaves its name in the record
        process.receiveAll();
        bench.peer.clearRegistry();
        bench.peer.replyMsg() = {};

        Outgoing request = registration(0x0808'0808, "");
        request.length = row.length;
        const Received answer = answerTo(request);
        EXPECT_EQ(answer.text(), row.answer);
        if (row.length > 16) {
            EXPECT_EQ(bench.peer.regProcs().at(0)->name, "");
        }
    }
}

TEST_F(MessageLoop, TakesANameWithoutNulThatEndsWithTheRecord)
{
    const std::string longest(8172, 'n');
    Outgoing request = registration(8, longest, false);
    ASSERT_EQ(request.length, 8192U);
    expectAnswer(answerTo(request), 0, REGISTERED);
    EXPECT_EQ(bench.peer.regProcs().at(0)->name, longest);
}

// --- answers for connections

TEST_F(MessageLoop, WritesAnAnswerToTheConnectionThatAsked)
{
    const FakeConn& first = bench.addConn(8, 0xBB01'0000);
    const FakeConn& second = bench.addConn(8, 0xBB02'0000);
    bench.serve(process, message(MSG_REPLY, "X=5\r\n", 0xBB02'0007));
    EXPECT_THAT(first.written, IsEmpty());
    EXPECT_THAT(second.written, ElementsAre("X=5\r\n"));
    EXPECT_EQ(second.records.at(0).tag, 0xBB02'0007U) << "the client's tag is for the connection to send";
    EXPECT_THAT(process.receiveAll(), IsEmpty()) << "nobody answers an answer";
    EXPECT_TRUE(LockProbe(bench.peer.connLock()).takenWithin(DEADLINE));
}

TEST_F(MessageLoop, WritesAnAnswerToTheFirstConnectionOfThatIdOnly)
{
    const FakeConn& first = bench.addConn(1, 0x0057'0000);
    const FakeConn& second = bench.addConn(4, 0x0057'0000);
    bench.serve(process, message(MSG_REPLY, "X", 0x0057'0000));
    EXPECT_THAT(first.written, ElementsAre("X"));
    EXPECT_THAT(second.written, IsEmpty());
}

TEST_F(MessageLoop, DropsAnAnswerForNobodySilently)
{
    const FakeConn& conn = bench.addConn(8, 0xBB01'0000);
    for (const std::uint32_t tag : {0U, 0xBB03'0000U, 0x0000'BB01U, 0xFFFF'FFFFU})
        bench.serve(process, message(MSG_REPLY, "X", tag));
    EXPECT_THAT(conn.written, IsEmpty());
    EXPECT_THAT(bench.log.lines(), IsEmpty());
}

TEST_F(MessageLoop, EndsTheTextOfAnAnswerWhereItsRecordEnds)
{
    const FakeConn& conn = bench.addConn(8, 0xBB01'0000);
    bench.serve(process, message(MSG_REPLY, std::string(3000, 'x'), 0xBB01'0000));
    Outgoing withoutNul = message(MSG_REPLY, "short", 0xBB01'0000);
    withoutNul.length -= 1;
    bench.serve(process, withoutNul);
    Outgoing headerOnly = message(MSG_REPLY, "", 0xBB01'0000);
    headerOnly.length = 16;
    bench.serve(process, headerOnly);
    Outgoing full = message(MSG_REPLY, "", 0xBB01'0000);
    std::memset(full.record.text, 'y', sizeof full.record.text);
    full.length = 8192;
    bench.serve(process, full);
    Outgoing afterNul = message(MSG_REPLY, "first\0second"s, 0xBB01'0000);
    bench.serve(process, afterNul);
    EXPECT_THAT(conn.written, ElementsAre(std::string(3000, 'x'), "short", "", std::string(8175, 'y'), "first"));
}

TEST_F(MessageLoop, ErasesNullConnectionsWhenItLooksForOne)
{
    bench.peer.conns().push_back(nullptr);
    const FakeConn& conn = bench.addConn(8, 0xBB01'0000);
    bench.serve(process, message(MSG_REPLY, "X", 0xBB01'0000));
    EXPECT_THAT(conn.written, ElementsAre("X"));
    EXPECT_EQ(bench.peer.conns().size(), 1U);
}

TEST_F(MessageLoop, GoesOnWhenAnAnswerCannotBeWritten)
{
    FakeConn& conn = bench.addConn(8, 0xBB01'0000);
    conn.writeResult = 1;
    bench.serve(process, message(MSG_REPLY, "X", 0xBB01'0000));
    expectAnswer(answerTo(registration(8, "ENC")), 0, REGISTERED);
    EXPECT_EQ(bench.peer.conns().size(), 1U) << "whose end the service thread finds out";
}

// --- closing

TEST_F(MessageLoop, ClosesAllConnections)
{
    bench.addConn(8, 0xBB01'0000, "ipc");
    bench.peer.conns().push_back(nullptr);
    bench.addConn(2, 0xAA01'0000, "telnet");
    bench.serve(process, message(MSG_CLOSE_ALL));
    EXPECT_THAT(bench.events, ElementsAre("ipc gone", "telnet gone"));
    EXPECT_THAT(bench.peer.conns(), IsEmpty());
    EXPECT_THAT(bench.log.lines(), ElementsAre(LogLine{36201, "Closing all connections!"}));
    EXPECT_THAT(process.receiveAll(), IsEmpty());
}

TEST_F(MessageLoop, ClosesTelnetConnections)
{
    bench.addPort(2);
    bench.addConn(8, 0xBB01'0000, "ipc");
    bench.addConn(2, 0xAA01'0000, "telnet 1");
    bench.addConn(2, 0xAA02'0000, "telnet 2");
    bench.serve(process, message(MSG_CLOSE_TELNET));
    EXPECT_THAT(bench.events, ElementsAre("telnet 1 gone", "telnet 2 gone"));
    EXPECT_THAT(bench.log.lines(), ElementsAre(LogLine{36201, "Closing all telnet connections!"}));
    EXPECT_THAT(process.receiveAll(), IsEmpty());
}

// --- the serial line

TEST_F(MessageLoop, AnswersASerialWriteWithoutASerialConnectionByWhatItReceived)
{
    Received answer = answerTo(message(MSG_COM2_WRITE, "bytes", 0x1234'5678, 5));
    EXPECT_EQ(answer.record.kind, 0U) << "the kind of the answer before it: there was none";
    EXPECT_EQ(answer.record.tag, 0x1234'5678U);
    EXPECT_EQ(answer.record.len, 1);
    EXPECT_EQ(answer.length, 22U) << "the length received";

    answerTo(registration(8, "ENC"));
    answer = answerTo(message(MSG_COM2_WRITE, "bytes", 7, 5));
    EXPECT_EQ(answer.record.kind, 102U);
    EXPECT_EQ(answer.record.tag, 7U);
    EXPECT_EQ(answer.record.len, 1);
    EXPECT_EQ(answer.textBytes(), "Proces") << "as much of the answer before it as was received";
}

TEST_F(MessageLoop, WritesBytesToTheSerialLine)
{
    if (!privateMountsProblem().empty()) GTEST_SKIP() << privateMountsProblem();
    struct Row {
        const char* behaviour;
        std::int32_t len;
        std::string written;
    };
    const Row rows[] = {
        {"some of the text", 3, "byt"},
        {"NULs too", 9, "bytes\0\0\0\0"s},
        {"nothing", 0, ""},
        {"a negative number is none", -1, ""},
        {"the most negative number is none", INT32_MIN, ""},
        {"the most that a record holds", 8176, "bytes" + std::string(8171, '\0')},
        {"more than a record holds", 8177, "bytes" + std::string(8171, '\0')},
        {"far more than a record holds", INT32_MAX, "bytes" + std::string(8171, '\0')},
    };
    FakeConn& serial = bench.addConn(1, 0x0056'0000);
    serial.makeSerial();
    const FakeConn& other = bench.addConn(8, 0xBB01'0000);
    int mutes = 0;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        bench.serve(process, message(MSG_REPLY, std::string(8000, 'x'), 0)); // must not show in what follows
        std::ofstream(COM2_DEVICE, std::ios::trunc).flush();
        const Received answer = answerTo(message(MSG_COM2_WRITE, "bytes", 0x1234'5678, row.len));
        EXPECT_EQ(answer.record.kind, 102U);
        EXPECT_EQ(answer.record.tag, 0x1234'5678U);
        EXPECT_EQ(answer.record.len, 0);
        EXPECT_EQ(answer.length, 16U);
        std::ifstream line(COM2_DEVICE);
        EXPECT_EQ(readable(std::string(std::istreambuf_iterator<char>(line), {})), readable(row.written));
        EXPECT_EQ(serial.mutes, ++mutes);
        EXPECT_EQ(other.mutes, 0);
    }
    ::unlink(COM2_DEVICE);
}

TEST_F(MessageLoop, ReportsASerialLineThatCannotBeOpened)
{
    if (!privateMountsProblem().empty()) GTEST_SKIP() << privateMountsProblem();
    FakeConn& serial = bench.addConn(1, 0x0056'0000);
    serial.makeSerial();
    bench.peer.conns().insert(bench.peer.conns().begin(), nullptr);
    const Received answer = answerTo(message(MSG_COM2_WRITE, "bytes", 7, 5));
    EXPECT_EQ(answer.record.kind, 102U);
    EXPECT_EQ(answer.record.len, 1);
    EXPECT_EQ(answer.length, 16U);
    EXPECT_EQ(serial.mutes, 1);
    EXPECT_EQ(bench.peer.conns().size(), 1U) << "null entries are erased";
}

// --- reset

TEST_F(MessageLoop, AnswersAResetThatWasStarted)
{
    FakeRestart system;
    EXPECT_EQ(answerTo(message(MSG_COM2_WRITE, "", 0x1234'5678)).record.len, 1) << "there is no serial line";
    const Received answer = answerTo(message(MSG_RESET, "RESET", 7, 9));
    EXPECT_EQ(answer.record.kind, 102U);
    EXPECT_EQ(answer.record.tag, 0x1234'5678U) << "of the answer before it";
    EXPECT_EQ(answer.record.len, 1) << "of the answer before it";
    EXPECT_EQ(answer.length, 22U) << "the length received";
    EXPECT_EQ(answer.textBytes(), "OK\r\n\r\n");
    EXPECT_THAT(system.calls, ElementsAre("fork"));
    EXPECT_THAT(bench.log.lines(), ElementsAre(resetReceived));
}

TEST_F(MessageLoop, TakesAnyOneWordForAReset)
{
    FakeRestart system;
    const Received answer = answerTo(message(MSG_RESET, "anything"));
    EXPECT_EQ(answer.text(), "OK\r\n\r\n");
    EXPECT_THAT(system.calls, ElementsAre("fork"));
}

TEST_F(MessageLoop, AnswersAResetThatIsRefused)
{
    FakeRestart system;
    answerTo(registration(0, "ENC"));
    const Outgoing request = message(MSG_RESET, "RESET with too many words for it", 7, 9);
    const Received answer = answerTo(request);
    EXPECT_EQ(answer.record.kind, 102U);
    EXPECT_EQ(answer.record.tag, FAILURE) << "of the answer before it";
    EXPECT_EQ(answer.record.len, 0);
    EXPECT_EQ(answer.length, request.length);
    EXPECT_EQ(answer.textBytes(), std::string(REFUSED).substr(0, request.length - 16)) << "cut to that length";
    EXPECT_EQ(std::string(bench.peer.replyMsg().text), REFUSED) << "with its NUL";
    EXPECT_THAT(system.calls, IsEmpty());
    EXPECT_THAT(bench.log.lines(), ElementsAre(resetReceived));
}

TEST_F(MessageLoop, RefusesAResetWithoutAWord)
{
    FakeRestart system;
    Outgoing empty = message(MSG_RESET);
    empty.length = 16;
    EXPECT_EQ(answerTo(empty).length, 16U);
    EXPECT_EQ(std::string(bench.peer.replyMsg().text), REFUSED);
    EXPECT_THAT(system.calls, IsEmpty());
}

TEST_F(MessageLoop, TakesAFullRecordWithoutNulForAReset)
{
    FakeRestart system;
    Outgoing full = message(MSG_RESET);
    std::memset(full.record.text, 'R', sizeof full.record.text);
    full.length = 8192;
    const Received answer = answerTo(full);
    EXPECT_EQ(answer.length, 8192U);
    EXPECT_EQ(answer.text(), "OK\r\n\r\n");
}

// --- the loop

TEST_F(MessageLoop, IgnoresOtherKinds)
{
    const FakeConn& conn = bench.addConn(8, 0);
    for (const std::uint32_t kind : {0U, 1U, 99U, 101U, 103U, 199U, 206U, 0x6600'0000U, 0xFFFF'FFFFU})
        bench.serve(process, message(kind, "RESET"));
    EXPECT_THAT(process.receiveAll(), IsEmpty());
    EXPECT_THAT(bench.log.lines(), IsEmpty());
    EXPECT_THAT(conn.written, IsEmpty());
}

TEST_F(MessageLoop, EndsAtAStopMessageWithoutStoppingTheServiceThread)
{
    const Outgoing stop = message(MSG_STOP);
    const Outgoing after = registration(8, "ENC");
    ASSERT_TRUE(process.send(TESS_QUEUE_ID, stop.record, stop.length));
    ASSERT_TRUE(process.send(TESS_QUEUE_ID, after.record, after.length));
    EXPECT_EQ(bench.tess->run(), 0);
    EXPECT_EQ(bench.peer.stopRequested(), 0);
    EXPECT_EQ(g_milestone.load(), 16);
    EXPECT_THAT(bench.peer.regProcs(), IsEmpty()) << "what comes after it is not looked at";
}

TEST_F(MessageLoop, EndsWhenAskedToStop)
{
    bench.tess->requestStop();
    const Outgoing unread = registration(8, "ENC");
    ASSERT_TRUE(process.send(TESS_QUEUE_ID, unread.record, unread.length));
    EXPECT_EQ(bench.tess->run(), 0);
    EXPECT_THAT(bench.peer.regProcs(), IsEmpty());
}

TEST_F(MessageLoop, EndsSoonWhenAskedToStopWhileItWaits)
{
    std::thread loop([this] { bench.tess->run(); });
    ASSERT_TRUE(process.send(TESS_QUEUE_ID, registration(8, "ENC").record, 24));
    EXPECT_TRUE(process.receive());
    const Stopwatch watch;
    bench.tess->requestStop();
    loop.join();
    EXPECT_LT(watch.ms(), atMost(5000));
}

TEST_F(MessageLoop, GoesOnAfterASenderThatTakesNoAnswer)
{
    {
        const QueueProcess gone(bench.directory, 2002);
        const Outgoing request = registration(8, "GONE");
        ASSERT_TRUE(gone.send(TESS_QUEUE_ID, request.record, request.length));
    }
    expectAnswer(answerTo(registration(8, "ENC")), 0, REGISTERED);
    EXPECT_EQ(bench.peer.regProcs().size(), 2U);
}

TEST_F(MessageLoop, AnswersRequestsInOrder)
{
    for (int i = 0; i < 4; ++i) {
        const Outgoing in = registration(8, "P" + std::to_string(i));
        ASSERT_TRUE(process.send(TESS_QUEUE_ID, in.record, in.length));
        const Outgoing out = message(MSG_COM2_WRITE, "", static_cast<std::uint32_t>(i));
        ASSERT_TRUE(process.send(TESS_QUEUE_ID, out.record, out.length));
    }
    bench.serveQueue();
    const auto answers = process.receiveAll();
    ASSERT_EQ(answers.size(), 8U);
    for (std::uint32_t i = 0; i < 4; ++i) {
        EXPECT_EQ(answers[2 * i].text(), REGISTERED);
        EXPECT_EQ(answers[2 * i + 1].record.tag, i);
        EXPECT_EQ(answers[2 * i + 1].record.len, 1);
    }
}
