#pragma once

#include "connections/log_message.h"

/// What connections log.
namespace connection_log {

/// A local client sent a whole buffer with a line end in it; all of it was thrown away. Send less than 1024 bytes at once.
inline constexpr LogMessage fullBuffer{250003, "Full cmd buffer (>1k) without a newline received. Discarding"};
/// An answer could not be written to an XCP client: it is gone, or it does not read.
inline constexpr LogMessage xcpWriteFailed{250004, "Error writing to the socket"};
/// An XCP client declared a payload that no buffer holds; its connection is closed.
inline constexpr LogMessage xcpLengthOutOfRange{250004, "XCP frame length out of range"};

} // namespace connection_log
