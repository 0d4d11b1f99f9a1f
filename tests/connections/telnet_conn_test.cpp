#include "connections/telnet_conn.h"

#include <fcntl.h>
#include <future>
#include <gmock/gmock.h>
#include <string>
#include <thread>
#include <vector>

#include "connections/waiting.h"
#include "tests/support/conn_texts.h"
#include "tests/support/in_background.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_network.h"
#include "tests/support/readable.h"
#include "tests/support/tcp_pair.h"
#include "tests/support/waiting.h"

using namespace std::string_literals;
using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

const LogLine writeFailed{6004, "Error writting to the telnet socket"};

const std::string OFFERS = "\xFF\xFD\x03\xFF\xFD\x22";
const std::string MODE_AND_SLC = "\xFF\xFA\x22\x01\x01\xFF\xF0\xFF\xFA\x22\x03\x11\x02\x0D\x12\x02\x0D\xFF\xF0";
const std::string MODE_ACK = "\xFF\xFA\x22\x01\x05\xFF\xF0";
const std::string SLC_ACK = "\xFF\xFA\x22\x03\x11\x82\x0D\x12\x82\x0D\xFF\xF0";
const std::string WILL_ECHO = "\xFF\xFB\x01";
const std::string WONT_ECHO = "\xFF\xFC\x01";
const std::string DO_ECHO = "\xFF\xFD\x01";
const std::string DONT_ECHO = "\xFF\xFE\x01";
const std::string WILL_LINEMODE = "\xFF\xFB\x22";

class TelnetConn : public testing::Test {
protected:
    void SetUp() override
    {
        if (!privateNetworkProblem().empty()) GTEST_SKIP() << privateNetworkProblem();
        g_endWaits = false;
        pair = std::make_unique<TcpPair>();
        conn.fd = pair->releaseServer();
    }
    void TearDown() override { g_endWaits = false; }

    const TcpClient& client() const { return pair->client; }

    Texts readLines()
    {
        result = conn.readCmd();
        return linesOf(conn, result);
    }

    /// The lines of the read after the bytes have arrived; `waiting` have already.
    Texts sendAndRead(std::string_view bytes, std::size_t waiting = 0)
    {
        EXPECT_TRUE(client().send(bytes));
        EXPECT_TRUE(hasArrived(conn.fd, waiting + bytes.size()));
        return readLines();
    }

    /// From now on the connection cannot send, as when a client that does not read has filled its way, but at once.
    void blockWayToClient() const { ASSERT_EQ(::shutdown(conn.fd, SHUT_WR), 0); }

    /// Nobody answers.
    void expectEchoSwitchOfASecond()
    {
        InBackground switching([this] {
            conn.setEcho(0);
            return 0;
        });
        switching.wait();
        EXPECT_GE(switching.wallMs(), 1000);
        EXPECT_LT(switching.wallMs(), atMost(1900));
        EXPECT_LT(switching.cpuMs(), atMost(100));
    }

    std::unique_ptr<TcpPair> pair;
    TTelnetConn conn{2, 0xAA01'0000};
    int result = 0; ///< of the last read
};

/// How a negotiation has gone.
struct Negotiated {
    int result;
    int lineMode, serverEcho;
    double wallMs, cpuMs;
};

/// Negotiates with the client of a pair, in a thread of its own.
std::future<Negotiated> negotiationWith(TcpPair& pair)
{
    return std::async(std::launch::async, [fd = pair.releaseServer()] {
        const auto conn = std::make_unique<TTelnetConn>(2, 0);
        conn->fd = fd;
        const Stopwatch watch;
        const double before = threadCpuMs();
        const int result = conn->negotiateOptions();
        return Negotiated{result, conn->lineMode, conn->serverEcho, watch.ms(), threadCpuMs() - before};
    });
}

} // namespace

