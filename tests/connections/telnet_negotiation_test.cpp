#include "connections/telnet_negotiation.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "tests/support/readable.h"
#include "tests/support/telnet_conversation.h"

using namespace std::string_literals;
using telnet::Verdict;

namespace {

using Conversation = TelnetConversation<TelnetNegotiation>;

Conversation begin()
{
    return Conversation([](Instant now) { return TelnetNegotiation(now); });
}

/// A conversation, and what comes of it.
struct Row {
    std::string behaviour;
    std::vector<Piece> pieces;
    std::string sent;
    Verdict verdict;
    int overAt; ///< in milliseconds
    std::string left;
};

void expectOutcome(const Conversation& talk, const Row& row)
{
    EXPECT_EQ(readable(talk.sent()), readable(row.sent));
    EXPECT_STREQ(nameOf(talk.verdict()), nameOf(row.verdict));
    EXPECT_EQ(talk.now().count(), row.overAt);
    EXPECT_EQ(readable(talk.rest()), readable(row.left));
}

Conversation talkWith(const std::vector<Piece>& pieces)
{
    Conversation talk = begin();
    for (const Piece& piece : pieces) {
        talk.passTo(std::chrono::milliseconds(piece.at));
        talk.hear(piece.bytes);
    }
    talk.passTo(std::chrono::seconds(60));
    return talk;
}

/// In the pieces given, and byte by byte, which must come to the same.
template <std::size_t Count> void expectOutcomes(const Row (&rows)[Count])
{
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        expectOutcome(talkWith(row.pieces), row);
        std::vector<Piece> bytes;
        for (const Piece& piece : row.pieces)
            for (const char byte : piece.bytes)
                bytes.push_back({piece.at, {byte}});
        SCOPED_TRACE("byte by byte");
        expectOutcome(talkWith(bytes), row);
    }
}

const std::string SLC_LIST_A =
    "\xFF\xFA\x22\x03\x01\x00\x00\x03\x62\x03\x04\x02\x0F\x05\x00\x00\x07\x62\x1C\x08\x02\x04\x09\x42\x1A\x0A\x02\x7F"
    "\x0B\x02\x15\x0C\x02\x17\x0D\x02\x12\x0E\x02\x16\x0F\x02\x11\x10\x02\x13\x11\x00\x00\x12\x00\x00\xFF\xF0"s;
const std::string SLC_LIST_B =
    "\xFF\xFA\x22\x03\x01\x00\x00\x03\x00\x00\x04\x00\x00\x05\x00\x00\x07\x00\x00\x08\x00\x00\x09\x00\x00\x0A\x00\x00"
    "\x0B\x00\x00\x0C\x00\x00\x0D\x00\x00\x0E\x00\x00\x0F\x00\x00\x10\x00\x00\x11\x00\x00\x12\x00\x00\xFF\xF0"s;
const std::string SLC_LIST_C =
    "\xFF\xFA\x22\x03\x01\x00\x00\x03\x62\x03\x04\x02\x0F\x05\x00\x00\x07\x62\x1C\x08\x02\x04\x09\x42\x1A\x0A\x02\x7F"
    "\x0B\x02\x15\x0F\x02\x11\x10\x02\x13\x11\x00\x00\x12\x00\x00\xFF\xF0"s;

const std::string INETUTILS = "\xFF\xFD\x26\xFF\xFB\x26\xFF\xFD\x03\xFF\xFB\x18\xFF\xFB\x1F\xFF\xFB\x20\xFF\xFB\x21"
                              "\xFF\xFB\x22\xFF\xFB\x27\xFF\xFD\x05";
const std::string INETUTILS_REFUSED =
    "\xFF\xFC\x26\xFF\xFC\x26\xFF\xFC\x18\xFF\xFC\x1F\xFF\xFC\x20\xFF\xFC\x21\xFF\xFC\x27\xFF\xFC\x05";
const std::string TELNET_SSL = "\xFF\xFB\x27\xFF\xFB\x25\xFF\xFD\x03\xFF\xFB\x18\xFF\xFB\x1F\xFF\xFB\x20\xFF\xFB\x21"
                               "\xFF\xFB\x22\xFF\xFD\x05";
const std::string TELNET_SSL_REFUSED =
    "\xFF\xFC\x27\xFF\xFC\x25\xFF\xFC\x18\xFF\xFC\x1F\xFF\xFC\x20\xFF\xFC\x21\xFF\xFC\x05";
