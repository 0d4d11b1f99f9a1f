#pragma once

#include <atomic>

/// True in a process that was forked from the daemon: one that is to restart the device, and, when
/// it could not, goes on as a second copy. What it shares with the original, sockets, their files
/// and the serial line, is only let go of there, never shut down or put back: the original goes on
/// using it.
inline std::atomic<bool> g_isCopy{false};
