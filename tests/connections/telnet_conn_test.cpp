#include "connections/telnet_conn.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <string>
#include <vector>

#include "tests/support/broken_pipes.h"
#include "tests/support/conn_fixture.h"
#include "tests/support/conn_texts.h"
#include "tests/support/log_capture.h"
#include "tests/support/looks.h"
#include "tests/support/private_network.h"
#include "tests/support/readable.h"
#include "tests/support/sleeps.h"
#include "tests/support/tcp_pair.h"
#include "tests/support/telnet_conversation.h"
#include "tests/support/waiting.h"

using namespace std::string_literals;
using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

const LogLine writeFailed{6004, "Error writting to the telnet socket"};

constexpr std::chrono::seconds A_SECOND{1};

class TelnetConn : public ConnFixture<TTelnetConn> {
protected:
    TelnetConn() : ConnFixture(2, 0xAA01'0000) {}

    void SetUp() override
    {
        if (!privateNetworkProblem().empty()) GTEST_SKIP() << privateNetworkProblem();
        pair = std::make_unique<TcpPair>();
        conn.fd = pair->releaseServer();
    }

    const TcpClient& client() const { return pair->client; }

    /// The lines of the read after the bytes have arrived; `waiting` have already.
    Texts sendAndRead(std::string_view bytes, std::size_t waiting = 0)
    {
        EXPECT_TRUE(client().send(bytes));
        EXPECT_TRUE(hasArrived(conn.fd, waiting + bytes.size()));
        return readLines();
    }

    void sendAndArrive(std::string_view bytes) const
    {
        ASSERT_TRUE(client().send(bytes));
        ASSERT_TRUE(hasArrived(conn.fd, bytes.size()));
    }

    /// Goes on with a negotiation, as the service loop does, until it is over.
    /// @return as negotiateOptions()
    int negotiate()
    {
        for (looks = 1; (result = conn.negotiateOptions()) == 2; ++looks)
            waitForLook(conn);
        return result;
    }

    /// The service loop's looks until a read yields lines or the end of the connection.
    /// @return how many those were
    int looksUntilResult()
    {
        for (int count = 1;; ++count) {
            waitForLook(conn);
            if ((result = conn.readCmd()) != 0) return count;
        }
    }

    /// Goes on with an echo switch until it is over; it yields no line before that.
    void settle()
    {
        for (looks = 0; conn.settling; ++looks) {
            waitForLook(conn);
            EXPECT_EQ(conn.readCmd(), 0);
        }
    }

    /// The connection waits for time to pass, `span` from a moment between `before` and now, and
    /// for nothing else.
    void expectRest(Instant before, std::chrono::seconds span)
    {
        EXPECT_FALSE(conn.wantsInput);
        EXPECT_FALSE(wouldBeLookedAt(conn));
        EXPECT_GE(conn.due, before + span);
        EXPECT_LE(conn.due, instantNow() + span);
    }

    /// From now on the connection cannot send, as when a client that does not read has filled its
    /// way, but at once.
    void blockWayToClient() const { ASSERT_EQ(::shutdown(conn.fd, SHUT_WR), 0); }

    /// Sends a byte of urgent data, which alone wakes nobody.
    void sendUrgent() const
    {
        ASSERT_TRUE(client().send("!", MSG_OOB));
        ASSERT_TRUE(waitUntil([&] {
            pollfd urgent{conn.fd, POLLPRI, 0};
            return ::poll(&urgent, 1, 0) == 1;
        }));
    }

    std::unique_ptr<TcpPair> pair;
    int looks = 0;
};

} // namespace