TEST_F(TelnetConn, StartsNotLoggedInWithoutLinemodeAndWithoutEcho)
{
    const TTelnetConn fresh(2, 0xAA02'0000);
    EXPECT_EQ(fresh.fd, -1);
    EXPECT_EQ(fresh.loginState, 0);
    EXPECT_EQ(fresh.lineMode, 0);
    EXPECT_EQ(fresh.serverEcho, 0);
    EXPECT_EQ(fresh.echoPos, 0);
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
    conn.idleTimer.setTimeOut({0, 0});
    InBackground negotiation([&] { return conn.negotiateOptions(); });
    EXPECT_EQ(negotiation.wait(), 0);
    EXPECT_GE(negotiation.wallMs(), 1000);
    EXPECT_LT(negotiation.wallMs(), atMost(1900));
    EXPECT_LT(negotiation.cpuMs(), atMost(100));
    EXPECT_EQ(conn.lineMode, 0);
    EXPECT_EQ(conn.serverEcho, 1);
    EXPECT_FALSE(conn.hasTimedOut());
    EXPECT_EQ(readable(client().received()), "") << "nothing before the client has sent a command";
}

TEST_F(TelnetConn, TakesAClientThatSendsDataForAPlainOneAtOnceAndLeavesItsData)
{
    ASSERT_TRUE(client().send("alice\r\n"));
    ASSERT_TRUE(hasArrived(conn.fd, 7));
    const Stopwatch watch;
    EXPECT_EQ(conn.negotiateOptions(), 0);
    EXPECT_LT(watch.ms(), atMost(900));
    EXPECT_EQ(conn.serverEcho, 1);
    EXPECT_EQ(conn.lineMode, 0);
    EXPECT_EQ(readable(client().received()), "");
    EXPECT_THAT(readLines(), ElementsAre("alice"));
}

TEST_F(TelnetConn, StartsTheSecondAfreshWithEveryStepOfACommand)
{
    InBackground negotiation([&] { return conn.negotiateOptions(); });
    for (const char* const piece : {"\xFF", "\xFA\x18"}) { // to be late is the case here
        std::this_thread::sleep_for(std::chrono::milliseconds(600));
        ASSERT_TRUE(client().send(piece));
    }
    EXPECT_EQ(negotiation.wait(), 0);
    EXPECT_GE(negotiation.wallMs(), 2100) << "600 ms, 600 ms, and a second";
    EXPECT_LT(negotiation.wallMs(), atMost(3200));
    EXPECT_EQ(conn.serverEcho, 1);
    EXPECT_EQ(readable(client().received()), "") << "no whole command has come";
}

namespace {

/// What a real client sends, and what it must get to see.
struct RealClient {
    const char* name;
    std::string first;   ///< before it has got anything
    std::string answers; ///< to the offers
    std::string seen;    ///< all that it gets
    bool linemode;       ///< and so does acknowledge MODE and SLC
};

const std::string SLC_LIST_A =
    "\xFF\xFA\x22\x03\x01\x00\x00\x03\x62\x03\x04\x02\x0F\x05\x00\x00\x07\x62\x1C\x08\x02\x04\x09\x42\x1A\x0A\x02\x7F"
    "\x0B\x02\x15\x0C\x02\x17\x0D\x02\x12\x0E\x02\x16\x0F\x02\x11\x10\x02\x13\x11\x00\x00\x12\x00\x00\xFF\xF0"s;
const std::string SLC_LIST_B =
    "\xFF\xFA\x22\x03\x01\x00\x00\x03\x00\x00\x04\x00\x00\x05\x00\x00\x07\x00\x00\x08\x00\x00\x09\x00\x00\x0A\x00\x00"
    "\x0B\x00\x00\x0C\x00\x00\x0D\x00\x00\x0E\x00\x00\x0F\x00\x00\x10\x00\x00\x11\x00\x00\x12\x00\x00\xFF\xF0"s;
const std::string SLC_LIST_C =
    "\xFF\xFA\x22\x03\x01\x00\x00\x03\x62\x03\x04\x02\x0F\x05\x00\x00\x07\x62\x1C\x08\x02\x04\x09\x42\x1A\x0A\x02\x7F"
    "\x0B\x02\x15\x0F\x02\x11\x10\x02\x13\x11\x00\x00\x12\x00\x00\xFF\xF0"s;

const RealClient realClients[] = {
    {"inetutils telnet HOST",
     "\xFF\xFD\x26\xFF\xFB\x26\xFF\xFD\x03\xFF\xFB\x18\xFF\xFB\x1F\xFF\xFB\x20\xFF\xFB\x21\xFF\xFB\x22\xFF\xFB\x27"
     "\xFF\xFD\x05",
     "\xFF\xFB\x03" + SLC_LIST_A + "\xFF\xFD\x03",
     OFFERS + "\xFF\xFC\x26\xFF\xFC\x26\xFF\xFC\x18\xFF\xFC\x1F\xFF\xFC\x20\xFF\xFC\x21\xFF\xFC\x27\xFF\xFC\x05" +
         MODE_AND_SLC,
     true},
    {"inetutils telnet HOST, its input a pipe",
     "\xFF\xFD\x26\xFF\xFB\x26\xFF\xFD\x03\xFF\xFB\x18\xFF\xFB\x1F\xFF\xFB\x20\xFF\xFB\x21\xFF\xFB\x22\xFF\xFB\x27"
     "\xFF\xFD\x05",
     "\xFF\xFB\x03" + SLC_LIST_B + "\xFF\xFD\x03",
     OFFERS + "\xFF\xFC\x26\xFF\xFC\x26\xFF\xFC\x18\xFF\xFC\x1F\xFF\xFC\x20\xFF\xFC\x21\xFF\xFC\x27\xFF\xFC\x05" +
         MODE_AND_SLC,
     true},
    {"telnet-ssl",
     "\xFF\xFB\x27\xFF\xFB\x25\xFF\xFD\x03\xFF\xFB\x18\xFF\xFB\x1F\xFF\xFB\x20\xFF\xFB\x21\xFF\xFB\x22\xFF\xFD\x05",
     "\xFF\xFB\x03" + SLC_LIST_C + "\xFF\xFD\x03",
     OFFERS + "\xFF\xFC\x27\xFF\xFC\x25\xFF\xFC\x18\xFF\xFC\x1F\xFF\xFC\x20\xFF\xFC\x21\xFF\xFC\x05" + MODE_AND_SLC,
     true},
    {"plink -telnet", "\xFF\xFB\x1F\xFF\xFB\x20\xFF\xFB\x18\xFF\xFB\x27\xFF\xFD\x01\xFF\xFB\x03\xFF\xFD\x03",
     "\xFF\xFC\x22", OFFERS + "\xFF\xFC\x1F\xFF\xFC\x20\xFF\xFC\x18\xFF\xFC\x27", false},
    {"C-Kermit", "\xFF\xFB\x25\xFF\xFB\x1F\xFF\xFB\x18\xFF\xFB\x27\xFF\xFB\x2C", "\xFF\xFB\x03\xFF\xFC\x22",
     OFFERS + "\xFF\xFC\x25\xFF\xFC\x1F\xFF\xFC\x18\xFF\xFC\x27\xFF\xFC\x2C", false},
    {"gensiot with rfc2217", "\xFF\xFB\x2C", "\xFF\xFB\x03\xFF\xFC\x22", OFFERS + "\xFF\xFC\x2C", false},
};

} // namespace

TEST_F(TelnetConn, ComesToTermsWithRealClients)
{
    for (const RealClient& row : realClients) {
        SCOPED_TRACE(row.name);
        TcpPair own;
        TTelnetConn negotiating(2, 0);
        negotiating.fd = own.releaseServer();
        InBackground negotiation([&] { return negotiating.negotiateOptions(); });
        EXPECT_TRUE(own.client.send(row.first));
        std::string seen = own.client.receive(OFFERS.size());
        EXPECT_EQ(readable(seen), readable(OFFERS));
        EXPECT_TRUE(own.client.send(row.answers));
        if (row.linemode) {
            seen += own.client.receive(row.seen.size() - seen.size());
            EXPECT_TRUE(own.client.send(MODE_ACK + SLC_ACK));
        }
        EXPECT_EQ(negotiation.wait(), 0);
        seen += own.client.received();
        EXPECT_EQ(readable(seen), readable(row.seen));
        EXPECT_EQ(negotiating.lineMode, row.linemode ? 1 : 0);
        EXPECT_EQ(negotiating.serverEcho, row.linemode ? 0 : 1);
        if (row.linemode)
            EXPECT_LT(negotiation.wallMs(), atMost(900)) << "LINEMODE is settled with the last answer";
        else
            EXPECT_GE(negotiation.wallMs(), 1000) << "a second of silence ends it";
        EXPECT_LT(negotiation.wallMs(), atMost(1900));
    }
}

TEST_F(TelnetConn, RefusesUnknownOptionsAlwaysWithWont)
{
    struct Row {
        const char* command;
        std::string answer;
    };
    const Row rows[] = {
        {"\xFF\xFD\x18", "\xFF\xFC\x18"},  // DO
        {"\xFF\xFB\x18", "\xFF\xFC\x18"},  // WILL
        {"\xFF\xFC\x18", ""},              // WONT
        {"\xFF\xFE\x18", ""},              // DONT
        {"\xFF\xFD\x01", ""},              // DO ECHO
        {"\xFF\xFB\x01", ""},              // WILL ECHO
        {"\xFF\xFD\x03", ""},              // DO SUPPRESS-GO-AHEAD
        {"\xFF\xFB\x03", ""},              // WILL SUPPRESS-GO-AHEAD
        {"\xFF\xFD\x22", ""},              // DO LINEMODE
        {"\xFF\xFC\x22", ""},              // WONT LINEMODE
        {"\xFF\xF6\xF6", ""},              // no option at all
        {"\xFF\xFD\xFF", "\xFF\xFC\xFF"s}, // the highest option
        {"\xFF\xFB\xC8\xFF\xFD\xC8", "\xFF\xFC\xC8\xFF\xFC\xC8"},
    };
    std::vector<std::unique_ptr<TcpPair>> pairs;
    std::vector<std::future<Negotiated>> negotiations;
    for (const Row& row : rows) { // all at once: each lasts a second
        pairs.push_back(std::make_unique<TcpPair>());
        ASSERT_TRUE(pairs.back()->client.send(row.command));
        negotiations.push_back(negotiationWith(*pairs.back()));
    }
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(readable(rows[i].command));
        const Negotiated outcome = negotiations[i].get();
        EXPECT_EQ(outcome.result, 0);
        EXPECT_EQ(outcome.lineMode, 0);
        EXPECT_EQ(outcome.serverEcho, 1);
        EXPECT_EQ(readable(pairs[i]->client.receiveToEnd()), readable(OFFERS + rows[i].answer));
    }
}

