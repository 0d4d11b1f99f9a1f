#pragma once

#include <span>

#include "common/instant.h"
#include "connections/telnet_cmd_reader.h"
#include "connections/telnet_protocol.h"
#include "connections/telnet_turn.h"

/// Finds out what a telnet client speaks. Says nothing until the client has sent a telnet command.
/// Knows neither socket nor clock.
class TelnetNegotiation {
public:
    static constexpr std::chrono::seconds TIME{5};          ///< for all of it; real clients are done within 0.1 s
    static constexpr std::chrono::seconds LINEMODE_TIME{5}; ///< for MODE and SLC, once they are asked for

    explicit TelnetNegotiation(Instant now) : reader_(now, TIME) {}

    /// Reads the commands at the front of the input, and answers them.
    /// @param input  what waits, from the first byte that no turn has used
    /// @return what to send, how many bytes are used up, and the verdict
    telnet::Turn take(std::span<const telnet::Byte> input, Instant now);

    /// @return when take() is to be called although nothing has arrived
    Instant due() const { return reader_.due(); }

private:
    void takeCommand(std::span<const telnet::Byte> command, Instant now, telnet::Turn& turn);
    void processOptStat(std::span<const telnet::Byte> command, telnet::Turn& turn);
    void processSubNegLm(std::span<const telnet::Byte> command, Instant now, telnet::Turn& turn);
    telnet::Verdict outcome() const { return lineMode_ ? telnet::Verdict::lineMode : telnet::Verdict::plain; }

    TelnetCmdReader reader_;
    telnet::LinemodeAnswers answers_;
    bool offered_ = false;   ///< the options
    bool askedMode_ = false; ///< MODE and SLC
    bool lineMode_ = false;  ///< the client has said WILL LINEMODE
};