const std::string PLINK = "\xFF\xFB\x1F\xFF\xFB\x20\xFF\xFB\x18\xFF\xFB\x27\xFF\xFD\x01\xFF\xFB\x03\xFF\xFD\x03";
const std::string PLINK_REFUSED = "\xFF\xFC\x1F\xFF\xFC\x20\xFF\xFC\x18\xFF\xFC\x27";
const std::string KERMIT = "\xFF\xFB\x25\xFF\xFB\x1F\xFF\xFB\x18\xFF\xFB\x27\xFF\xFB\x2C";
const std::string KERMIT_REFUSED = "\xFF\xFC\x25\xFF\xFC\x1F\xFF\xFC\x18\xFF\xFC\x27\xFF\xFC\x2C";

/// A real client that does LINEMODE: it answers the offers after 3 ms, MODE and SLC after 40.
Row lineModeClient(const char* name, int at, const std::string& first, const std::string& refused,
                   const std::string& slcList)
{
    return {name,
            {{at, first}, {at + 3, "\xFF\xFB\x03" + slcList + "\xFF\xFD\x03"}, {at + 43, MODE_ACK + SLC_ACK}},
            OFFERS + refused + MODE_AND_SLC,
            Verdict::lineMode,
            at + 43,
            ""};
}

/// A real client that speaks telnet but no LINEMODE: it answers the offers after 3 ms.
Row plainClient(const char* name, int at, const std::string& first, const std::string& answers,
                const std::string& refused)
{
    return {name, {{at, first}, {at + 3, answers}}, OFFERS + refused, Verdict::plain, at + 1003, ""};
}

} // namespace

TEST(TelnetNegotiation, ComesToTermsWithRealClientsThatSpeakFirst)
{
    const Row rows[] = {
        lineModeClient("inetutils telnet HOST", 0, INETUTILS, INETUTILS_REFUSED, SLC_LIST_A),
        lineModeClient("the same, its input a pipe", 0, INETUTILS, INETUTILS_REFUSED, SLC_LIST_B),
        lineModeClient("the same, -8", 0, INETUTILS + "\xFF\xFD\x00\xFF\xFB\x00"s,
                       INETUTILS_REFUSED + "\xFF\xFC\x00\xFF\xFC\x00"s, SLC_LIST_A),
        lineModeClient("the same, -l", 0, "\xFF\xFB\x25" + INETUTILS + "\xFF\xFB\x23",
                       "\xFF\xFC\x25" + INETUTILS_REFUSED + "\xFF\xFC\x23", SLC_LIST_A),
        lineModeClient("telnet-ssl", 32, TELNET_SSL, TELNET_SSL_REFUSED, SLC_LIST_C),
        plainClient("plink -telnet", 0, PLINK, "\xFF\xFC\x22", PLINK_REFUSED),
        plainClient("C-Kermit", 54, KERMIT, "\xFF\xFB\x03\xFF\xFC\x22", KERMIT_REFUSED),
        plainClient("C-Kermit, telnet wait off", 81, KERMIT + "\xFF\xFB\x26\xFF\xFD\x26\xFF\xFD\x2F\xFF\xFB\x2F",
                    "\xFF\xFB\x03\xFF\xFC\x22", KERMIT_REFUSED + "\xFF\xFC\x26\xFF\xFC\x26\xFF\xFC\x2F\xFF\xFC\x2F"),
        plainClient("gensiot, rfc2217", 0, "\xFF\xFB\x2C", "\xFF\xFB\x03\xFF\xFC\x22", "\xFF\xFC\x2C"),
        {"telnetlib, writing at once", {{0, "alice\r\nsecret\r\n"}}, "", Verdict::plain, 0, "alice\r\nsecret\r\n"},
    };
    expectOutcomes(rows);
}

TEST(TelnetNegotiation, TakesRealClientsThatAreSilentForPlainOnesAfterASecondAndWithoutAByte)
{
    // inetutils with an explicit port, BusyBox, plink with passive negotiation and -raw, gensiot
    // telnet, libtelnet, telnetlib, Net::Telnet, curl, netcat, ncat and socat send the same:
    // nothing.
    const Row rows[] = {{"silence", {}, "", Verdict::plain, 1000, ""},
                        {"and a name just in time", {{999, "alice\r\n"}}, "", Verdict::plain, 999, "alice\r\n"}};
    expectOutcomes(rows);
}

