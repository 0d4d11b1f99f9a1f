#include "connections/telnet_negotiation.h"

#include <algorithm>
#include <array>

using telnet::Byte;
using telnet::Turn;

Turn TelnetNegotiation::take(std::span<const Byte> input, Instant now)
{
    const auto takeIt = [this, now](std::span<const Byte> command, Turn& turn) { takeCommand(command, now, turn); };
    return reader_.takeTurn(input.first(std::min(input.size(), Turn::INPUT_BYTES)), now, takeIt,
                            [this] { return outcome(); });
}

void TelnetNegotiation::takeCommand(std::span<const Byte> command, Instant now, Turn& turn)
{
    if (!offered_) turn.insist(telnet::offerOptions);
    offered_ = true;
    if (command.size() == 3)
        processOptStat(command, turn);
    else if (telnet::isLinemodeSubNeg(command))
        processSubNegLm(command, now, turn);
    else if (!askedMode_)
        turn.verdict = outcome();
}

/// Notes LINEMODE, refuses what is not known.
void TelnetNegotiation::processOptStat(std::span<const Byte> command, Turn& turn)
{
    const Byte verb = command[1];
    const Byte option = command[2];
    if (option == telnet::ECHO_OPTION || option == telnet::SUPPRESS_GO_AHEAD) return;
    if (option == telnet::LINEMODE) {
        if (verb == telnet::WILL) lineMode_ = true;
        return;
    }
    if (verb != telnet::WILL && verb != telnet::DO) return;
    turn.say(std::array{telnet::IAC, telnet::WONT, option}); // WONT, not DONT, for a WILL too (deliberate)
}

/// Makes the client edit lines and send them at CR, and notes its answers.
void TelnetNegotiation::processSubNegLm(std::span<const Byte> command, Instant now, Turn& turn)
{
    if (!askedMode_) {
        turn.insist(telnet::modeEdit);
        turn.insist(telnet::slcForward);
        reader_.restart(now, LINEMODE_TIME);
    }
    askedMode_ = true;
    answers_.take(command);
    if (answers_.complete()) turn.verdict = outcome();
}
