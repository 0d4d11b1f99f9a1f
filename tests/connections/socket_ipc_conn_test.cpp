#include "connections/socket_ipc_conn.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <string>
#include <vector>

#include "tests/support/broken_pipes.h"
#include "tests/support/conn_fixture.h"
#include "tests/support/conn_texts.h"
#include "tests/support/log_capture.h"
#include "tests/support/readable.h"
#include "tests/support/sleeps.h"
#include "tests/support/stream_pair.h"
#include "tests/support/waiting.h"

using namespace std::string_literals;
using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

const LogLine discarded{250003, "Full cmd buffer (>1k) without a newline received. Discarding"};

class SocketIpcConn : public StreamConnFixture<TSocketIPCConn> {
protected:
    SocketIpcConn() : StreamConnFixture(8, 0xBB01'0000) {}
};

} // namespace

TEST_F(SocketIpcConn, StartsLoggedInWithItsEchoFlagSet)
{
    expectStartsLoggedIn(8, 0xBB01'0000);
}

TEST_F(SocketIpcConn, YieldsNothingWhileNothingHasArrived)
{
    EXPECT_THAT(readLines(), ElementsAre());
    EXPECT_EQ(result, 0);
    EXPECT_EQ(conn.rxLen, 0);
    EXPECT_TRUE(conn.wantsInput);
    EXPECT_EQ(conn.due, NEVER);
}

TEST_F(SocketIpcConn, YieldsTheLinesOfOneRead)
{
    struct Row {
        const char* behaviour;
        std::string bytes;
        Texts lines;
    };
    const Row rows[] = {
        {"two lines", "A\nB\n", {"A", "B"}},
        {"CR LF and empty lines", "  A\r\n\r\nB", {"A", "B"}},
        {"trailing blanks stay", "A  \r\n", {"A  "}},
        {"a piece without a line end is a command", "SETX 5", {"SETX 5"}},
        {"only blanks and line ends", " \r\n\t\n", {}},
        {"NULs in front", "\0\0A\n"s, {"A"}},
        {"NULs between lines", "A\n\0B\n\0"s, {"A", "B"}},
        {"only NULs", "\0\0"s, {}},
        {"8-bit text", "\xE4\xFF\n", {"\xE4\xFF"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        EXPECT_THAT(sendAndRead(row.bytes), ElementsAreArray(row.lines));
        EXPECT_EQ(conn.rxLen, static_cast<int>(row.bytes.size()));
    }
}

TEST_F(SocketIpcConn, GivesEveryEntryTagZeroAndATextInsideItsBuffer)
{
    sendAndRead("A\nB\nC");
    ASSERT_EQ(result, 3);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(conn.cmds[i].tag, 0U);
        EXPECT_GE(conn.cmds[i].text, conn.rxBuf.data());
        EXPECT_LT(conn.cmds[i].text, conn.rxBuf.data() + conn.rxBuf.size());
    }
}

TEST_F(SocketIpcConn, MakesACommandOfEveryPieceThatArrivesAlone)
{
    Texts all;
    for (const char c : "SETX 5\r\n"s)
        for (const std::string& line : sendAndRead({&c, 1}))
            all.push_back(line);
    EXPECT_THAT(all, ElementsAre("S", "E", "T", "X", "5"));
}

TEST_F(SocketIpcConn, ForgetsTheLinesOfAnEarlierRead)
{
    EXPECT_THAT(sendAndRead("A long first line\nB\n"), ElementsAre("A long first line", "B"));
    EXPECT_THAT(sendAndRead("C"), ElementsAre("C"));
}

TEST_F(SocketIpcConn, TakesAtMost1024BytesAtOnceAndTheRestNextTime)
{
    const std::string bytes = std::string(1024, 'A') + "B\n";
    EXPECT_THAT(sendAndRead(bytes), ElementsAre(std::string(1024, 'A')));
    EXPECT_THAT(readLines(), ElementsAre("B"));
}

TEST_F(SocketIpcConn, ThrowsAFullBufferWithALineEndAway)
{
    struct Row {
        const char* behaviour;
        std::string bytes;
    };
    const Row rows[] = {
        {"LF as the first byte", "\n" + std::string(1023, 'A')},
        {"LF in the middle", std::string(500, 'A') + "\n" + std::string(523, 'B')},
        {"LF as the last byte", std::string(1023, 'A') + "\n"},
        {"LF before a NUL", "A\n\0"s + std::string(1021, 'B')},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        ASSERT_EQ(row.bytes.size(), 1024U);
        letIdleTimeRunOut();
        const LogCapture log;
        EXPECT_THAT(sendAndRead(row.bytes + "NEXT\n"), ElementsAre());
        EXPECT_EQ(result, 0);
        EXPECT_THAT(log.lines(), ElementsAre(discarded));
        EXPECT_TRUE(conn.idleTimer.hasTimedOut());
        EXPECT_THAT(readLines(), ElementsAre("NEXT"));
    }
}

TEST_F(SocketIpcConn, TakesAFullBufferWithoutALineFeedAsOneCommand)
{
    const LogCapture log;
    EXPECT_THAT(sendAndRead(std::string(1024, 'A')), ElementsAre(std::string(1024, 'A')));
    EXPECT_THAT(sendAndRead(std::string(1000, 'A') + "\r" + std::string(23, 'B')),
                ElementsAre(std::string(1000, 'A'), std::string(23, 'B')));
    EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_F(SocketIpcConn, DoesNotSeeALineFeedBehindANulInAFullBuffer)
{
    const std::string bytes = "A\0"s + std::string(1020, 'B') + "\nC";
    ASSERT_EQ(bytes.size(), 1024U);
    const LogCapture log;
    EXPECT_THAT(sendAndRead(bytes), ElementsAre("A", "C"));
    EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_F(SocketIpcConn, TakesA1023ByteReadWithLineFeedsAsItIs)
{
    EXPECT_THAT(sendAndRead(std::string(1021, 'A') + "\nB"), ElementsAre(std::string(1021, 'A'), "B"));
}

TEST_F(SocketIpcConn, ReportsAPeerThatClosed)
{
    pair.closeClient();
    EXPECT_EQ(conn.readCmd(), -1);
}

TEST_F(SocketIpcConn, YieldsWhatWasSentBeforeThePeerClosed)
{
    ASSERT_TRUE(pair.send("A\n"));
    pair.closeClient();
    EXPECT_THAT(readLines(), ElementsAre("A"));
    EXPECT_EQ(conn.readCmd(), -1);
}

TEST_F(SocketIpcConn, StaysOpenAfterAReadError)
{
    TSocketIPCConn unopened(8, 0);
    EXPECT_EQ(unopened.readCmd(), 0) << "no descriptor";
    int pipeEnds[2];
    ASSERT_EQ(::pipe2(pipeEnds, O_CLOEXEC), 0);
    unopened.fd = pipeEnds[1];
    EXPECT_EQ(unopened.readCmd(), 0) << "not a socket";
    ::close(pipeEnds[0]);
}

TEST_F(SocketIpcConn, DropsUrgentBytesWithoutBeingWokenByThemAgainAndAgain)
{
    // What is sent before a look; '!' stands for an urgent byte.
    const std::vector<Texts> rows[] = {
        {{"!"}}, {{"!", "A\n"}}, {{"A\n", "!"}}, {{"A\n", "!", "A\n"}}, {{"!"}, {"!"}, {"A\n"}},
    };
    for (const std::vector<Texts>& looks : rows) {
        StreamPair client;
        TSocketIPCConn reading(8, 0);
        reading.fd = client.releaseServer();
        std::size_t sent = 0;
        std::size_t lines = 0;
        for (const Texts& pieces : looks) {
            for (const std::string& piece : pieces) {
                if (piece == "!" && !client.sendUrgent()) GTEST_SKIP() << "this kernel has no urgent data here";
                if (piece != "!" && client.send(piece)) ++sent;
            }
            for (int look = 0; look < 4; ++look)
                for (const std::string& line : linesOf(reading, reading.readCmd())) {
                    EXPECT_EQ(line, "A");
                    ++lines;
                }
            EXPECT_FALSE(hasInput(reading.fd));
        }
        EXPECT_EQ(lines, sent);
        client.closeClient();
        EXPECT_EQ(reading.readCmd(), -1);
    }
}

TEST_F(SocketIpcConn, ArmsTheIdleTimerWhenAReadYieldsLines)
{
    letIdleTimeRunOut();
    sendAndRead(" \r\n");
    EXPECT_TRUE(conn.idleTimer.hasTimedOut()) << "no line";
    sendAndRead("A\n");
    EXPECT_FALSE(conn.idleTimer.hasTimedOut()) << "a line";
}

TEST_F(SocketIpcConn, NeverTimesOut)
{
    letIdleTimeRunOut();
    EXPECT_EQ(conn.hasTimedOut(), 0);
}

TEST_F(SocketIpcConn, NeverEchoes)
{
    conn.setEcho(1);
    sendAndRead("A\n");
    EXPECT_EQ(pair.received(), "");
    EXPECT_EQ(conn.echoFlag, 0) << "every read clears it";
}

TEST_F(SocketIpcConn, KeepsTheEchoFlagAsAZeroOrOne)
{
    conn.setEcho(7);
    EXPECT_EQ(conn.echoFlag, 1);
    conn.setEcho(0);
    EXPECT_EQ(conn.echoFlag, 0);
    conn.setEcho(-1);
    EXPECT_EQ(conn.echoFlag, 1);
}

TEST_F(SocketIpcConn, WritesTheTextOnly)
{
    for (const std::string& text : {"OK\r\n\r\n"s, "?\r\n"s, ""s, "\xE4%s%n\r\n"s, std::string(8175, 'x')}) {
        TOrbAttachmentMsg record = recordWith(text);
        record.tag = 0x1234'5678;
        record.len = 99;
        EXPECT_EQ(conn.write(&record), 0);
        EXPECT_EQ(readable(pair.received()), readable(text));
        EXPECT_EQ(record.tag, 0x1234'5678U);
        EXPECT_EQ(record.len, 99);
    }
}

TEST_F(SocketIpcConn, StopsATextWithoutNulAtTheRecordsEnd)
{
    TOrbAttachmentMsg record{};
    std::fill(std::begin(record.text), std::end(record.text), 'x');
    EXPECT_EQ(conn.write(&record), 0);
    EXPECT_EQ(pair.received(), std::string(8175, 'x'));
}

TEST_F(SocketIpcConn, FailsToWriteToAPeerThatClosedWithoutASignalOrALogLine)
{
    const BrokenPipes brokenPipes;
    pair.closeClient();
    TOrbAttachmentMsg record = recordWith("OK\r\n\r\n");
    const LogCapture log;
    EXPECT_EQ(conn.write(&record), 1);
    EXPECT_THAT(log.lines(), ElementsAre());
    EXPECT_EQ(brokenPipes.count(), 0);
}

TEST_F(SocketIpcConn, FailsToWriteToAPeerThatDoesNotReadAndDoesNotWaitForIt)
{
    TOrbAttachmentMsg record = recordWith(std::string(8000, 'x'));
    int written = 0;
    while (conn.write(&record) == 0)
        ASSERT_LT(++written, 10'000);
    EXPECT_GT(written, 0);
    EXPECT_EQ(fewestSleeps([&] { (void)conn.write(&record); }), 0);
}

TEST_F(SocketIpcConn, WritesTextsTogetherInOrder)
{
    std::vector<TOrbAttachmentMsg> records;
    std::string all;
    for (int i = 0; i < 100; ++i) {
        const std::string text = i % 7 == 0 ? "" : std::to_string(i) + "\r\n";
        records.push_back(recordWith(text));
        all += text;
    }
    writeTogether(conn, records);
    EXPECT_EQ(pair.received(), all);
}

TEST_F(SocketIpcConn, WritesNoTextTogetherToAPeerThatDoesNotReadAndDoesNotWaitForIt)
{
    std::vector<TOrbAttachmentMsg> records(3, recordWith(std::string(8000, 'x')));
    while (conn.write(records.data()) == 0) {
    }
    EXPECT_EQ(fewestSleeps([&] { writeTogether(conn, records); }), 0);
    EXPECT_THAT(pair.received(), testing::Not(testing::IsEmpty()));
    writeTogether(conn, records);
    EXPECT_EQ(pair.received().size(), 24'000U) << "it goes on when there is room";
}

TEST_F(SocketIpcConn, WritesNoTextTogetherToAPeerThatClosedAndRaisesNoSignal)
{
    const BrokenPipes brokenPipes;
    pair.closeClient();
    std::vector<TOrbAttachmentMsg> records(3, recordWith("OK\r\n\r\n"));
    writeTogether(conn, records);
    EXPECT_EQ(brokenPipes.count(), 0);
}

TEST_F(SocketIpcConn, ClosesItsDescriptorAtItsEnd)
{
    StreamPair other;
    {
        TSocketIPCConn ending(8, 0);
        ending.fd = other.releaseServer();
        EXPECT_FALSE(other.closedByServer());
    }
    EXPECT_TRUE(other.closedByServer());
}
