#include "connections/telnet_echo_switch.h"

#include <algorithm>

using telnet::Byte;
using telnet::Turn;
using telnet::Verdict;

TTelnetEchoSwitch::TTelnetEchoSwitch(bool on, Instant now)
    : reader_(now, TIME),
      request_(on ? telnet::echoWont : telnet::echoWill), expected_{telnet::IAC, on ? telnet::DONT : telnet::DO,
                                                                    telnet::ECHO_OPTION}
{
}

Turn TTelnetEchoSwitch::take(std::span<const Byte> input, Instant now)
{
    using Read = TTelnetCmdReader::Read;
    Turn turn;
    while (turn.verdict == Verdict::goOn) {
        const std::span<const Byte> rest = input.subspan(turn.used);
        const auto [read, length] = reader_.readTelnetCmd(rest, now);
        if (read == Read::incomplete) break;
        turn.used += length;
        if (read != Read::command || std::ranges::equal(rest.first(length), expected_))
            turn.verdict = Verdict::lineMode;
    }
    return turn;
}