TEST_F(TelnetConn, StartsNotLoggedInWithoutLinemodeAndWithoutEcho)
{
    const TTelnetConn fresh(2, 0xAA02'0000);
    EXPECT_EQ(fresh.fd, -1);
    EXPECT_EQ(fresh.loginState, 0);
    EXPECT_EQ(fresh.lineMode, 0);
    EXPECT_EQ(fresh.serverEcho, 0);
    EXPECT_EQ(fresh.echoPos, 0);
    EXPECT_FALSE(fresh.settling);
    EXPECT_TRUE(fresh.wantsInput);
    EXPECT_EQ(fresh.due, AT_ONCE);
    EXPECT_EQ(fresh.peerAddr.sin_addr.s_addr, 0U);
    EXPECT_EQ(fresh.peerAddr.sin_port, 0U);
    EXPECT_EQ(conn.getPortId(), 2U);
    EXPECT_EQ(conn.connId, 0xAA01'0000U);
    EXPECT_EQ(conn.isSerialLine(), 0);
    EXPECT_EQ(conn.muteExpired(), 1);
    EXPECT_EQ(conn.startMute(), 0);
}

// --- negotiation

TEST_F(TelnetConn, TakesAClientThatIsSilentForASecondForAPlainOne)
{
    letIdleTimeRunOut();
    const Instant before = instantNow();
    EXPECT_EQ(conn.negotiateOptions(), 2);
    EXPECT_TRUE(conn.wantsInput);
    EXPECT_GE(conn.due, before + A_SECOND);
    EXPECT_LE(conn.due, instantNow() + A_SECOND);
    EXPECT_EQ(negotiate(), 0);
    EXPECT_GE(instantNow(), before + A_SECOND);
    EXPECT_LE(looks, 2);
    EXPECT_EQ(conn.lineMode, 0);
    EXPECT_EQ(conn.serverEcho, 1);
    EXPECT_FALSE(conn.hasTimedOut());
    EXPECT_EQ(readable(client().received()), "") << "nothing before the client has sent a command";
}

TEST_F(TelnetConn, TakesAClientThatSendsDataForAPlainOneAtOnceAndLeavesItsData)
{
    sendAndArrive("alice\r\n");
    EXPECT_EQ(conn.negotiateOptions(), 0);
    EXPECT_TRUE(conn.wantsInput);
    EXPECT_EQ(conn.due, AT_ONCE) << "it is to be greeted";
    EXPECT_EQ(conn.serverEcho, 1);
    EXPECT_EQ(conn.lineMode, 0);
    EXPECT_EQ(readable(client().received()), "");
    EXPECT_THAT(readLines(), ElementsAre("alice"));
}

TEST_F(TelnetConn, SettlesLinemodeWithAClientThatSaysItWill)
{
    sendAndArrive(WILL_LINEMODE + "\xFF\xFB\x18\xFF\xFA\x22\x03\x11\x00\x00\xFF\xF0"s);
    EXPECT_EQ(conn.negotiateOptions(), 2);
    EXPECT_EQ(readable(client().receive(28)), readable(OFFERS + "\xFF\xFC\x18" + MODE_AND_SLC));
    sendAndArrive(MODE_ACK + SLC_ACK + "alice\r\n");
    EXPECT_EQ(negotiate(), 0);
    EXPECT_EQ(conn.due, AT_ONCE);
    EXPECT_EQ(conn.lineMode, 1);
    EXPECT_EQ(conn.serverEcho, 0);
    EXPECT_EQ(readable(client().received()), "");
    EXPECT_THAT(readLines(), ElementsAre("alice")) << "behind the answers";
}

TEST_F(TelnetConn, NegotiatesWithAClientThatSendsByteByByte)
{
    for (const char byte : WILL_LINEMODE + MODE_ACK + SLC_ACK) {
        EXPECT_EQ(conn.negotiateOptions(), 2);
        EXPECT_TRUE(conn.wantsInput);
        EXPECT_FALSE(wouldBeLookedAt(conn)) << "a part of a command wakes nobody";
        ASSERT_TRUE(client().send({&byte, 1}));
        ASSERT_TRUE(waitUntil([&] { return wouldBeLookedAt(conn); }));
    }
    EXPECT_EQ(conn.negotiateOptions(), 0);
    EXPECT_EQ(conn.lineMode, 1);
    EXPECT_EQ(readable(client().receive(25)), readable(OFFERS + MODE_AND_SLC));
}

TEST_F(TelnetConn, TakesASubNegotiationOfExactlyItsBuffersSize)
{
    const std::string bytes =
        WILL_LINEMODE + "\xFF\xFA\x22\x07" + std::string(1018, 'x') + "\xFF\xF0" + MODE_ACK + SLC_ACK;
    sendAndArrive(bytes);
    EXPECT_EQ(negotiate(), 0);
    EXPECT_LE(looks, 4) << "no more than it has bufferfuls, and one behind each";
    EXPECT_EQ(conn.lineMode, 1);
    EXPECT_EQ(readable(client().receive(25)), readable(OFFERS + MODE_AND_SLC));
}

TEST_F(TelnetConn, RestsUntilItsSecondIsOverWhenNoMoreCanBeLearnt)
{
    struct Row {
        const char* behaviour;
        std::string bytes;
        bool shutDown;
        const char* urgent;
    };
    const Row rows[] = {
        {"its end", "", true, ""},
        {"its end behind a part of a command", "\xFF\xFD", true, ""},
        {"its end behind a part of a sub-negotiation", "\xFF\xFA\x22\x03\x01", true, ""},
        {"a sub-negotiation that fills the buffer", "\xFF\xFA\x22" + std::string(1100, 'x') + "\xFF\xF0", false, ""},
        {"64 kB", "\xFF\xFA\x22" + std::string(65000, 'x') + "\xFF\xF0", false, ""},
        {"its end behind an urgent byte", "", true, "!"},
        {"an urgent byte in the middle of a command", "\xFF", false, "!!"},
        {"and the end behind that", "\xFF", true, "!"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        TcpPair own;
        TTelnetConn stuck(2, 0);
        stuck.fd = own.releaseServer();
        ASSERT_TRUE(own.client.send(row.bytes, MSG_DONTWAIT));
        ASSERT_TRUE(own.client.send(row.urgent, MSG_OOB));
        if (row.shutDown) own.client.shutDown();
        const Instant before = instantNow();
        int count = 0;
        for (; stuck.wantsInput; ++count) {
            ASSERT_LT(count, 8) << "a look for each thing that arrives, and no more";
            ASSERT_EQ(stuck.negotiateOptions(), 2);
            if (stuck.wantsInput) waitForLook(stuck);
        }
        EXPECT_FALSE(wouldBeLookedAt(stuck));
        EXPECT_LE(stuck.due, instantNow() + A_SECOND);
        EXPECT_GE(stuck.due, before + A_SECOND);
        stuck.due = AT_ONCE;
        ASSERT_EQ(stuck.negotiateOptions(), 2) << "a look in between changes nothing";
        EXPECT_FALSE(stuck.wantsInput);
        EXPECT_EQ(readable(own.client.received()), "");
    }
}

TEST_F(TelnetConn, NegotiatesAsWithASilentClientWithOneThatHasClosed)
{
    pair->client.close();
    EXPECT_EQ(negotiate(), 0);
    EXPECT_LE(looks, 3) << "its end is readable all the time";
    EXPECT_EQ(conn.serverEcho, 1);
    EXPECT_EQ(conn.readCmd(), -1);
}

TEST_F(TelnetConn, ShowsAPartOfACommandThatHasCostItsSecondToTheReader)
{
    sendAndArrive("\xFF\xFD");
    EXPECT_EQ(negotiate(), 0);
    EXPECT_LE(looks, 3);
    EXPECT_THAT(readLines(), ElementsAre());
    EXPECT_EQ(readable(client().receive(2)), "\\xff\\xfd") << "it is echoed at once: the socket's mark is gone";
}

TEST_F(TelnetConn, FailsToNegotiateWithAClientThatHasReset)
{
    pair->client.reset();
    EXPECT_EQ(negotiate(), 1);
    EXPECT_LE(looks, 2);
}

TEST_F(TelnetConn, FailsToNegotiateWithAClientThatResetsBehindAnUrgentByte)
{
    EXPECT_EQ(conn.negotiateOptions(), 2);
    sendUrgent();
    EXPECT_EQ(conn.negotiateOptions(), 2);
    EXPECT_FALSE(wouldBeLookedAt(conn));
    pair->client.reset();
    EXPECT_EQ(negotiate(), 1);
    EXPECT_LE(looks, 2);
}

TEST_F(TelnetConn, FailsToNegotiateWithAClientThatTakesNoOffers)
{
    sendAndArrive(WILL_LINEMODE);
    blockWayToClient();
    EXPECT_EQ(conn.negotiateOptions(), 1);
    EXPECT_EQ(conn.lineMode, 0);
}

TEST_F(TelnetConn, FailsToNegotiateWithAClientThatTakesTheOffersButNotModeAndSlc)
{
    sendAndArrive(WILL_LINEMODE);
    EXPECT_EQ(conn.negotiateOptions(), 2);
    EXPECT_EQ(readable(client().receive(OFFERS.size())), readable(OFFERS));
    blockWayToClient();
    sendAndArrive("\xFF\xFB\x18");
    EXPECT_EQ(conn.negotiateOptions(), 2) << "a refusal that does not get out changes nothing";
    sendAndArrive(MODE_ACK);
    EXPECT_EQ(conn.negotiateOptions(), 1);
}

// --- echo

TEST_F(TelnetConn, SwitchesTheServersEchoForAPlainClientAtOnceAndWithoutAByte)
{
    conn.setEcho(7);
    EXPECT_EQ(conn.serverEcho, 1);
    conn.setEcho(0);
    EXPECT_EQ(conn.serverEcho, 0);
    conn.setEcho(-1);
    EXPECT_EQ(conn.serverEcho, 1);
    EXPECT_FALSE(conn.settling);
    EXPECT_EQ(readable(client().received()), "");
}

TEST_F(TelnetConn, SwitchesTheClientsEchoInLinemodeAndWaitsForItsAnswer)
{
    struct Row {
        int on;
        std::string sent, answer;
    };
    const Row rows[] = {
        {0, WILL_ECHO, DO_ECHO},
        {1, WONT_ECHO, DONT_ECHO},
        {0, WILL_ECHO, DONT_ECHO + "\xFF\xFB\x01" + MODE_ACK + SLC_ACK + "\xFF\xF1\xF1" + DO_ECHO},
        {5, WONT_ECHO, DO_ECHO + DONT_ECHO},
    };
    conn.lineMode = 1;
    for (const Row& row : rows) {
        SCOPED_TRACE(readable(row.answer));
        const Instant before = instantNow();
        conn.setEcho(row.on);
        EXPECT_TRUE(conn.settling);
        EXPECT_TRUE(conn.wantsInput);
        EXPECT_GE(conn.due, before + A_SECOND);
        EXPECT_LE(conn.due, instantNow() + A_SECOND);
        EXPECT_FALSE(wouldBeLookedAt(conn));
        EXPECT_EQ(readable(client().receive(3)), readable(row.sent));
        EXPECT_TRUE(client().send(row.answer + "A\r\n"));
        settle();
        EXPECT_EQ(conn.due, AT_ONCE);
        EXPECT_TRUE(hasArrived(conn.fd, 3));
        EXPECT_THAT(readLines(), ElementsAre("A")) << "everything up to the answer is gone, nothing behind it";
        EXPECT_EQ(readable(client().received()), "") << "nothing in between is answered";
        EXPECT_EQ(conn.serverEcho, 0);
    }
}

TEST_F(TelnetConn, WaitsASecondOfSilenceForTheAnswerToAnEchoSwitchThatDidNotGetOutToo)
{
    conn.lineMode = 1;
    blockWayToClient();
    const Instant before = instantNow();
    conn.setEcho(0);
    settle();
    EXPECT_GE(instantNow(), before + A_SECOND);
    EXPECT_LE(looks, 2);
}

TEST_F(TelnetConn, EndsTheWaitForTheAnswerToAnEchoSwitchAtDataThatIsThereAlready)
{
    conn.lineMode = 1;
    sendAndArrive("secret\r\n");
    conn.setEcho(0);
    EXPECT_TRUE(wouldBeLookedAt(conn));
    EXPECT_THAT(readLines(), ElementsAre()) << "the look that ends the wait yields no line";
    EXPECT_FALSE(conn.settling);
    EXPECT_EQ(conn.due, AT_ONCE);
    EXPECT_THAT(readLines(), ElementsAre("secret"));
}

TEST_F(TelnetConn, RestsUntilTheEndOfAnEchoSwitchWhenItsClientHasClosed)
{
    conn.lineMode = 1;
    const Instant before = instantNow();
    conn.setEcho(0);
    pair->client.shutDown();
    waitForLook(conn);
    EXPECT_THAT(readLines(), ElementsAre());
    EXPECT_TRUE(conn.settling);
    expectRest(before, A_SECOND);
    settle();
    EXPECT_EQ(looks, 1);
    EXPECT_EQ(conn.readCmd(), -1);
}

TEST_F(TelnetConn, EndsAnEchoSwitchWhenItsClientResets)
{
    conn.lineMode = 1;
    conn.setEcho(0);
    pair->client.reset();
    settle();
    EXPECT_EQ(looks, 1);
    EXPECT_LE(looksUntilResult(), 2);
    EXPECT_EQ(result, -1);
    const Instant before = instantNow();
    conn.setEcho(1);
    EXPECT_EQ(conn.readCmd(), 0);
    expectRest(before, A_SECOND);
}

// --- reading

TEST_F(TelnetConn, YieldsNothingWhileNothingHasArrived)
{
    EXPECT_EQ(conn.readCmd(), 0);
    EXPECT_EQ(conn.rxLen, 0);
    EXPECT_TRUE(conn.wantsInput);
    EXPECT_FALSE(wouldBeLookedAt(conn));
}

TEST_F(TelnetConn, IsDueWhenItsLoginOrItsIdleTimeIsOver)
{
    const auto expectDueIn = [&](Instant before, const timeval& span) {
        EXPECT_EQ(conn.readCmd(), 0);
        EXPECT_GE(conn.due, before + std::chrono::seconds(span.tv_sec - 1)); // made a moment ago
        EXPECT_LE(conn.due, instantNow() + std::chrono::seconds(span.tv_sec));
    };
    expectDueIn(instantNow(), TPortConn::LOGIN_TIME);
    conn.loginState = LOGIN_DONE;
    expectDueIn(instantNow(), TPortConn::IDLE_TIME);
    const Instant before = instantNow();
    EXPECT_EQ(conn.writeText("*"), 0);
    EXPECT_EQ(conn.readCmd(), 0);
    EXPECT_GE(conn.due, before + std::chrono::seconds(TPortConn::IDLE_TIME.tv_sec)) << "an answer keeps it alive";
    const Instant later = instantNow();
    EXPECT_THAT(sendAndRead("A\n"), ElementsAre("A"));
    EXPECT_GE(conn.due, later + std::chrono::seconds(TPortConn::IDLE_TIME.tv_sec)) << "a line too";
}

TEST_F(TelnetConn, YieldsTheLinesOfOneRead)
{
    struct Row {
        const char* behaviour;
        std::string bytes;
        Texts lines;
    };
    const Row rows[] = {
        {"CR LF", "SETX 5\r\n", {"SETX 5"}},
        {"LF alone", "SETX 5\n", {"SETX 5"}},
        {"CR alone", "SETX 5\r", {"SETX 5"}},
        {"CR NUL makes an empty command too", "SETX 5\r\0"s, {"SETX 5", ""}},
        {"leading blanks go, trailing ones stay", "  A  \r\n", {"A  "}},
        {"a piece behind the last line end is a command", "A\r\nB", {"A", "B"}},
        {"several lines", "A\r\n\r\nB\nC\n", {"A", "B", "C"}},
        {"only line ends", "\r\n\n\r", {}},
        {"telnet commands stay in the text", "abc\xFF\xF4\xFF\xFD\x06X\r\n", {"abc\xFF\xF4\xFF\xFD\x06X"}},
        {"a doubled FF stays doubled", "\xFF\xFF\r\n", {"\xFF\xFF"}},
        {"UTF-8", "\xC3\xA9\r\n", {"\xC3\xA9"}},
        {"a NUL in a line ends its text", "A\0B\r\n"s, {"A"}},
        {"1023 characters and a line end", std::string(1023, 'x') + "\n", {std::string(1023, 'x')}},
        {"as many lines as fit", "\nA", {"A"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        EXPECT_THAT(sendAndRead(row.bytes), ElementsAreArray(row.lines));
        EXPECT_EQ(conn.rxLen, static_cast<int>(row.bytes.size()));
        for (int i = 0; i < result; ++i)
            EXPECT_EQ(conn.cmds[static_cast<std::size_t>(i)].tag, 0U);
    }
}

TEST_F(TelnetConn, KeepsAHalfTypedLineInTheSocketUntilItsEnd)
{
    std::size_t typed = 0;
    for (const char c : "s3.ENC SETX 5"s) {
        EXPECT_THAT(sendAndRead({&c, 1}, typed), ElementsAre());
        EXPECT_EQ(result, 0);
        ++typed;
        EXPECT_EQ(conn.rxLen, static_cast<int>(typed));
    }
    EXPECT_THAT(sendAndRead("\r\n", typed), ElementsAre("s3.ENC SETX 5"));
}

TEST_F(TelnetConn, TakesAtMost1024BytesAtOnceAndCutsALineThere)
{
    const std::string first = "A\n" + std::string(1022, 'x');
    EXPECT_THAT(sendAndRead(first + "yz\n"), ElementsAre("A", std::string(1022, 'x')));
    EXPECT_THAT(readLines(), ElementsAre("yz"));
}

TEST_F(TelnetConn, EndsALastPieceWithoutALineEndWhereTheReadEnds)
{
    EXPECT_THAT(sendAndRead("0123456789\r\n"), ElementsAre("0123456789"));
    EXPECT_THAT(sendAndRead("A\r\nB"), ElementsAre("A", "B")) << "not in what the longer line has left";
}

TEST_F(TelnetConn, NeverTakesALineThatFillsItsBufferWithoutAnEnd)
{
    EXPECT_THAT(sendAndRead(std::string(1024, 'x') + "\r\n"), ElementsAre());
    EXPECT_EQ(conn.rxLen, 1024);
    expectRest(Instant{}, TPortConn::REST_TIME);
    EXPECT_THAT(readLines(), ElementsAre());
    letIdleTimeRunOut();
    EXPECT_NE(conn.hasTimedOut(), 0) << "the idle time ends it";
}

TEST_F(TelnetConn, ReportsAPeerThatClosed)
{
    pair->client.close();
    EXPECT_TRUE(waitUntil([&] { return conn.readCmd() == -1; }));
}

TEST_F(TelnetConn, ReportsAPeerThatClosedBehindALine)
{
    ASSERT_TRUE(client().send("A\r\n"));
    pair->client.close();
    ASSERT_TRUE(hasArrived(conn.fd, 3));
    EXPECT_THAT(readLines(), ElementsAre("A"));
    EXPECT_TRUE(waitUntil([&] { return conn.readCmd() == -1; }));
}

TEST_F(TelnetConn, KeepsAPeerThatClosedBehindHalfALineAndRests)
{
    ASSERT_TRUE(client().send("A"));
    pair->client.shutDown();
    ASSERT_TRUE(hasArrived(conn.fd, 1));
    const Instant before = instantNow();
    for (int i = 0; conn.wantsInput; ++i) {
        ASSERT_LT(i, 3);
        waitForLook(conn);
        EXPECT_THAT(readLines(), ElementsAre());
    }
    expectRest(before, TPortConn::REST_TIME);
    EXPECT_EQ(conn.readCmd(), 0);
    EXPECT_FALSE(conn.wantsInput) << "time and again";
}

TEST_F(TelnetConn, ReportsAPeerThatHasResetAtTheSecondLook)
{
    EXPECT_EQ(conn.readCmd(), 0);
    pair->client.reset();
    EXPECT_LE(looksUntilResult(), 2) << "the error is reported once, then there is nothing more to read";
    EXPECT_EQ(result, -1);
}

TEST_F(TelnetConn, YieldsNothingOnADescriptorThatNoSetHolds)
{
    for (const int fd : {-1, FD_SETSIZE, FD_SETSIZE + 1, 1'000'000}) {
        TTelnetConn other(2, 0);
        other.fd = fd;
        EXPECT_EQ(other.readCmd(), 0) << fd;
        other.fd = -1;
    }
}

TEST_F(TelnetConn, DoesNotWakeTheLoopForAHalfTypedLineUntilMoreArrives)
{
    EXPECT_THAT(sendAndRead("ab"), ElementsAre());
    EXPECT_TRUE(conn.wantsInput);
    EXPECT_FALSE(wouldBeLookedAt(conn));
    ASSERT_TRUE(client().send("c"));
    EXPECT_TRUE(waitUntil([&] { return wouldBeLookedAt(conn); }));
    EXPECT_THAT(readLines(), ElementsAre());
    EXPECT_FALSE(wouldBeLookedAt(conn));
    EXPECT_THAT(sendAndRead("\r", 3), ElementsAre("abc"));
    ASSERT_TRUE(client().send("d"));
    EXPECT_TRUE(waitUntil([&] { return wouldBeLookedAt(conn); })) << "a single byte of the next line wakes it again";
    EXPECT_THAT(readLines(), ElementsAre());
}

// --- server echo

TEST_F(TelnetConn, EchoesEveryByteOfAPlainClientOnce)
{
    conn.setEcho(1);
    EXPECT_THAT(sendAndRead("a"), ElementsAre());
    EXPECT_EQ(client().receive(1), "a");
    EXPECT_EQ(conn.readCmd(), 0);
    EXPECT_EQ(conn.readCmd(), 0);
    EXPECT_THAT(sendAndRead("b", 1), ElementsAre());
    EXPECT_EQ(client().receive(1), "b");
    EXPECT_EQ(conn.echoPos, 2);
    EXPECT_THAT(sendAndRead("\r\n", 2), ElementsAre("ab"));
    EXPECT_EQ(readable(client().receive(2)), "\\r\\n");
    EXPECT_EQ(conn.echoPos, 0);
    EXPECT_THAT(sendAndRead("xy\n"), ElementsAre("xy"));
    EXPECT_EQ(readable(client().receive(3)), "xy\\n");
    EXPECT_EQ(readable(client().received()), "");
}

TEST_F(TelnetConn, EchoesTheBytesAsTheyCame)
{
    conn.setEcho(1);
    const std::string bytes = "%s%n\x07\x1B[A\0\xFF\xF4\x7F\r\n"s;
    sendAndRead(bytes);
    EXPECT_EQ(readable(client().receive(bytes.size())), readable(bytes));
}

TEST_F(TelnetConn, EchoesOnlyAFullBufferOfALineWithoutEnd)
{
    conn.setEcho(1);
    sendAndRead(std::string(2000, 'x'));
    conn.readCmd();
    EXPECT_EQ(client().receive(1024), std::string(1024, 'x'));
    EXPECT_EQ(client().received(), "");
}

TEST_F(TelnetConn, EchoesNothingWithoutServerEcho)
{
    conn.setEcho(0);
    sendAndRead("secret\r\n");
    EXPECT_EQ(client().received(), "");
    EXPECT_EQ(conn.echoPos, 0);
}

// --- urgent data

TEST_F(TelnetConn, ThrowsUrgentDataAwayAndReadsNothingElseInThatPass)
{
    sendAndArrive("A\r\n");
    sendUrgent();
    EXPECT_EQ(conn.readCmd(), 0);
    EXPECT_EQ(conn.rxLen, 0);
    EXPECT_TRUE(wouldBeLookedAt(conn));
    EXPECT_THAT(readLines(), ElementsAre("A"));
    EXPECT_EQ(conn.readCmd(), 0) << "it is gone";
    EXPECT_FALSE(wouldBeLookedAt(conn));
}

TEST_F(TelnetConn, ReportsAPeerThatEndsWithAnUrgentByteNotTaken)
{
    struct Row {
        const char* behaviour;
        std::string line;
        bool reset;
        Texts lines; ///< that come before the end
    };
    const Row rows[] = {
        {"a reset", "", true, {}},
        {"a reset behind half a line", "A", true, {}},
        {"a reset behind a line", "A\r\n", true, {"A"}},
        {"a close", "", false, {}},
        {"a close behind a line", "A\r\n", false, {"A"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        pair = std::make_unique<TcpPair>();
        TTelnetConn ending(2, 0);
        ending.fd = pair->releaseServer();
        ASSERT_TRUE(client().send(row.line));
        ASSERT_TRUE(client().send("!", MSG_OOB));
        ASSERT_TRUE(waitUntil([&] {
            pollfd urgent{ending.fd, POLLPRI, 0};
            return ::poll(&urgent, 1, 0) == 1;
        }));
        if (row.reset)
            pair->client.reset();
        else
            pair->client.close();
        ASSERT_TRUE(waitUntil([&] {
            pollfd gone{ending.fd, POLLRDHUP, 0};
            return ::poll(&gone, 1, 0) == 1;
        }));
        ending.due = NEVER; // only the descriptor tells
        Texts lines;
        int count = 0;
        for (result = 0; result != -1; ++count) {
            ASSERT_LT(count, 4) << "a look for the urgent byte, one for the line, one for the error, one for the end";
            ASSERT_TRUE(wouldBeLookedAt(ending));
            result = ending.readCmd();
            if (result > 0) lines = linesOf(ending, result);
        }
        EXPECT_LE(count, row.lines.empty() ? 2 : 4);
        EXPECT_EQ(lines, row.lines);
    }
}

TEST_F(TelnetConn, KeepsALineWithAnUrgentMarkInItsMiddleAndRests)
{
    EXPECT_THAT(sendAndRead("ab"), ElementsAre());
    sendUrgent();
    ASSERT_TRUE(client().send("c\r\n"));
    const Instant before = instantNow();
    for (int i = 0; conn.wantsInput; ++i) {
        ASSERT_LT(i, 5);
        waitForLook(conn);
        EXPECT_THAT(readLines(), ElementsAre()) << "what is behind the mark cannot be seen";
    }
    expectRest(before, TPortConn::REST_TIME);
}

TEST_F(TelnetConn, TakesASynchWithItsDataMarkForText)
{
    ASSERT_TRUE(client().send("\xFF", MSG_OOB));
    ASSERT_TRUE(client().send("\xF2s3.ENC X\r\n"));
    Texts lines;
    ASSERT_TRUE(waitUntil([&] {
        lines = readLines();
        return result != 0;
    }));
    EXPECT_THAT(lines, ElementsAre("\xF2s3.ENC X"));
}

// --- time-out and writing

TEST_F(TelnetConn, ArmsTheIdleTimerWithEveryLine)
{
    letIdleTimeRunOut();
    EXPECT_NE(conn.hasTimedOut(), 0);
    sendAndRead("\r\n");
    EXPECT_NE(conn.hasTimedOut(), 0) << "no line";
    sendAndRead("A");
    EXPECT_NE(conn.hasTimedOut(), 0) << "half a line";
    sendAndRead("\n", 1);
    EXPECT_EQ(conn.hasTimedOut(), 0) << "a line";
}

TEST_F(TelnetConn, WritesTheTextOfARecordAndArmsTheIdleTimer)
{
    for (const std::string& text : {"OK\r\n\r\n"s, "?\r\n"s, "\xE4%s%n\r\n"s, std::string(8175, 'x')}) {
        TOrbAttachmentMsg record = recordWith(text);
        record.tag = 0x1234'5678;
        letIdleTimeRunOut();
        EXPECT_EQ(conn.write(&record), 0);
        EXPECT_EQ(conn.hasTimedOut(), 0);
        EXPECT_EQ(readable(client().receive(text.size())), readable(text));
        EXPECT_EQ(record.tag, 0x1234'5678U);
    }
    EXPECT_EQ(client().received(), "");
    letIdleTimeRunOut();
    EXPECT_EQ(conn.writeText("\r\n"), 0);
    EXPECT_EQ(conn.hasTimedOut(), 0);
    EXPECT_EQ(readable(client().receive(2)), "\\r\\n");
}

TEST_F(TelnetConn, StopsATextWithoutNulAtTheRecordsEnd)
{
    TOrbAttachmentMsg record{};
    std::fill(std::begin(record.text), std::end(record.text), 'x');
    EXPECT_EQ(conn.write(&record), 0);
    EXPECT_EQ(client().receive(8175), std::string(8175, 'x'));
    EXPECT_EQ(client().received(), "");
}

TEST_F(TelnetConn, LogsEveryWriteToAClientThatHasReset)
{
    pair->client.reset();
    TOrbAttachmentMsg record = recordWith("OK\r\n\r\n");
    letIdleTimeRunOut();
    const LogCapture log;
    EXPECT_EQ(conn.write(&record), 1);
    EXPECT_EQ(conn.write(&record), 1);
    EXPECT_THAT(log.lines(), ElementsAre(writeFailed, writeFailed));
    EXPECT_NE(conn.hasTimedOut(), 0) << "a write that fails does not count";
    EXPECT_EQ(conn.writeText("\r\n"), 1);
    EXPECT_EQ(log.lines().size(), 2U) << "writeText() does not log";
    EXPECT_NE(conn.hasTimedOut(), 0);
}

TEST_F(TelnetConn, RaisesABrokenPipeWithAnAnswerAndNoneWithAnEchoOrAnOption)
{
    blockWayToClient();
    const BrokenPipes brokenPipes;
    conn.serverEcho = 1;
    EXPECT_THAT(sendAndRead("ENC\r\n"), ElementsAre("ENC"));
    conn.lineMode = 1;
    conn.setEcho(0);
    EXPECT_EQ(brokenPipes.count(), 0);
    TOrbAttachmentMsg record = recordWith("OK\r\n\r\n");
    const LogCapture log;
    EXPECT_EQ(conn.write(&record), 1);
    EXPECT_EQ(brokenPipes.count(), 1);
    EXPECT_EQ(conn.writeText("\r\n"), 1);
    EXPECT_EQ(brokenPipes.count(), 2);
}

TEST_F(TelnetConn, FailsToWriteToAClientThatDoesNotReadAndDoesNotWaitForIt)
{
    TOrbAttachmentMsg record = recordWith(std::string(8000, 'x'));
    const LogCapture log;
    int written = 0;
    while (conn.write(&record) == 0)
        ASSERT_LT(++written, 10'000);
    EXPECT_GT(written, 0);
    EXPECT_THAT(log.lines(), ElementsAre(writeFailed));
    EXPECT_EQ(fewestSleeps([&] { (void)conn.write(&record); }), 0);
}

TEST_F(TelnetConn, ClosesItsDescriptorAtItsEnd)
{
    TcpPair other;
    {
        TTelnetConn ending(2, 0);
        ending.fd = other.releaseServer();
        EXPECT_EQ(other.client.received(), "");
    }
    EXPECT_EQ(other.client.receiveToEnd(), "");
}
