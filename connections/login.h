#pragma once

#include <array>
#include <cstddef>

#include "connections/port_conn.h"
#include "framework/orb_attachment_msg.h"

/// Longest user name, and longest read that may hold one or a password, line end included.
inline constexpr std::size_t LOGIN_TEXT_BYTES = 256;

/// One name for all connections: two clients that log in at the same time overwrite each other's
/// (deliberate).
using UserName = std::array<char, LOGIN_TEXT_BYTES + 1>;

/// Takes one step of the login dialogue of a connection that is not logged in: greets, asks, or
/// handles what has arrived. Never waits itself: what the dialogue waits for besides a line is kept
/// in the connection, to be asked for at the next step.
/// @param message   its text is overwritten with what the client is told
/// @param userName  the name typed, between two steps
/// @return true: go on; false: the login has failed, which has been logged and told: remove the
///         connection
/// Threads: service thread.
bool loginStep(TPortConn& conn, TOrbAttachmentMsg& message, UserName& userName);