TEST_F(TelnetConn, NegotiatesWithAClientThatSendsByteByByte)
{
    InBackground negotiation([&] { return conn.negotiateOptions(); });
    for (const char c : WILL_LINEMODE + SLC_LIST_A)
        ASSERT_TRUE(client().send({&c, 1}));
    EXPECT_EQ(readable(client().receive(OFFERS.size() + MODE_AND_SLC.size())), readable(OFFERS + MODE_AND_SLC));
    for (const char c : SLC_ACK + MODE_ACK)
        ASSERT_TRUE(client().send({&c, 1}));
    EXPECT_EQ(negotiation.wait(), 0);
    EXPECT_LT(negotiation.wallMs(), atMost(1000));
    EXPECT_EQ(conn.lineMode, 1);
}

TEST_F(TelnetConn, SpeaksLinemodeWithAClientThatSaysItWillButNegotiatesNoMore)
{
    ASSERT_TRUE(client().send(WILL_LINEMODE));
    EXPECT_EQ(conn.negotiateOptions(), 0);
    EXPECT_EQ(conn.lineMode, 1);
    EXPECT_EQ(conn.serverEcho, 0);
    EXPECT_EQ(readable(client().received()), readable(OFFERS)) << "MODE and SLC wait for its first sub-negotiation";
}

