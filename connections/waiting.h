#pragma once

#include <atomic>

/// True once the daemon is asked to stop: a reader that waits for its peer gives up and reports the connection as ended.
/// Set from any thread and from the signal handler, never cleared while the daemon lives.
inline std::atomic<bool> g_endWaits{false};
