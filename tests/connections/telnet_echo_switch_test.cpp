#include "connections/telnet_echo_switch.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "tests/support/readable.h"
#include "tests/support/telnet_conversation.h"

namespace {

using Conversation = TelnetConversation<TelnetEchoSwitch>;

struct Row {
    const char* behaviour;
    bool on;
    std::vector<Piece> pieces;
    int overAt; ///< in milliseconds
    std::string left;
};

Conversation switchTo(bool on)
{
    return Conversation([on](Instant now) { return TelnetEchoSwitch(on, now); });
}

} // namespace

TEST(TelnetEchoSwitch, AsksTheClient)
{
    const auto asked = [](bool on) {
        const TelnetEchoSwitch wanted(on, Instant{});
        return std::string(wanted.request().begin(), wanted.request().end());
    };
    EXPECT_EQ(readable(asked(false)), readable(WILL_ECHO)) << "the server says that it echoes, and then does not";
    EXPECT_EQ(readable(asked(true)), readable(WONT_ECHO));
}

TEST(TelnetEchoSwitch, WaitsForTheClientsAnswer)
{
    const std::string others = MODE_ACK + SLC_ACK + "\xFF\xF1\xF1";
    const Row rows[] = {
        {"DO ECHO", false, {{3, DO_ECHO}}, 3, ""},
        {"DONT ECHO", true, {{3, DONT_ECHO}}, 3, ""},
        {"and what is behind it is left", false, {{3, DO_ECHO + "secret\r\n"}}, 3, "secret\r\n"},
        {"a command too", false, {{3, DO_ECHO + DO_ECHO}}, 3, DO_ECHO},
        {"other commands are thrown away", false, {{3, DONT_ECHO + "\xFF\xFB\x01" + others + DO_ECHO + "A"}}, 3, "A"},
        {"the other answer", true, {{3, DO_ECHO}, {5, DONT_ECHO}}, 5, ""},
        {"data in front", false, {{3, "secret\r\n"}, {4, DO_ECHO}}, 3, "secret\r\n" + DO_ECHO},
        {"data behind another command", false, {{3, DONT_ECHO + "A\r\n"}}, 3, "A\r\n"},
        {"silence", false, {}, 1000, ""},
        {"half an answer", false, {{600, "\xFF\xFD"}}, 1600, "\xFF\xFD"},
        {"another command is a step", false, {{600, DONT_ECHO}}, 1600, ""},
        {"an answer in pieces", false, {{900, "\xFF"}, {1800, "\xFD\x01"}}, 1800, ""},
        {"an answer just in time", true, {{999, DONT_ECHO}}, 999, ""},
        {"other commands again and again", false, {{600, DONT_ECHO}, {1200, DONT_ECHO}, {1800, DONT_ECHO}}, 2000, ""},
        {"a sub-negotiation without end", false, {{900, "\xFF"}, {1800, "\xFA\x22"}}, 2000, "\xFF\xFA\x22"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        Conversation talk = switchTo(row.on);
        for (const Piece& piece : row.pieces) {
            talk.passTo(std::chrono::milliseconds(piece.at));
            talk.hear(piece.bytes);
        }
        talk.passTo(std::chrono::seconds(60));
        EXPECT_STREQ(nameOf(talk.verdict()), "LINEMODE");
        EXPECT_EQ(talk.now().count(), row.overAt);
        EXPECT_EQ(readable(talk.rest()), readable(row.left));
        EXPECT_EQ(talk.sent(), "") << "nothing in between is answered";
    }
}

TEST(TelnetEchoSwitch, IsOverAfterTwoSecondsOfOtherCommands)
{
    Conversation talk = switchTo(false);
    for (int at = 20; talk.isUnderWay() && at < 60'000; at += 20) {
        talk.passTo(std::chrono::milliseconds(at));
        talk.hear(DONT_ECHO);
    }
    EXPECT_EQ(talk.now().count(), 2000);
}
