#pragma once

#include <string_view>

#include "commands/command_context.h"
#include "connections/port_conn.h"
#include "framework/fixed_text.h"

/// Writes `text` to a connection by way of outMsg; a text that is longer than a record is cut.
/// @param conn  null: nothing is written
inline void replyTo(CommandContext& context, TPortConn* conn, std::string_view text)
{
    if (conn == nullptr) return;
    putText(context.outMsg.text, text);
    // Telnet and XCP have logged a failure, COM2 only a text that it had no room for, IPC nothing.
    // A peer that has gone is found out by the next read.
    (void)conn->write(&context.outMsg);
}