TEST_F(TelnetConn, EndsTheNegotiationAtASubNegotiationOfAnotherOption)
{
    ASSERT_TRUE(client().send("\xFF\xFA\x18\x00XTERM\xFF\xF0\xFF\xFB\x18"s));
    ASSERT_TRUE(hasArrived(conn.fd, 14));
    const Stopwatch watch;
    EXPECT_EQ(conn.negotiateOptions(), 0);
    EXPECT_LT(watch.ms(), atMost(900));
    EXPECT_EQ(conn.serverEcho, 1);
    EXPECT_EQ(readable(client().received()), readable(OFFERS));
    EXPECT_TRUE(hasArrived(conn.fd, 3)) << "what follows is left for the reader";
}

TEST_F(TelnetConn, SendsModeAndSlcForALinemodeSubNegotiationWithoutWillLinemodeToo)
{
    ASSERT_TRUE(client().send(MODE_ACK + SLC_ACK));
    EXPECT_EQ(conn.negotiateOptions(), 0);
    EXPECT_EQ(conn.lineMode, 0);
    EXPECT_EQ(conn.serverEcho, 1) << "a plain client: it has not said WILL";
    EXPECT_EQ(readable(client().received()), readable(OFFERS + MODE_AND_SLC));
}

TEST_F(TelnetConn, AnswersOffersBetweenTheLinemodeAnswers)
{
    ASSERT_TRUE(client().send(WILL_LINEMODE + SLC_LIST_A + "\xFF\xFB\x18" + MODE_ACK + "\xFF\xFA\x18\x01\xFF\xF0" +
                              "\xFF\xFD\x1F" + SLC_ACK + "alice\r\n"));
    EXPECT_EQ(conn.negotiateOptions(), 0);
    EXPECT_EQ(conn.lineMode, 1);
    EXPECT_EQ(readable(client().received()), readable(OFFERS + MODE_AND_SLC + "\xFF\xFC\x18\xFF\xFC\x1F"));
    EXPECT_THAT(readLines(), ElementsAre("alice"));
}

