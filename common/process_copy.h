#pragma once

#include <atomic>

/// True in a process that was forked to restart the device, could not, and goes on as a second copy of the daemon. What it
/// shares with the original, sockets, their files and the serial line, is only let go of there, never shut down or put back:
/// the original goes on using it.
inline std::atomic<bool> g_isCopy{false};
