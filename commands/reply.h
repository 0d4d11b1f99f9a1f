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
    (void)conn->write(&context.outMsg); // the connection has logged a failure; the next pass finds out that it is gone
}
