#pragma once

#include "commands/command_context.h"
#include "connections/cmd_entry.h"
#include "connections/port_conn.h"

/// Result of processCmd(): the caller closes the connection.
inline constexpr int CMD_CLOSE_CONNECTION = -2;

/// Result of processCmd(): the line is not done, it waits for a process or a program. To be called
/// again with the same line.
inline constexpr int CMD_WAITS = -3;

/// Gives meaning to one command line: RESET, quit, DELAY and "*" are answered here, everything else
/// goes to the registered processes, whose answers come later and by another way. Never waits: how
/// far a line has got that has to wait is kept in the `progress` of the connection, or of the
/// delayed line. Allocates only for DELAY, for RESET and for a queue that is full.
/// @param conn  who asked and gets the replies; null for a delayed command: nothing is replied
/// @param cmd   the line; null, or a null text, for none
/// @return -2 "quit" on telnet; -3 the line waits; 1 no line, or a RESET failed and that was
///         reported, or the clock failed a listing; else 0
/// Threads: service thread.
int processCmd(CommandContext& context, TPortConn* conn, const CmdEntry* cmd);
