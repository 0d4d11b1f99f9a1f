#include "connections/xcp_con.h"

#include <climits>
#include <cstring>
#include <gmock/gmock.h>
#include <string>
#include <vector>

#include "framework/fixed_text.h"
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

const LogLine outOfRange{250004, "XCP frame length out of range"};
const LogLine writeFailed{250004, "Error writing to the socket"};

struct FrameHeader {
    std::uint32_t word0, word1, tag;
    std::int32_t payloadBytes;
};
static_assert(sizeof(FrameHeader) == 16);

std::string frame(std::uint32_t tag, std::int32_t payloadBytes, std::string_view payload)
{
    const FrameHeader header{0x5A5A5A5A, 0xA5A5A5A5, tag, payloadBytes};
    std::string bytes(sizeof header, '\0');
    std::memcpy(bytes.data(), &header, sizeof header);
    return bytes.append(payload);
}

std::string frame(std::uint32_t tag, std::string_view payload)
{
    return frame(tag, static_cast<std::int32_t>(payload.size()), payload);
}

class XcpCon : public StreamConnFixture<TXCPCon> {
protected:
    XcpCon() : StreamConnFixture(4, 0x0057'0000) {}
};

/// What comes of a frame whose pieces are sent one by one, each looked at: the first line, and its
/// tag. On a machine that is too busy the pieces can be too late, which says nothing; then it is
/// tried again.
std::string readInPieces(const std::vector<std::string>& pieces)
{
    for (int attempt = 0; attempt < 10; ++attempt) {
        StreamPair pair;
        TXCPCon conn(4, 0);
        conn.fd = pair.releaseServer();
        int result = 0;
        bool inTime = true;
        for (const std::string& piece : pieces) {
            if (!pair.send(piece)) return "not sent";
            const Instant due = conn.due;
            if (result == 0) result = conn.readCmd();
            inTime = inTime && (due == AT_ONCE || instantNow() < due);
        }
        if (!inTime) continue;
        if (result < 1) return "result " + std::to_string(result);
        return (FixedText<32>() << "0x").hex(conn.cmds[0].tag).c_str() + (" " + readable(conn.cmds[0].text));
    }
    return "never whole in time";
}

} // namespace

