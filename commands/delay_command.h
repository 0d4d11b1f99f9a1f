#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>

#include "connections/cmd_progress.h"

class TPortConn;
struct TCommandContext;

/// Longest delayed line that is run, its NUL included.
inline constexpr std::size_t DELAYED_LINE_BYTES = 256;

/// A delayed line that has been taken out of the queue to be run. It waits as a connection does.
struct TDelayedLine {
    std::array<char, DELAYED_LINE_BYTES> text{};
    bool runs = false;
    TCmdProgress progress;
};

/// Delayed command lines by due time, in milliseconds on the monotonic clock. Equal times keep the order of insertion.
using TDelayQueue = std::multimap<std::uint64_t, std::string>;

/// Queues a command line for later, or clears the queue.
/// @param tokens  the DELAY token, untrimmed, then the tokens of the delayed line, which may be none
/// @return 0 done; 1 invalid time, or the clock cannot be read
/// Threads: service thread, as for everything here.
int setDelay(TCommandContext& context, std::span<const std::string_view> tokens);

/// Writes the pending commands to a connection, in queue order; in several writes when one record does not hold them.
/// @param conn  null: nothing is written
/// @return 0 listed; 1 the clock cannot be read, and that was written
int listDelays(TCommandContext& context, TPortConn* conn);

/// Interprets every line that is due, in order, without a connection. Lines may queue further ones and may clear the queue. A
/// line that has to wait keeps those behind it waiting: to be called again when it may go on.
void runDelays(TCommandContext& context);
