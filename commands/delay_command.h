#pragma once

#include <span>
#include <string_view>

#include "commands/command_context.h"
#include "connections/port_conn.h"

/// Queues a command line for later, or clears the queue.
/// @param tokens  the DELAY token, untrimmed, then the tokens of the delayed line, which may be
///                none
/// @return 0 done; 1 invalid time, or the clock cannot be read
/// Threads: service thread, as for everything here.
int setDelay(CommandContext& context, std::span<const std::string_view> tokens);

/// Writes the pending commands to a connection, in queue order; in several writes when one record
/// does not hold them.
/// @param conn  null: nothing is written
/// @return 0 listed; 1 the clock cannot be read, and that was written
int listDelays(CommandContext& context, TPortConn* conn);
