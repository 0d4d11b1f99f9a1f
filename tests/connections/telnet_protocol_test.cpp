#include "connections/telnet_protocol.h"

#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/readable.h"

using namespace std::string_literals;
using telnet::Front;

namespace {

std::span<const telnet::Byte> bytesOf(std::string_view text)
{
    return {reinterpret_cast<const telnet::Byte*>(text.data()), text.size()};
}

template <std::size_t Size> std::string textOf(const std::array<telnet::Byte, Size>& bytes)
{
    return {bytes.begin(), bytes.end()};
}

const char* nameOf(Front front)
{
    switch (front) {
    case Front::nothing:
        return "nothing";
    case Front::partOfCommand:
        return "part of a command";
    case Front::partOfSubNeg:
        return "part of a sub-negotiation";
    case Front::command:
        return "a command";
    case Front::data:
        return "data";
    }
    return "?";
}

/// What scan() finds, as "a command, 3".
std::string scanned(std::string_view input)
{
    const auto [front, length] = telnet::scan(bytesOf(input));
    return nameOf(front) + ", "s + std::to_string(length);
}

struct Scan {
    std::string input;
    const char* found;
};

const Scan scans[] = {
    {"", "nothing, 0"},
    {"a", "data, 0"},
    {"\r\n", "data, 0"},
    {"\0"s, "data, 0"},
    {"\xFE\xFF\xFF", "data, 0"},
    {"a\xFF\xFD\x01", "data, 0"},
    {"\xFF", "part of a command, 0"},
    {"\xFF\xFD", "part of a command, 0"},
    {"\xFF\xFA", "part of a command, 0"},
    {"\xFF\xF1", "part of a command, 0"},
    {"\xFF\xFD\x18", "a command, 3"},
    {"\xFF\xFB\x22rest", "a command, 3"},
    {"\xFF\xFD\x01\xFF\xFD\x03", "a command, 3"},
    {"\xFF\xF1X", "a command, 3"},    // NOP has 2 bytes in the protocol
    {"\xFF\xFF\xFF", "a command, 3"}, // an escaped data byte
    {"\xFF\0\x22"s, "a command, 3"},
    {"\xFF\xF0\xFF", "a command, 3"}, // an end without a beginning
    {"\xFF\xFA\x22", "part of a sub-negotiation, 0"},
    {"\xFF\xFA\xF0", "part of a sub-negotiation, 0"},
    {"\xFF\xFA\x22\x01", "part of a sub-negotiation, 0"},
    {"\xFF\xFA\x22\x01\x05\xFF", "part of a sub-negotiation, 0"},
    {"\xFF\xFA\xFF\xF0", "a command, 4"}, // one without an option
    {"\xFF\xFA\x22\xFF\xF0", "a command, 5"},
    {"\xFF\xFA\x22\x01\x05\xFF\xF0", "a command, 7"},
    {"\xFF\xFA\x22\x01\x05\xFF\xF0\xFF\xF0", "a command, 7"},
    {"\xFF\xFA\x18\x00XTERM\xFF\xF0more"s, "a command, 11"},
    {"\xFF\xFA\x18\xF0\xF0\xFF\xF0", "a command, 7"},
    {"\xFF\xFA\x18\xFF\xFF\xF0", "a command, 6"}, // an escaped byte is not told from the end
    {"\xFF\xFA\xFA\xFF\xFA\xFF", "part of a sub-negotiation, 0"},
};

std::string subNegOf(std::size_t bytes)
{
    return "\xFF\xFA\x22" + std::string(bytes - 5, 'x') + "\xFF\xF0";
}

} // namespace

TEST(TelnetProtocol, SendsTheseBytes)
{
    EXPECT_EQ(textOf(telnet::offerOptions), "\xFF\xFD\x03\xFF\xFD\x22");
    EXPECT_EQ(textOf(telnet::modeEdit), "\xFF\xFA\x22\x01\x01\xFF\xF0");
    EXPECT_EQ(textOf(telnet::slcForward), "\xFF\xFA\x22\x03\x11\x02\x0D\x12\x02\x0D\xFF\xF0");
    EXPECT_EQ(textOf(telnet::echoWill), "\xFF\xFB\x01");
    EXPECT_EQ(textOf(telnet::echoWont), "\xFF\xFC\x01");
}