TEST(TelnetNegotiation, GoesByWhatAClientSaysFirst)
{
    const Row rows[] = {
        {"explicit port, then a key that is a command",
         {{400, "\xFF\xED\xFF\xFD\x06"},
          {403, "\xFF\xFB\x03"},
          {403, "\xFF\xFD\x03" + WILL_LINEMODE + SLC_LIST_A},
          {443, MODE_ACK + SLC_ACK}},
         // IAC SUSP has 2 bytes in the protocol and is read with the IAC behind it; the rest of
         // that is text.
         OFFERS,
         Verdict::plain,
         400,
         "\xFD\x06\xFF\xFB\x03\xFF\xFD\x03" + WILL_LINEMODE + SLC_LIST_A + MODE_ACK + SLC_ACK},
        {"BusyBox, once it is refused, offers again",
         {{0, "\xFF\xFB\x18"}, {2, "\xFF\xFD\x03\xFF\xFC\x22\xFF\xFB\x18"}},
         OFFERS + "\xFF\xFC\x18\xFF\xFC\x18",
         Verdict::plain,
         1002,
         ""},
    };
    expectOutcomes(rows);
}

TEST(TelnetNegotiation, RefusesUnknownOptionsAlwaysWithWont)
{
    const auto row = [](const std::string& command, const std::string& answer) {
        return Row{readable(command), {{0, command}}, OFFERS + answer, Verdict::plain, 1000, ""};
    };
    const Row rows[] = {
        row("\xFF\xFD\x18", "\xFF\xFC\x18"),  // DO
        row("\xFF\xFB\x18", "\xFF\xFC\x18"),  // WILL
        row("\xFF\xFC\x18", ""),              // WONT
        row("\xFF\xFE\x18", ""),              // DONT
        row("\xFF\xFD\x01", ""),              // DO ECHO
        row("\xFF\xFB\x01", ""),              // WILL ECHO
        row("\xFF\xFD\x03", ""),              // DO SUPPRESS-GO-AHEAD
        row("\xFF\xFB\x03", ""),              // WILL SUPPRESS-GO-AHEAD
        row("\xFF\xFD\x22", ""),              // DO LINEMODE
        row("\xFF\xFC\x22", ""),              // WONT LINEMODE
        row("\xFF\xF6\xF6", ""),              // no option at all
        row("\xFF\xFD\xFF", "\xFF\xFC\xFF"s), // the highest option
        row("\xFF\xFD\x00"s, "\xFF\xFC\x00"s),
        row("\xFF\xFB\xC8\xFF\xFD\xC8", "\xFF\xFC\xC8\xFF\xFC\xC8"),
    };
    expectOutcomes(rows);
}

TEST(TelnetNegotiation, SettlesLinemode)
{
    const std::string begun = WILL_LINEMODE + SLC_LIST_A;
    const std::string asked = OFFERS + MODE_AND_SLC;
    const Row rows[] = {
        {"WILL alone", {{0, WILL_LINEMODE}}, OFFERS, Verdict::lineMode, 1000, ""},
        {"both acknowledged", {{0, begun}, {40, MODE_ACK + SLC_ACK}}, asked, Verdict::lineMode, 40, ""},
        {"in the other order", {{0, begun}, {40, SLC_ACK}, {80, MODE_ACK}}, asked, Verdict::lineMode, 80, ""},
        {"by the command that has led there",
         {{0, WILL_LINEMODE + MODE_ACK + SLC_ACK}},
         asked,
         Verdict::lineMode,
         0,
         ""},
        {"MODE alone", {{0, begun}, {40, MODE_ACK}}, asked, Verdict::lineMode, 1040, ""},
        {"SLC alone", {{0, begun}, {40, SLC_ACK}}, asked, Verdict::lineMode, 1040, ""},
        {"neither", {{0, begun}}, asked, Verdict::lineMode, 1000, ""},
        {"a sub-negotiation without WILL", {{0, MODE_ACK + SLC_ACK}}, asked, Verdict::plain, 0, ""},
        {"WILL behind it", {{0, SLC_LIST_A + WILL_LINEMODE + MODE_ACK + SLC_ACK}}, asked, Verdict::lineMode, 0, ""},
        {"offers and other sub-negotiations between the answers",
         {{0, begun + "\xFF\xFB\x18" + MODE_ACK + "\xFF\xFA\x18\x01\xFF\xF0" + "\xFF\xFD\x1F" + SLC_ACK + "alice\r\n"}},
         asked + "\xFF\xFC\x18\xFF\xFC\x1F",
         Verdict::lineMode,
         0,
         "alice\r\n"},
        {"data between the answers",
         {{0, begun + "alice\r\n" + MODE_ACK}},
         asked,
         Verdict::lineMode,
         0,
         "alice\r\n" + MODE_ACK},
        {"a sub-negotiation of another option",
         {{0, WILL_LINEMODE + "\xFF\xFA\x18\x00XTERM\xFF\xF0\xFF\xFB\x18"s}},
         OFFERS,
         Verdict::lineMode,
         0,
         "\xFF\xFB\x18"},
        {"the same without WILL",
         {{0, "\xFF\xFA\x18\x00XTERM\xFF\xF0\xFF\xFB\x18"s}},
         OFFERS,
         Verdict::plain,
         0,
         "\xFF\xFB\x18"},
        {"one without an option", {{0, "\xFF\xFA\xFF\xF0"}}, OFFERS, Verdict::plain, 0, ""},
    };
    expectOutcomes(rows);
}

