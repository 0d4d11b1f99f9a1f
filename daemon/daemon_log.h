#pragma once

#include "framework/log_message.h"

/// What the daemon's core logs. Numbers are fixed; some are shared by several texts.
namespace daemon_log {

inline constexpr LogMessage running{51000, "Command listener daemon running"};
inline constexpr LogMessage normalExit{51001, "Normal application exit"};
/// Start-up failed. When the queue could not be opened, the line before says why (250001). When a
/// port could not be set up, the last "Initialize ..." line names it; lines about other ports that
/// are closed again may stand in between. Without either, there was no descriptor for the wake-up.
inline constexpr LogMessage errorRuntime{51008, "Error runtime"};

inline constexpr LogMessage initCom2{36101, "Initialize Com2 connection"};
inline constexpr LogMessage noCom2{251525, "Unable to create COM2 command port"};
inline constexpr LogMessage initTelnet{36004, "Initialize telnet connection"};
inline constexpr LogMessage noTelnet{251525, "Unable to create Telnet command port"};
inline constexpr LogMessage initXcp{36104, "Initialize XCP socket connection"};
inline constexpr LogMessage initIpc{36104, "Initialize IPC socket connection"};
inline constexpr LogMessage noXcp{251525, "Unable XCP command port"}; // the text is deliberate
inline constexpr LogMessage noIpc{251525, "Unable to create IPC socket command port"};

inline constexpr LogMessage closingAll{36201, "Closing all connections!"};
inline constexpr LogMessage closingTelnet{36201, "Closing all telnet connections!"};

inline constexpr LogMessage resetReceived{250003, "Received RESET command."};
/// No child process could be made, or the kernel refused the restart; both for the system's reason.
inline constexpr LogMessage<Text> forkFailed{250005, "Error forking for reboot: {}"};
inline constexpr LogMessage<Text> rebootFailed{250005, "Error forcing reboot: {}"};

inline constexpr LogMessage signalTerm{250009, "Received SIGTERM, proceeding with orderly shutdown"};
inline constexpr LogMessage signalQuit{250009, "Received SIGQUIT, proceeding with orderly shutdown"};
/// The number is that of the milestone last passed.
inline constexpr LogMessage<Number> signalSegv{250009, "Segmentation fault detected after milestone {}"};
/// Logged whichever child it was (deliberate).
inline constexpr LogMessage signalChild{250009, "Signal 'SIGCHLD' received, but no child exists"};

} // namespace daemon_log