TEST_F(TelnetConn, LeavesDataInTheMiddleOfTheLinemodeAnswersAlone)
{
    ASSERT_TRUE(client().send(WILL_LINEMODE + SLC_LIST_A + "alice\r\n" + MODE_ACK));
    const Stopwatch watch;
    EXPECT_EQ(conn.negotiateOptions(), 0);
    EXPECT_LT(watch.ms(), atMost(900));
    EXPECT_EQ(conn.lineMode, 1);
    EXPECT_THAT(readLines(), ElementsAre("alice", MODE_ACK)) << "it stays in the text";
}

TEST_F(TelnetConn, FailsToNegotiateWithAClientThatHasReset)
{
    pair->client.reset();
    const Stopwatch watch;
    EXPECT_EQ(conn.negotiateOptions(), 1);
    EXPECT_LT(watch.ms(), atMost(900));
}

TEST_F(TelnetConn, FailsToNegotiateWithAClientThatTakesNoOffers)
{
    ASSERT_TRUE(client().send(WILL_LINEMODE));
    ASSERT_TRUE(hasArrived(conn.fd, 3));
    blockWayToClient();
    const Stopwatch watch;
    EXPECT_EQ(conn.negotiateOptions(), 1);
    EXPECT_LT(watch.ms(), atMost(900));
    EXPECT_EQ(conn.lineMode, 0) << "its command is not looked at any more";
}

TEST_F(TelnetConn, FailsToNegotiateWithAClientThatTakesTheOffersButNotModeAndSlc)
{
    ASSERT_TRUE(client().send(WILL_LINEMODE));
    InBackground negotiation([&] { return conn.negotiateOptions(); });
    EXPECT_EQ(readable(client().receive(OFFERS.size())), readable(OFFERS));
    blockWayToClient();
    ASSERT_TRUE(client().send("\xFF\xFB\x18" + SLC_LIST_A)); // the refusal that does not get out changes nothing
    EXPECT_EQ(negotiation.wait(), 1);
    EXPECT_LT(negotiation.wallMs(), atMost(900));
    EXPECT_EQ(conn.lineMode, 1);
}

TEST_F(TelnetConn, NegotiatesAsWithASilentClientWithOneThatHasClosed)
{
    pair->client.close();
    InBackground negotiation([&] { return conn.negotiateOptions(); });
    EXPECT_EQ(negotiation.wait(), 0);
    EXPECT_GE(negotiation.wallMs(), 1000);
    EXPECT_LT(negotiation.cpuMs(), atMost(100)) << "its end is readable all the time";
    EXPECT_EQ(conn.readCmd(), -1);
}

TEST_F(TelnetConn, EndsANegotiationSoonWhenTheDaemonIsToStop)
{
    g_endWaits = true;
    const Stopwatch watch;
    EXPECT_EQ(conn.negotiateOptions(), 0);
    EXPECT_LT(watch.ms(), atMost(500));
}

