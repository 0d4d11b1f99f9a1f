#pragma once

#include <atomic>
#include <cstdint>

/// Who wants to hear of what happens, as bits: nobody, as a rule.
enum Listener : std::uint32_t {
    LISTENER_WATCHERS = 1, ///< processes that watch (WatchFeed)
    LISTENER_AUDIT = 2,    ///< the audit log
};

inline constinit std::atomic<std::uint32_t> g_listeners{0};

/// Threads: any.
inline bool someoneListens()
{
    return g_listeners.load(std::memory_order_relaxed) != 0;
}

inline bool isListening(Listener listener)
{
    return (g_listeners.load(std::memory_order_relaxed) & listener) != 0;
}

inline void setListening(Listener listener, bool on)
{
    if (on)
        g_listeners.fetch_or(listener, std::memory_order_relaxed);
    else
        g_listeners.fetch_and(~std::uint32_t{listener}, std::memory_order_relaxed);
}
