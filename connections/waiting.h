#pragma once

#include <atomic>

// Set from any thread and from the signal handler, never cleared while the daemon lives.

/// True once the daemon is asked to stop: a reader that would wait for its peer without end gives up and reports the connection
/// as ended.
inline std::atomic<bool> g_endUnboundedWaits{false};

/// True once nobody is served any more: waits that have an end of their own give up too. Never without the one above.
inline std::atomic<bool> g_endWaits{false};