TEST_F(TelnetConn, GivesASubNegotiationWithoutEndASecond)
{
    struct Row {
        const char* behaviour;
        std::string bytes;
    };
    const Row rows[] = {
        {"cut short", "\xFF\xFA\x22\x03\x01"},
        {"IAC at its end", "\xFF\xFA\x22\x03\x01\xFF"},
        {"1023 bytes", "\xFF\xFA\x22" + std::string(1020, 'x')},
        {"1024 bytes", "\xFF\xFA\x22" + std::string(1021, 'x')},
        {"1025 bytes, ended", "\xFF\xFA\x22" + std::string(1020, 'x') + "\xFF\xF0"},
        {"64 kB", "\xFF\xFA\x22" + std::string(65000, 'x') + "\xFF\xF0"},
        {"IAC alone", "\xFF"},
        {"IAC SB alone", "\xFF\xFA"},
    };
    std::vector<std::unique_ptr<TcpPair>> pairs;
    std::vector<std::future<Negotiated>> negotiations;
    for (const Row& row : rows) {
        pairs.push_back(std::make_unique<TcpPair>());
        ASSERT_TRUE(pairs.back()->client.send(row.bytes, MSG_DONTWAIT)) << row.behaviour;
        negotiations.push_back(negotiationWith(*pairs.back()));
    }
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(rows[i].behaviour);
        const Negotiated outcome = negotiations[i].get();
        EXPECT_EQ(outcome.result, 0);
        EXPECT_EQ(outcome.serverEcho, 1);
        EXPECT_GE(outcome.wallMs, 1000);
        EXPECT_LT(outcome.wallMs, atMost(2900));
        EXPECT_LT(outcome.cpuMs, atMost(150));
    }
}

TEST_F(TelnetConn, GivesASubNegotiationThatTricklesInNoMoreThanThatSecond)
{
    ASSERT_TRUE(client().send("\xFF\xFA\x22"));
    InBackground negotiation([&] { return conn.negotiateOptions(); });
    for (int i = 0; i < 15 && !negotiation.done(); ++i) { // to go on for longer than the second is the case here
        ASSERT_TRUE(client().send("x"));
        waitUntil([&] { return negotiation.done(); }, std::chrono::milliseconds(300));
    }
    EXPECT_EQ(negotiation.wait(), 0);
    EXPECT_GE(negotiation.wallMs(), 1000);
    EXPECT_LT(negotiation.wallMs(), atMost(1900));
    EXPECT_EQ(conn.serverEcho, 1);
    EXPECT_EQ(readable(client().received()), "");
}

TEST_F(TelnetConn, TakesASubNegotiationOfExactlyItsBuffersSize)
{
    ASSERT_TRUE(
        client().send(WILL_LINEMODE + "\xFF\xFA\x22\x07" + std::string(1018, 'x') + "\xFF\xF0" + MODE_ACK + SLC_ACK));
    EXPECT_EQ(conn.negotiateOptions(), 0);
    EXPECT_EQ(conn.lineMode, 1);
    EXPECT_EQ(readable(client().received()), readable(OFFERS + MODE_AND_SLC));
}

TEST_F(TelnetConn, EndsANegotiationThatNeverEndsAfterFiveSeconds)
{
    struct Row {
        const char* behaviour;
        std::string first;
        std::string again; ///< every 20 ms
        double atLeastMs, atMostMs;
    };
    const Row rows[] = {
        {"commands that want no answer", "", "\xFF\xFC\x01", 4990, 6500},
        {"every refusal is answered with the offer", "\xFF\xFB\x18", "\xFF\xFB\x18", 4990, 6500},
        {"LINEMODE refused again and again", "\xFF\xFC\x22", "\xFF\xFC\x22", 4990, 6500},
        {"LINEMODE that is never acknowledged", WILL_LINEMODE + SLC_LIST_A, SLC_LIST_A, 4990, 6500},
    };
    std::vector<std::future<Negotiated>> negotiations;
    std::vector<std::unique_ptr<TcpPair>> pairs;
    for (const Row& row : rows) {
        pairs.push_back(std::make_unique<TcpPair>());
        ASSERT_TRUE(pairs.back()->client.send(row.first));
        negotiations.push_back(negotiationWith(*pairs.back()));
    }
    const Stopwatch watch;
    while (watch.ms() < 9000) {
        for (std::size_t i = 0; i < std::size(rows); ++i)
            (void)pairs[i]->client.send(rows[i].again, MSG_DONTWAIT); // fails when the other end has gone
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        bool done = true;
        for (const auto& negotiation : negotiations)
            done = done && negotiation.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        if (done) break;
    }
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(rows[i].behaviour);
        const Negotiated outcome = negotiations[i].get();
        EXPECT_EQ(outcome.result, 0);
        EXPECT_GE(outcome.wallMs, rows[i].atLeastMs);
        EXPECT_LT(outcome.wallMs, atMost(rows[i].atMostMs));
        EXPECT_LT(outcome.cpuMs, atMost(800));
    }
}

