#pragma once

#include <cstddef>
#include <span>

#include "common/instant.h"
#include "connections/telnet_protocol.h"
#include "connections/telnet_turn.h"

/// Reads telnet commands off the front of a client's input, for as long as an exchange of options
/// may last: a second for each step towards a whole command, and a bound for all of it. Knows
/// neither socket nor clock: input and time are given to it.
class TelnetCmdReader {
public:
    static constexpr std::chrono::seconds STEP_TIME{1};

    enum class Read {
        command = 0, ///< a whole command stands in front
        timeOut = 2,
        data = 3, ///< something else than a command stands in front
        incomplete,
    };

    struct Result {
        Read read;
        std::size_t length; ///< bytes of the command, else 0
    };

    /// @param bound  ends the reading whatever the client sends
    TelnetCmdReader(Instant now, std::chrono::seconds bound) { restart(now, bound); }

    /// As a new reader.
    void restart(Instant now, std::chrono::seconds bound);

    /// @param input  all that waits; a command that is found counts as taken, the next call gets
    ///               what is behind it
    Result readTelnetCmd(std::span<const telnet::Byte> input, Instant now);

    /// Reads commands for an exchange until that is over, or the input ends within a command.
    /// @param takeCommand  gets each command, and the turn to answer in; the turn's verdict ends
    ///                     the exchange
    /// @param outcome      gives the verdict when something else than a command stands in front, or
    ///                     time is up
    template <class TakeCommand, class Outcome>
    telnet::Turn takeTurn(std::span<const telnet::Byte> input, Instant now, TakeCommand takeCommand, Outcome outcome)
    {
        telnet::Turn turn;
        while (turn.verdict == telnet::Verdict::goOn) {
            const std::span<const telnet::Byte> rest = input.subspan(turn.used);
            const auto [read, length] = readTelnetCmd(rest, now);
            if (read == Read::incomplete) break;
            turn.used += length;
            if (read == Read::command)
                takeCommand(rest.first(length), turn);
            else
                turn.verdict = outcome();
        }
        return turn;
    }

    /// @return when readTelnetCmd() gives a time-out although nothing arrives
    Instant due() const { return step_ < bound_ ? step_ : bound_; }

private:
    telnet::Front reached_ = telnet::Front::nothing; ///< of the command that comes next
    Instant step_;
    Instant bound_;
};