TEST(TelnetProtocol, TellsWhatStandsAtTheFrontOfTheInput)
{
    for (const Scan& row : scans)
        EXPECT_EQ(scanned(row.input), row.found) << readable(row.input);
}

TEST(TelnetProtocol, NeverSeesAWholeCommandBeforeItsLastByte)
{
    for (const Scan& row : scans) {
        const auto whole = telnet::scan(bytesOf(row.input));
        if (whole.front != Front::command) continue;
        for (std::size_t n = 0; n < whole.length; ++n) {
            const std::string begin = row.input.substr(0, n);
            const auto part = telnet::scan(bytesOf(begin));
            EXPECT_NE(part.front, Front::command) << readable(begin);
            EXPECT_NE(part.front, Front::data) << readable(begin);
            EXPECT_EQ(part.length, 0U) << readable(begin);
        }
        EXPECT_EQ(telnet::scan(bytesOf(row.input.substr(0, whole.length))).length, whole.length)
            << readable(row.input) << ": what follows does not count";
    }
}

TEST(TelnetProtocol, FindsTheEndOfALongSubNegotiationAtItsPlaceOnly)
{
    for (const std::size_t bytes : {6U, 7U, 100U, 1022U, 1023U, 1024U, 1025U}) {
        const std::string whole = subNegOf(bytes);
        EXPECT_EQ(scanned(whole), "a command, " + std::to_string(bytes));
        EXPECT_EQ(scanned(whole + "\xFF\xFD\x01"), "a command, " + std::to_string(bytes));
        EXPECT_EQ(scanned(whole.substr(0, bytes - 1)), "part of a sub-negotiation, 0") << bytes;
        EXPECT_EQ(scanned(whole.substr(0, bytes - 2)), "part of a sub-negotiation, 0") << bytes;
    }
}

TEST(TelnetProtocol, KnowsALinemodeSubNegotiation)
{
    EXPECT_TRUE(telnet::isLinemodeSubNeg(bytesOf("\xFF\xFA\x22\xFF\xF0")));
    EXPECT_TRUE(telnet::isLinemodeSubNeg(bytesOf("\xFF\xFA\x22\x01\x05\xFF\xF0")));
    EXPECT_TRUE(telnet::isLinemodeSubNeg(bytesOf("\xFF\xFA\x22\x03\xFF\xF0")));
    EXPECT_FALSE(telnet::isLinemodeSubNeg(bytesOf("\xFF\xFA\x18\x01\x05\xFF\xF0"))) << "another option";
    EXPECT_FALSE(telnet::isLinemodeSubNeg(bytesOf("\xFF\xFA\xFF\xF0"))) << "no option";
    EXPECT_FALSE(telnet::isLinemodeSubNeg(bytesOf("\xFF\xFB\x22"))) << "no sub-negotiation";
}