// --- echo

TEST_F(TelnetConn, SwitchesTheServersEchoForAPlainClientWithoutAByte)
{
    conn.setEcho(7);
    EXPECT_EQ(conn.serverEcho, 1);
    conn.setEcho(0);
    EXPECT_EQ(conn.serverEcho, 0);
    conn.setEcho(-1);
    EXPECT_EQ(conn.serverEcho, 1);
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
        {0, WILL_ECHO, "\xFF\xFE\x01\xFF\xFB\x01" + MODE_ACK + SLC_ACK + "\xFF\xF1\xF1" + DO_ECHO},
        {5, WONT_ECHO, DO_ECHO + DONT_ECHO},
    };
    conn.lineMode = 1;
    for (const Row& row : rows) {
        SCOPED_TRACE(readable(row.answer));
        InBackground switching([&] {
            conn.setEcho(row.on);
            return 0;
        });
        EXPECT_EQ(readable(client().receive(3)), readable(row.sent));
        EXPECT_TRUE(client().send(row.answer + "A\r\n"));
        switching.wait();
        EXPECT_LT(switching.wallMs(), atMost(900));
        EXPECT_TRUE(hasArrived(conn.fd, 3));
        EXPECT_THAT(readLines(), ElementsAre("A")) << "everything up to the answer is gone, nothing behind it";
        EXPECT_EQ(readable(client().received()), "") << "nothing in between is answered";
        EXPECT_EQ(conn.serverEcho, 0);
    }
}

TEST_F(TelnetConn, WaitsASecondOfSilenceForTheAnswerToAnEchoSwitch)
{
    conn.lineMode = 1;
    expectEchoSwitchOfASecond();
}

TEST_F(TelnetConn, WaitsForTheAnswerToAnEchoSwitchThatDidNotGetOutToo)
{
    conn.lineMode = 1;
    blockWayToClient();
    expectEchoSwitchOfASecond();
}

TEST_F(TelnetConn, EndsTheWaitForTheAnswerToAnEchoSwitchAtData)
{
    conn.lineMode = 1;
    ASSERT_TRUE(client().send("secret\r\n"));
    ASSERT_TRUE(hasArrived(conn.fd, 8));
    const Stopwatch watch;
    conn.setEcho(0);
    EXPECT_LT(watch.ms(), atMost(900));
    EXPECT_THAT(readLines(), ElementsAre("secret"));
}

TEST_F(TelnetConn, EndsTheWaitForTheAnswerToAnEchoSwitchAfterTwoSecondsOfOtherCommands)
{
    conn.lineMode = 1;
    for (int attempt = 0; attempt < 5; ++attempt) {
        InBackground switching([&] {
            conn.setEcho(0);
            return 0;
        });
        double longestSilence = 0;
        const Stopwatch watch;
        for (double last = 0; last < 2600; last = watch.ms()) {
            ASSERT_TRUE(client().send(DONT_ECHO));
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            longestSilence = std::max(longestSilence, watch.ms() - last);
        }
        switching.wait();
        if (longestSilence > 500) continue; // the machine was too busy, which says nothing
        EXPECT_GE(switching.wallMs(), 1990);
        EXPECT_LT(switching.wallMs(), atMost(2500));
        return;
    }
    FAIL() << "never without a silence of its client";
}

TEST_F(TelnetConn, SwitchesTheEchoOfAClientThatHasGoneWithoutEnd)
{
    conn.lineMode = 1;
    pair->client.reset();
    const Stopwatch watch;
    conn.setEcho(0);
    conn.setEcho(1);
    EXPECT_LT(watch.ms(), atMost(2900));
}

