#pragma once

#include <array>
#include <span>

#include "common/instant.h"
#include "connections/telnet_cmd_reader.h"
#include "connections/telnet_protocol.h"
#include "connections/telnet_turn.h"

/// Waits for a LINEMODE client to agree that it shows, or does not show, what is typed. Over as
/// soon as it does, when data stands in front, or in time. Knows neither socket nor clock.
class TelnetEchoSwitch {
public:
    static constexpr std::chrono::seconds TIME{2}; ///< for all of it

    /// @param on  the client is to show what is typed
    TelnetEchoSwitch(bool on, Instant now);

    /// @return what the client has to be told first
    std::span<const telnet::Byte> request() const { return request_; }

    /// Goes on; throws every other command away.
    /// @param input  what waits, from the first byte that no turn has used
    /// @return Verdict::goOn, or Verdict::lineMode when it is over
    telnet::Turn take(std::span<const telnet::Byte> input, Instant now);

    /// @return when take() is to be called although nothing has arrived
    Instant due() const { return reader_.due(); }

private:
    TelnetCmdReader reader_;
    std::span<const telnet::Byte> request_;
    std::array<telnet::Byte, 3> expected_;
};