TEST(TelnetProtocol, TakesFromLinemodeAnswersWhatTheClientHasAgreedTo)
{
    struct Row {
        const char* behaviour;
        std::string command;
        bool modeAck, forw1, forw2;
    };
    const Row rows[] = {
        {"MODE with EDIT and MODE_ACK", "\xFF\xFA\x22\x01\x05\xFF\xF0", true, false, false},
        {"and with more bits", "\xFF\xFA\x22\x01\x1F\xFF\xF0", true, false, false},
        {"MODE without the acknowledgement", "\xFF\xFA\x22\x01\x01\xFF\xF0", false, false, false},
        {"MODE without EDIT", "\xFF\xFA\x22\x01\x04\xFF\xF0", false, false, false},
        {"MODE that ends before its mask", "\xFF\xFA\x22\x01\xFF\xF0", true, false, false},
        {"SLC as the clients of the BSD family acknowledge it", "\xFF\xFA\x22\x03\x11\x82\x0D\x12\x82\x0D\xFF\xF0",
         false, true, true},
        {"SLC as it was sent", "\xFF\xFA\x22\x03\x11\x02\x0D\x12\x02\x0D\xFF\xF0", false, true, true},
        {"the other order", "\xFF\xFA\x22\x03\x12\x02\x0D\x11\x03\x0D\xFF\xF0", false, true, true},
        {"FORW1 alone", "\xFF\xFA\x22\x03\x11\x02\x0D\xFF\xF0", false, true, false},
        {"FORW2 alone, behind others", "\xFF\xFA\x22\x03\x01\x02\x0D\x12\x02\x0D\xFF\xF0", false, false, true},
        {"level CANTCHANGE", "\xFF\xFA\x22\x03\x11\x01\x0D\x12\x01\x0D\xFF\xF0", false, false, false},
        {"level NOSUPPORT", "\xFF\xFA\x22\x03\x11\x80\x0D\x12\x00\x0D\xFF\xF0"s, false, false, false},
        {"another character", "\xFF\xFA\x22\x03\x11\x02\x0A\x12\x02\x00\xFF\xF0"s, false, false, false},
        {"other functions", "\xFF\xFA\x22\x03\x10\x02\x0D\x13\x02\x0D\xFF\xF0", false, false, false},
        {"the list a client opens with",
         "\xFF\xFA\x22\x03\x01\x00\x00\x03\x62\x03\x04\x02\x0F\x11\x00\x00\x12\x00\x00\xFF\xF0"s, false, false, false},
        {"a last triplet cut to its function", "\xFF\xFA\x22\x03\x11\x02\x0D\x12\xFF\xF0", false, true, false},
        {"a last triplet cut to two bytes", "\xFF\xFA\x22\x03\x11\x02\x0D\x12\x02\xFF\xF0", false, true, false},
        {"an only triplet cut to its function", "\xFF\xFA\x22\x03\x11\xFF\xF0", false, false, false},
        {"bytes one place off", "\xFF\xFA\x22\x03\x00\x11\x02\x0D\x12\x02\x0D\xFF\xF0"s, false, false, false},
        {"SLC without triplets", "\xFF\xFA\x22\x03\xFF\xF0", false, false, false},
        {"no sub-command", "\xFF\xFA\x22\xFF\xF0", false, false, false},
        {"FORWARDMASK", "\xFF\xFA\x22\xFB\x02\xFF\xF0", false, false, false},
        {"another sub-command with the bits of MODE", "\xFF\xFA\x22\x02\x05\xFF\xF0", false, false, false},
    };
    for (const Row& row : rows) {
        telnet::LinemodeAnswers answers;
        answers.take(bytesOf(row.command));
        EXPECT_EQ(answers.modeAck, row.modeAck) << row.behaviour;
        EXPECT_EQ(answers.forw1, row.forw1) << row.behaviour;
        EXPECT_EQ(answers.forw2, row.forw2) << row.behaviour;
        EXPECT_FALSE(answers.complete()) << row.behaviour;
    }
}

TEST(TelnetProtocol, CollectsLinemodeAnswersUntilAllThreeAreThere)
{
    const std::string ack = "\xFF\xFA\x22\x01\x05\xFF\xF0";
    const std::string forw1 = "\xFF\xFA\x22\x03\x11\x82\x0D\xFF\xF0";
    const std::string forw2 = "\xFF\xFA\x22\x03\x12\x82\x0D\xFF\xF0";
    const std::string refusal = "\xFF\xFA\x22\x03\x11\x00\x00\x12\x00\x00\xFF\xF0"s;
    for (const std::vector<std::string>& order : {std::vector{ack, forw1, forw2}, {forw2, ack, forw1}}) {
        telnet::LinemodeAnswers answers;
        for (const std::string& command : order) {
            EXPECT_FALSE(answers.complete());
            answers.take(bytesOf(command));
            answers.take(bytesOf(refusal)); // takes nothing back
        }
        EXPECT_TRUE(answers.complete());
    }
}