TEST(TelnetNegotiation, GivesEveryStepOfACommandASecond)
{
    const Row rows[] = {
        {"IAC alone", {{0, "\xFF"}}, "", Verdict::plain, 1000, "\xFF"},
        {"IAC SB alone", {{0, "\xFF\xFA"}}, "", Verdict::plain, 1000, "\xFF\xFA"},
        {"IAC SB later", {{600, "\xFF"}, {1200, "\xFA\x18"}}, "", Verdict::plain, 2200, "\xFF\xFA\x18"},
        {"a verb is no step", {{600, "\xFF"}, {1200, "\xFD"}}, "", Verdict::plain, 1600, "\xFF\xFD"},
        {"the next command", {{900, "\xFF\xFC\x18"}, {1800, "\xFF\xFC\x18"}}, OFFERS, Verdict::plain, 2800, ""},
        {"cut short", {{0, "\xFF\xFA\x22\x03\x01"}}, "", Verdict::plain, 1000, "\xFF\xFA\x22\x03\x01"},
        {"IAC at its end", {{0, "\xFF\xFA\x22\x03\x01\xFF"}}, "", Verdict::plain, 1000, "\xFF\xFA\x22\x03\x01\xFF"},
    };
    expectOutcomes(rows);
    Conversation trickling = begin();
    trickling.hear("\xFF\xFA\x22");
    for (int at = 50; trickling.isUnderWay(); at += 50) {
        trickling.passTo(std::chrono::milliseconds(at));
        trickling.hear("x");
    }
    EXPECT_EQ(trickling.now().count(), 1000) << "what a sub-negotiation has in it is no step";
    EXPECT_EQ(trickling.sent(), "");
}

TEST(TelnetNegotiation, ReadsSubNegotiationsOfUpTo1024Bytes)
{
    const auto subNeg = [](std::size_t bytes) { return "\xFF\xFA\x22\x07" + std::string(bytes - 6, 'x') + "\xFF\xF0"; };
    const std::string onward = WILL_LINEMODE + MODE_ACK + SLC_ACK;
    const Row rows[] = {
        {"1023 bytes", {{0, subNeg(1023) + onward}}, OFFERS + MODE_AND_SLC, Verdict::lineMode, 0, ""},
        {"1024 bytes", {{0, subNeg(1024) + onward}}, OFFERS + MODE_AND_SLC, Verdict::lineMode, 0, ""},
        {"1024 bytes behind a command",
         {{0, "\xFF\xFC\x18" + subNeg(1024) + onward}},
         OFFERS + MODE_AND_SLC,
         Verdict::lineMode,
         0,
         ""},
        {"1025 bytes", {{0, subNeg(1025) + onward}}, "", Verdict::plain, 1000, subNeg(1025) + onward},
        {"64 kB", {{0, subNeg(65536)}}, "", Verdict::plain, 1000, subNeg(65536)},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        expectOutcome(talkWith(row.pieces), row);
    }
}