// --- reading

TEST_F(TelnetConn, YieldsNothingWhileNothingHasArrived)
{
    EXPECT_EQ(conn.readCmd(), 0);
    EXPECT_EQ(conn.rxLen, 0);
    EXPECT_FALSE(conn.rests());
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
    EXPECT_TRUE(conn.rests()) << "so that it does not wake the service loop again and again";
    EXPECT_THAT(readLines(), ElementsAre());
    conn.idleTimer.setTimeOut({0, 0});
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
    EXPECT_TRUE(waitUntil([&] {
        EXPECT_EQ(conn.readCmd(), 0);
        return conn.rests();
    }));
}

TEST_F(TelnetConn, StaysOpenAfterAReset)
{
    pair->client.reset();
    EXPECT_TRUE(waitUntil([&] {
        const int read = conn.readCmd(); // the error is reported once, then there is nothing more to read
        EXPECT_LE(read, 0);
        return read == -1;
    }));
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
    const auto readable = [&] {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(conn.fd, &set);
        timeval noWait{0, 0};
        return ::select(conn.fd + 1, &set, nullptr, nullptr, &noWait) == 1;
    };
    EXPECT_THAT(sendAndRead("ab"), ElementsAre());
    EXPECT_FALSE(readable());
    EXPECT_FALSE(conn.rests());
    ASSERT_TRUE(client().send("c"));
    EXPECT_TRUE(waitUntil(readable));
    EXPECT_THAT(readLines(), ElementsAre());
    EXPECT_FALSE(readable());
    EXPECT_THAT(sendAndRead("\r", 3), ElementsAre("abc"));
    ASSERT_TRUE(client().send("d"));
    EXPECT_TRUE(waitUntil(readable)) << "a single byte of the next line wakes it again";
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
    ASSERT_TRUE(client().send("A\r\n"));
    ASSERT_TRUE(hasArrived(conn.fd, 3));
    ASSERT_TRUE(client().send("\xF2", MSG_OOB));
    ASSERT_TRUE(waitUntil([&] {
        pollfd urgent{conn.fd, POLLPRI, 0};
        return ::poll(&urgent, 1, 0) == 1;
    }));
    EXPECT_EQ(conn.readCmd(), 0);
    EXPECT_EQ(conn.rxLen, 0);
    EXPECT_THAT(readLines(), ElementsAre("A"));
    EXPECT_EQ(conn.readCmd(), 0) << "it is gone";
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
    conn.idleTimer.setTimeOut({0, 0});
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
        conn.idleTimer.setTimeOut({0, 0});
        EXPECT_EQ(conn.write(&record), 0);
        EXPECT_EQ(conn.hasTimedOut(), 0);
        EXPECT_EQ(readable(client().receive(text.size())), readable(text));
        EXPECT_EQ(record.tag, 0x1234'5678U);
    }
    EXPECT_EQ(client().received(), "");
    conn.idleTimer.setTimeOut({0, 0});
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
    conn.idleTimer.setTimeOut({0, 0});
    const LogCapture log;
    EXPECT_EQ(conn.write(&record), 1);
    EXPECT_EQ(conn.write(&record), 1);
    EXPECT_THAT(log.lines(), ElementsAre(writeFailed, writeFailed));
    EXPECT_NE(conn.hasTimedOut(), 0) << "a write that fails does not count";
    EXPECT_EQ(conn.writeText("\r\n"), 1);
    EXPECT_EQ(log.lines().size(), 2U) << "writeText() does not log";
    EXPECT_NE(conn.hasTimedOut(), 0);
}

TEST_F(TelnetConn, FailsToWriteToAClientThatDoesNotReadAndDoesNotWaitForIt)
{
    TOrbAttachmentMsg record = recordWith(std::string(8000, 'x'));
    const LogCapture log;
    const Stopwatch watch;
    int written = 0;
    while (conn.write(&record) == 0)
        ASSERT_LT(++written, 10'000);
    EXPECT_GT(written, 0);
    EXPECT_LT(watch.ms(), atMost(5000));
    EXPECT_THAT(log.lines(), ElementsAre(writeFailed));
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
