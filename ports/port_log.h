#pragma once

#include "framework/log_message.h"

/// What ports log.
namespace port_log {

inline constexpr LogMessage ipcPortClosed{36105, "Socket port closed"};
inline constexpr LogMessage xcpPortClosed{36105, "XCP Socket port closed"};
/// A client of the XCP socket was admitted; the number is 0x10000 below its connection ID. The text
/// says IPC (deliberate).
inline constexpr LogMessage<Hex> xcpOpened{36106, "Opened IPC socket connection with ID = 0x{}"};
/// A client of the XCP socket has gone, or was one too many; so many are left.
inline constexpr LogMessage<Number> xcpClosed{6001, "XCP socket connection closed.  Active connections = {}"};

inline constexpr LogMessage telnetPortClosed{6001, "telnet port closed"};
/// A telnet client was admitted, from this address; the number is 0x10000 below its connection ID.
inline constexpr LogMessage<Hex, Text> telnetOpened{6000, "Opened telnet connection 0x{} from {}"};
/// The telnet client at this address has gone, or was one too many; so many are left.
inline constexpr LogMessage<Text, Number> telnetGone{6001, "Telnet connection closed for {}.  Active connections = {}"};
/// The send buffer of a telnet client could not be set, for the system's reason. The text names the
/// receive buffer (deliberate).
inline constexpr LogMessage<Text> telnetBufferFailed{36104, "Error on opt SO_RCVBUF: {}"};

inline constexpr LogMessage com2PortClosed{36102, "COM2 port closed"};
/// The serial line's session has ended; the next one begins at once.
inline constexpr LogMessage com2Closed{36102, "COM2 connection closed"};
/// The serial line's session has begun; the number is 0x10000 below its connection ID.
inline constexpr LogMessage<Hex> com2Opened{36103, "Open connection Com2 with ID = 0x{}"};

} // namespace port_log
