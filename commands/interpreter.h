#pragma once

#include "commands/command_context.h"
#include "connections/cmd_entry.h"
#include "connections/port_conn.h"

/// Result of processCmd(): the caller closes the connection.
inline constexpr int CMD_CLOSE_CONNECTION = -2;

/// Gives meaning to one command line: RESET, quit, DELAY and "*" are answered here, everything else goes to the registered
/// processes, whose answers come later and by another way. Allocates nothing but for DELAY.
/// @param conn  who asked and gets the replies; null for a delayed command: nothing is replied
/// @param cmd   the line; null, or a null text, for none
/// @return -2 "quit" on telnet; 1 no line, or a RESET failed and that was reported, or the clock failed a listing; else 0
/// Threads: service thread.
int processCmd(TCommandContext& context, TPortConn* conn, const TCmdEntry* cmd);