TEST(TelnetNegotiation, IsOverAfterFiveSecondsAndFiveMoreForLinemodeWhateverTheClientSends)
{
    struct Endless {
        const char* behaviour;
        std::string first; ///< at once
        std::string again; ///< every 20 ms
        std::string later; ///< after 4 seconds
        Verdict verdict;
        int overAt;
    };
    const Endless rows[] = {
        {"commands that want no answer", "", "\xFF\xFC\x01", "", Verdict::plain, 5000},
        {"every refusal is answered with the offer", "\xFF\xFB\x18", "\xFF\xFB\x18", "", Verdict::plain, 5000},
        {"LINEMODE refused again and again", "\xFF\xFC\x22", "\xFF\xFC\x22", "", Verdict::plain, 5000},
        {"LINEMODE that is never acknowledged", WILL_LINEMODE + SLC_LIST_A, SLC_LIST_A, "", Verdict::lineMode, 5000},
        {"LINEMODE that begins late", WILL_LINEMODE, "\xFF\xFC\x18", SLC_LIST_A, Verdict::lineMode, 9000},
    };
    for (const Endless& row : rows) {
        SCOPED_TRACE(row.behaviour);
        Conversation talk = begin();
        talk.hear(row.first);
        for (int at = 20; talk.isUnderWay() && at < 60'000; at += 20) {
            talk.passTo(std::chrono::milliseconds(at));
            talk.hear(at == 4000 ? row.later + row.again : row.again);
        }
        EXPECT_STREQ(nameOf(talk.verdict()), nameOf(row.verdict));
        EXPECT_EQ(talk.now().count(), row.overAt);
    }
}

TEST(TelnetNegotiation, UsesWhatHasComeBeforeItGivesUp)
{
    TelnetNegotiation late(Instant{});
    const std::string bytes = WILL_LINEMODE + "alice\r\n";
    const telnet::Turn turn = late.take({reinterpret_cast<const telnet::Byte*>(bytes.data()), bytes.size()},
                                        Instant{} + std::chrono::milliseconds(3000));
    EXPECT_STREQ(nameOf(turn.verdict), "LINEMODE")
        << "nobody has looked for 3 seconds, which is not the client's fault";
    EXPECT_EQ(turn.used, 3U);
}

TEST(TelnetNegotiation, DropsAClientThatMissesAnOfferButNotOneThatMissesARefusal)
{
    struct Missing {
        const char* behaviour;
        std::string bytes;
        std::size_t needed, whole;
        const char* verdict; ///< when all that is needed has got out
    };
    const Missing rows[] = {
        {"nothing to send", "alice\r\n", 0, 0, "plain"},
        {"the offers", "\xFF\xFC\x18", 6, 6, "go on"},
        {"the offers and a refusal", "\xFF\xFB\x18", 6, 9, "go on"},
        {"MODE and SLC behind them", "\xFF\xFB\x18" + SLC_LIST_A, 28, 28, "go on"},
        {"and a refusal", SLC_LIST_A + "\xFF\xFB\x18", 25, 28, "go on"},
        {"and the end", MODE_ACK + SLC_ACK, 25, 25, "plain"},
    };
    for (const Missing& row : rows) {
        SCOPED_TRACE(row.behaviour);
        TelnetNegotiation negotiation(Instant{});
        const telnet::Turn turn =
            negotiation.take({reinterpret_cast<const telnet::Byte*>(row.bytes.data()), row.bytes.size()}, Instant{});
        ASSERT_EQ(turn.answer().size(), row.whole);
        for (std::size_t sent = 0; sent <= row.whole; ++sent)
            EXPECT_STREQ(nameOf(turn.verdictWhen(sent)), sent < row.needed ? "drop" : row.verdict) << sent;
    }
}

TEST(TelnetNegotiation, HasRoomForEveryAnswerToAFullBuffer)
{
    std::string full;
    while (full.size() + 3 <= telnet::Turn::INPUT_BYTES - SLC_LIST_A.size())
        full += "\xFF\xFB\x18";
    full += SLC_LIST_A;
    const std::size_t refusals = (full.size() - SLC_LIST_A.size()) / 3;
    Conversation talk = begin();
    talk.hear(full);
    EXPECT_EQ(talk.sent().size(), OFFERS.size() + 3 * refusals + MODE_AND_SLC.size());
    EXPECT_EQ(talk.rest(), "");
}
