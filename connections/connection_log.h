#pragma once

#include "framework/log_message.h"

/// What connections log.
namespace connection_log {

/// A local client sent a whole buffer with a line end in it; all of it was thrown away. Send less
/// than 1024 bytes at once.
inline constexpr LogMessage fullBuffer{250003, "Full cmd buffer (>1k) without a newline received. Discarding"};
/// An answer could not be written to an XCP client: it is gone, or it does not read.
inline constexpr LogMessage xcpWriteFailed{250004, "Error writing to the socket"};
/// An XCP client declared a payload that no buffer holds; its connection is closed.
inline constexpr LogMessage xcpLengthOutOfRange{250004, "XCP frame length out of range"};

/// The serial line takes less than it is given: a text that does not fit into what is kept for it
/// was dropped whole.
inline constexpr LogMessage com2OutputDropped{250007, "COM2 output dropped"};

/// An answer could not be written to a telnet client: it is gone, or it does not read.
inline constexpr LogMessage telnetWriteFailed{6004, "Error writting to the telnet socket"};

// Failed logins. The texts that begin with "Failed login" end in a blank (deliberate).
inline constexpr LogMessage loginNameTooBig{251526, "Login name too big"};
inline constexpr LogMessage loginPasswordTooBig{251526, "Login password too big"};
/// The password database has no such user.
inline constexpr LogMessage loginUserInvalid{251526, "Failed login, username invalid "};
/// Wrong password, no hash in the user's entry, or the super-user.
inline constexpr LogMessage loginPasswordInvalid{251526, "Failed login, password invalid "};
inline constexpr LogMessage loginUnknownReason{251526, "Failed login, unknown reason "};
inline constexpr LogMessage loginClosed{251526, "Received connection close request from client during login"};
/// 60 seconds after the connection began the login was not done: no name (state 1), or no password
/// or no end of its check (state 2).
inline constexpr LogMessage<Number> loginTimeOut{251526, "Timeout during connection login, state = {}"};
/// Cannot happen.
inline constexpr LogMessage<Number> loginBadState{251526, "Invalid login state ({}) reached, closing connection"};

} // namespace connection_log
