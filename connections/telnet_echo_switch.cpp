#include "connections/telnet_echo_switch.h"

#include <algorithm>

using telnet::Byte;
using telnet::Turn;
using telnet::Verdict;

TelnetEchoSwitch::TelnetEchoSwitch(bool on, Instant now)
    : reader_(now, TIME),
      request_(on ? telnet::echoWont : telnet::echoWill), expected_{telnet::IAC, on ? telnet::DONT : telnet::DO,
                                                                    telnet::ECHO_OPTION}
{
}

Turn TelnetEchoSwitch::take(std::span<const Byte> input, Instant now)
{
    const auto takeCommand = [this](std::span<const Byte> command, Turn& turn) {
        if (std::ranges::equal(command, expected_)) turn.verdict = Verdict::lineMode;
    };
    return reader_.takeTurn(input, now, takeCommand, [] { return Verdict::lineMode; });
}