TEST_F(XcpCon, StartsLoggedInWithItsEchoFlagSet)
{
    expectStartsLoggedIn(4, 0x0057'0000);
}

TEST_F(XcpCon, YieldsNothingWhileNothingHasArrived)
{
    EXPECT_THAT(readLines(), ElementsAre());
    EXPECT_EQ(result, 0);
    EXPECT_EQ(conn.rxLen, 0);
    EXPECT_EQ(conn.echoFlag, 1);
    EXPECT_TRUE(waitsForInput());
}

TEST_F(XcpCon, YieldsTheLinesOfOneFrame)
{
    struct Row {
        const char* behaviour;
        std::string payload;
        Texts lines;
    };
    const Row rows[] = {
        {"a line with CR LF keeps the CR", "ver\r\n", {"ver\r"}},
        {"a line without an end", "ver", {"ver"}},
        {"lines run on behind a CR", "A\rB", {"A\rB", "B"}},
        {"a NUL behind a line end is an empty line", "A\n\0"s, {"A\n", ""}},
        {"a NUL behind the text is none", "A\0"s, {"A"}},
        {"blanks in front", "  A\r\n  B\r\n", {"A\r", "B\r"}},
        {"only white space", " \r\n\t", {}},
        {"the longest payload", std::string(1008, 'A'), {std::string(1008, 'A')}},
        {"the longest payload with a line end at its end",
         std::string(1007, 'A') + "\n",
         {std::string(1007, 'A') + "\n"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        EXPECT_THAT(sendAndRead(frame(5, row.payload)), ElementsAreArray(row.lines));
        EXPECT_EQ(conn.rxLen, static_cast<int>(16 + row.payload.size()));
        EXPECT_EQ(conn.echoFlag, 0);
        EXPECT_TRUE(waitsForInput());
    }
}

TEST_F(XcpCon, GivesEveryEntryTheTagOfItsFrame)
{
    for (const std::uint32_t tag : {0U, 0x0005'0007U, 0xFFFF'FFFFU}) {
        EXPECT_THAT(sendAndRead(frame(tag, "A\r\nB\r\n")), ElementsAre("A\r", "B\r"));
        EXPECT_EQ(conn.cmds[0].tag, tag);
        EXPECT_EQ(conn.cmds[1].tag, tag);
    }
}

TEST_F(XcpCon, YieldsNothingForAnEmptyPayload)
{
    EXPECT_THAT(sendAndRead(frame(5, "")), ElementsAre());
    EXPECT_EQ(result, 0);
    EXPECT_EQ(conn.rxLen, 16);
    EXPECT_THAT(sendAndRead(frame(5, "A")), ElementsAre("A"));
}

TEST_F(XcpCon, YieldsOneFrameARead)
{
    ASSERT_TRUE(pair.send(frame(1, "A\n") + frame(2, "") + frame(3, "B") + frame(4, std::string(1008, 'C'))));
    EXPECT_THAT(readLines(), ElementsAre("A\n"));
    EXPECT_EQ(conn.cmds[0].tag, 1U);
    EXPECT_THAT(readLines(), ElementsAre());
    EXPECT_THAT(readLines(), ElementsAre("B")) << "the line ends with its payload, not in the next frame";
    EXPECT_EQ(conn.cmds[0].tag, 3U);
    EXPECT_THAT(readLines(), ElementsAre(std::string(1008, 'C')));
    EXPECT_THAT(readLines(), ElementsAre());
}

TEST_F(XcpCon, IsLookedAtAgainForWhatWasTakenInBehindAShorterFrame)
{
    EXPECT_THAT(sendAndRead(frame(1, std::string(100, 'A'))), ElementsAre(std::string(100, 'A')));
    EXPECT_TRUE(waitsForInput());
    const std::string second = frame(4, "D");
    ASSERT_TRUE(pair.send(frame(2, "B") + frame(3, "C") + second.substr(0, 10)));
    EXPECT_THAT(readLines(), ElementsAre("B"));
    EXPECT_EQ(conn.due, AT_ONCE) << "the socket tells nothing of it any more";
    EXPECT_THAT(readLines(), ElementsAre("C"));
    EXPECT_EQ(conn.cmds[0].tag, 3U);
    EXPECT_EQ(conn.due, AT_ONCE);
    EXPECT_THAT(readLines(), ElementsAre());
    EXPECT_NE(conn.due, AT_ONCE) << "half a header";
    EXPECT_NE(conn.due, NEVER) << "which must be whole in time";
    ASSERT_TRUE(pair.send(second.substr(10)));
    EXPECT_THAT(readLines(), ElementsAre("D"));
    EXPECT_TRUE(waitsForInput());
}

TEST_F(XcpCon, RefusesADeclaredLengthThatFitsNoBuffer)
{
    for (const std::int32_t bytes : {-1, INT_MIN, INT_MIN + 1, -16, -17, 1009, 1024, 65536, INT_MAX, INT_MAX - 15}) {
        SCOPED_TRACE(bytes);
        StreamPair client;
        TXCPCon refused(4, 0);
        refused.fd = client.releaseServer();
        ASSERT_TRUE(client.send(frame(5, bytes, "A\n")));
        const LogCapture log;
        EXPECT_EQ(refused.readCmd(), -1);
        EXPECT_THAT(log.lines(), ElementsAre(outOfRange));
    }
}

TEST_F(XcpCon, TakesTheLongestLengthThatFits)
{
    const LogCapture log;
    EXPECT_THAT(sendAndRead(frame(5, 1008, "A\n")), ElementsAre("A\n", "")) << "and the NULs behind it are a line";
    EXPECT_EQ(conn.rxLen, 18);
    EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_F(XcpCon, CutsOverTheDeclaredLengthWhenLessHasArrived)
{
    struct Row {
        const char* behaviour;
        std::int32_t declared;
        Texts lines;
    };
    const Row rows[] = {
        {"what has arrived", 2, {"A\n"}},
        {"the NUL behind it, too", 3, {"A\n", ""}},
        {"up to the first line end left by the frame before", 6, {"A\n", ""}},
        {"the next line of that frame", 12, {"A\n", "", "line2\n"}},
        {"half a line of it", 15, {"A\n", "", "line2\nlin", "lin"}},
        {"all of it", 18, {"A\n", "", "line2\nline3\n", "line3\n"}},
        {"to the buffer's end", 1008, {"A\n", "", "line2\nline3\n", "line3\n", ""}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        StreamPair client;
        TXCPCon reading(4, 0);
        reading.fd = client.releaseServer();
        ASSERT_TRUE(client.send(frame(5, "line1\nline2\nline3\n")));
        ASSERT_EQ(reading.readCmd(), 3);
        ASSERT_TRUE(client.send(frame(6, row.declared, "A\n")));
        const Texts lines = linesOf(reading, reading.readCmd());
        EXPECT_THAT(lines, ElementsAreArray(row.lines));
        EXPECT_EQ(reading.rxLen, 18);
    }
}

TEST_F(XcpCon, DoesNotPutBytesOfAnEarlierFrameBehindAShortOne)
{
    EXPECT_THAT(sendAndRead(frame(5, "SECRET OF AN EARLIER FRAME")).size(), 1U);
    EXPECT_THAT(sendAndRead(frame(6, 10, "ver")), ElementsAre("ver"));
}

TEST_F(XcpCon, TakesTheRestOfAShortFrameForTheNextHeader)
{
    EXPECT_THAT(sendAndRead(frame(5, 6, "ver")), ElementsAre("ver"));
    EXPECT_THAT(sendAndRead(frame(7, "next")), ElementsAre("next"));
    EXPECT_EQ(conn.cmds[0].tag, 7U);
}

TEST_F(XcpCon, ReportsAPeerThatClosed)
{
    pair.closeClient();
    EXPECT_EQ(conn.readCmd(), -1);
}

TEST_F(XcpCon, YieldsWhatWasSentBeforeThePeerClosed)
{
    ASSERT_TRUE(pair.send(frame(5, "A\n")));
    pair.closeClient();
    EXPECT_THAT(readLines(), ElementsAre("A\n"));
    EXPECT_EQ(conn.readCmd(), -1);
}

TEST_F(XcpCon, StaysOpenAfterAReadError)
{
    TXCPCon unopened(4, 0);
    EXPECT_EQ(unopened.readCmd(), 0);
}

TEST_F(XcpCon, ArmsTheIdleTimerWhenAReadYieldsLines)
{
    letIdleTimeRunOut();
    sendAndRead(frame(5, " \r\n"));
    EXPECT_TRUE(conn.idleTimer.hasTimedOut()) << "no line";
    sendAndRead(frame(5, "A"));
    EXPECT_FALSE(conn.idleTimer.hasTimedOut()) << "a line";
}

TEST_F(XcpCon, NeverTimesOut)
{
    letIdleTimeRunOut();
    EXPECT_EQ(conn.hasTimedOut(), 0);
}

TEST_F(XcpCon, NeverEchoes)
{
    conn.setEcho(7);
    EXPECT_EQ(conn.echoFlag, 1);
    sendAndRead(frame(5, "A\n"));
    EXPECT_EQ(pair.received(), "");
    conn.setEcho(0);
    EXPECT_EQ(conn.echoFlag, 0);
}

TEST_F(XcpCon, TakesAHeaderThatArrivesInPiecesWithinTheFrameTime)
{
    const std::string bytes = frame(0x0005'0007, "ver\r\n");
    for (const std::size_t first : {1U, 4U, 12U, 15U}) {
        SCOPED_TRACE(first);
        EXPECT_EQ(readInPieces({bytes.substr(0, first), bytes.substr(first)}), "0x50007 ver\\r");
    }
    std::vector<std::string> single;
    for (const char c : bytes)
        single.emplace_back(1, c);
    single.resize(16); // sent one by one, the payload would be the next header
    single.back() += bytes.substr(16);
    EXPECT_EQ(readInPieces(single), "0x50007 ver\\r");
}

TEST_F(XcpCon, TakesAPayloadThatComesAfterItsHeaderForTheNextHeader)
{
    ASSERT_TRUE(pair.send(frame(5, 4, "")));
    EXPECT_EQ(sendAndRead(""), Texts{""}) << "what is there is cut: nothing";
    ASSERT_TRUE(pair.send("ver\n"));
    EXPECT_EQ(conn.readCmd(), 0);
    EXPECT_FALSE(waitsForInput()) << "this would be a short header";
    ASSERT_TRUE(waitUntil([this] { return instantNow() >= conn.due; }));
    EXPECT_EQ(conn.readCmd(), -1);
}

TEST_F(XcpCon, WaitsForTheRestOfAHeaderUntilTheFrameTimeIsOver)
{
    const Instant before = instantNow();
    ASSERT_TRUE(pair.send(std::string(15, 'A')));
    EXPECT_EQ(conn.readCmd(), 0);
    const Instant end = conn.due;
    EXPECT_GE(end, before + std::chrono::milliseconds(100));
    EXPECT_LE(end, instantNow() + std::chrono::milliseconds(100));
    EXPECT_TRUE(conn.wantsInput);
    EXPECT_FALSE(hasInput(conn.fd)) << "what there is of it wakes nobody";
    if (conn.readCmd() == 0) {
        EXPECT_EQ(conn.due, end) << "no look makes it longer";
    } else
        EXPECT_GE(instantNow(), end);
}

TEST_F(XcpCon, EndsWhenAHeaderIsNotWholeInTheFrameTime)
{
    for (const std::size_t bytes : {1U, 15U}) {
        SCOPED_TRACE(bytes);
        for (const bool becomesWhole : {false, true}) {
            StreamPair client;
            TXCPCon late(4, 0);
            late.fd = client.releaseServer();
            ASSERT_TRUE(client.send(frame(5, "late").substr(0, bytes)));
            ASSERT_EQ(late.readCmd(), 0);
            ASSERT_TRUE(waitUntil([&late] { return instantNow() >= late.due; }));
            ASSERT_TRUE(!becomesWhole || client.send(frame(5, "late").substr(bytes)));
            EXPECT_EQ(late.readCmd(), -1) << (becomesWhole ? "whole too late" : "never whole");
        }
    }
}

TEST_F(XcpCon, EndsWhenThePeerClosesInsideAHeader)
{
    ASSERT_TRUE(pair.send("AB"));
    EXPECT_EQ(conn.readCmd(), 0);
    pair.closeClient();
    EXPECT_EQ(conn.readCmd(), -1);

    StreamPair other;
    TXCPCon gone(4, 0);
    gone.fd = other.releaseServer();
    ASSERT_TRUE(other.send("AB"));
    other.closeClient();
    EXPECT_EQ(gone.readCmd(), -1) << "at the first look";
}

TEST_F(XcpCon, DropsUrgentBytesWhereverTheyStand)
{
    const std::string bytes = frame(5, "ver\r\n");
    const std::string next = frame(6, "next");
    const std::string head = bytes.substr(0, 16);
    const std::string body = bytes.substr(16);
    struct Row {
        const char* where;
        std::vector<Texts> looks; ///< what is sent before a look; '!' stands for an urgent byte
    };
    const Row rows[] = {
        {"alone, then a frame", {{"!"}, {bytes, next}}},
        {"before a header", {{"!", bytes, next}}},
        {"between header and payload", {{head, "!", body, next}}},
        {"inside the header", {{bytes.substr(0, 7), "!", bytes.substr(7), next}}},
        {"inside the payload", {{bytes.substr(0, 18), "!", bytes.substr(18), next}}},
        {"behind the frame", {{bytes, "!"}, {next}}},
        {"twice", {{"!"}, {"!"}, {bytes, next}}},
        {"twice around a frame", {{"!"}, {bytes, "!"}, {next}}},
        {"behind half a header", {{bytes.substr(0, 7), "!"}, {bytes.substr(7), next}}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.where);
        StreamPair client;
        TXCPCon reading(4, 0);
        reading.fd = client.releaseServer();
        Texts lines;
        bool inTime = true;
        for (const Texts& pieces : row.looks) {
            for (const std::string& piece : pieces)
                if (!(piece == "!" ? client.sendUrgent() : client.send(piece)))
                    GTEST_SKIP() << "this kernel has no urgent data here";
            for (int look = 0; look < 4; ++look) {
                const Instant due = reading.due;
                for (const std::string& line : linesOf(reading, reading.readCmd()))
                    lines.push_back(line);
                inTime = inTime && (due == AT_ONCE || instantNow() < due);
            }
            EXPECT_FALSE(inTime && hasInput(reading.fd)) << "four looks are enough for any of these";
        }
        if (!inTime) continue; // the machine was too busy, which says nothing
        EXPECT_THAT(lines, ElementsAre("ver\r", "next"));
    }
}

TEST_F(XcpCon, IsNotWokenAgainByUrgentBytesOfWhichSeveralCameAtOnce)
{
    // The kernel keeps one, the last; those before it are ordinary bytes then (unix(7)).
    for (int i = 0; i < 3; ++i)
        if (!pair.sendUrgent()) GTEST_SKIP() << "this kernel has no urgent data here";
    for (int look = 0; look < 2; ++look)
        (void)conn.readCmd();
    EXPECT_FALSE(hasInput(conn.fd));
}

TEST_F(XcpCon, ReportsAPeerThatClosedBehindAnUrgentByte)
{
    if (!pair.sendUrgent()) GTEST_SKIP() << "this kernel has no urgent data here";
    pair.closeClient();
    EXPECT_EQ(conn.readCmd(), -1);
}

TEST_F(XcpCon, WritesTheTextInAFrame)
{
    struct Row {
        const char* behaviour;
        std::string text;
        std::uint32_t tag;
        std::uint32_t sentTag;
    };
    const Row rows[] = {
        {"the upper half of the tag is cleared", "OK\r\n", 0x0005'0007, 7},
        {"all bits of the lower half stay", "OK\r\n", 0xFFFF'FFFF, 0xFFFF},
        {"an empty text is its NUL", "", 0x0057'0000, 0},
        {"the longest text fills the record", std::string(8175, 'x'), 1, 1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        TOrbAttachmentMsg record = recordWith(row.text, row.tag);
        EXPECT_EQ(conn.write(&record), 0);
        const std::string sent = pair.received();
        ASSERT_EQ(sent.size(), 16 + row.text.size() + 1);
        TOrbAttachmentMsg answer{};
        std::memcpy(&answer, sent.data(), sent.size());
        EXPECT_EQ(answer.kind, 102U) << "word 0 as the record has it";
        EXPECT_EQ(answer.sender, 2001) << "word 1 as the record has it";
        EXPECT_EQ(answer.tag, row.sentTag);
        EXPECT_EQ(answer.len, static_cast<std::int32_t>(row.text.size()) + 1);
        EXPECT_EQ(readable(answer.text), readable(row.text));
        EXPECT_EQ(sent.back(), '\0');
    }
}

TEST_F(XcpCon, StopsATextWithoutNulAtTheRecordsEnd)
{
    TOrbAttachmentMsg record{};
    std::fill(std::begin(record.text), std::end(record.text), 'x');
    EXPECT_EQ(conn.write(&record), 0);
    const std::string sent = pair.received();
    ASSERT_EQ(sent.size(), sizeof record);
    EXPECT_EQ(sent.substr(16), std::string(8175, 'x') + '\0');
    EXPECT_EQ(record.len, 8176);
}

TEST_F(XcpCon, LogsAWriteToAPeerThatClosed)
{
    pair.closeClient();
    TOrbAttachmentMsg record = recordWith("OK\r\n", 5);
    const LogCapture log;
    EXPECT_EQ(conn.write(&record), 1);
    EXPECT_THAT(log.lines(), ElementsAre(writeFailed));
}

TEST_F(XcpCon, RaisesABrokenPipeWithAWriteToAPeerThatClosed)
{
    const BrokenPipes brokenPipes;
    pair.closeClient();
    TOrbAttachmentMsg record = recordWith("OK\r\n", 5);
    const LogCapture log;
    EXPECT_EQ(conn.write(&record), 1);
    EXPECT_EQ(brokenPipes.count(), 1);
}

TEST_F(XcpCon, LogsAWriteToAPeerThatDoesNotReadAndDoesNotWaitForIt)
{
    const LogCapture log;
    int written = 0;
    while (true) {
        TOrbAttachmentMsg record = recordWith(std::string(8000, 'x'), 5);
        if (conn.write(&record) != 0) break;
        ASSERT_LT(++written, 10'000);
    }
    EXPECT_GT(written, 0);
    EXPECT_THAT(log.lines(), ElementsAre(writeFailed));
    TOrbAttachmentMsg next = recordWith("x", 5);
    EXPECT_EQ(fewestSleeps([&] { (void)conn.write(&next); }), 0);
}

TEST_F(XcpCon, WritesFramesTogetherInOrder)
{
    std::vector<TOrbAttachmentMsg> records;
    for (std::uint32_t i = 0; i < 40; ++i)
        records.push_back(recordWith(std::to_string(i), 0x0057'0000U + i));
    std::string alone;
    for (TOrbAttachmentMsg record : records) {
        EXPECT_EQ(conn.write(&record), 0);
        alone += pair.received();
    }
    writeTogether(conn, records);
    EXPECT_EQ(readable(pair.received()), readable(alone));
}

TEST_F(XcpCon, LogsEachOfTheFramesThatCannotBeWrittenTogetherAndRaisesABrokenPipeForEach)
{
    const LogCapture log;
    const BrokenPipes brokenPipes;
    pair.closeClient();
    std::vector<TOrbAttachmentMsg> records(3, recordWith("OK\r\n\r\n", 5));
    writeTogether(conn, records);
    EXPECT_THAT(log.lines(), ElementsAre(writeFailed, writeFailed, writeFailed));
    EXPECT_EQ(brokenPipes.count(), 3);
}

TEST_F(XcpCon, ClosesItsDescriptorAtItsEnd)
{
    StreamPair other;
    {
        TXCPCon ending(4, 0);
        ending.fd = other.releaseServer();
        EXPECT_FALSE(other.closedByServer());
    }
    EXPECT_TRUE(other.closedByServer());
}
