#pragma once

#include <string_view>
#include <strings.h>

#include "commands/command_context.h"
#include "connections/port_conn.h"
#include "connections/white_space.h"
#include "framework/fixed_text.h"

/// Compares the front of `text` without regard to case.
inline bool beginsWithNoCase(std::string_view text, std::string_view head)
{
    return text.size() >= head.size() && ::strncasecmp(text.data(), head.data(), head.size()) == 0;
}

/// `text` without the white space at both ends.
inline std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && isWhiteSpace(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isWhiteSpace(text.back()))
        text.remove_suffix(1);
    return text;
}

/// Writes `text` to a connection by way of outMsg; a text that is longer than a record is cut.
/// @param conn  null: nothing is written
inline void replyTo(TCommandContext& context, TPortConn* conn, std::string_view text)
{
    if (conn == nullptr) return;
    putText(context.outMsg.text, text);
    (void)conn->write(&context.outMsg); // the connection has logged a failure; the next pass finds out that it is gone
}
