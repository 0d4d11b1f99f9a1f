#pragma once

#include "connections/log_message.h"

/// What ports log.
namespace port_log {

inline constexpr LogMessage ipcPortClosed{36105, "Socket port closed"};
inline constexpr LogMessage xcpPortClosed{36105, "XCP Socket port closed"};
/// A client of the XCP socket was admitted; the number is 0x10000 below its connection ID. The text says IPC (deliberate).
inline constexpr LogMessage xcpOpened{36106, "Opened IPC socket connection with ID = 0x"};
/// A client of the XCP socket has gone, or was one too many; followed by how many are left.
inline constexpr LogMessage xcpClosed{6001, "XCP socket connection closed.  Active connections = "};

} // namespace port_log
