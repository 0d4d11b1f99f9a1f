#pragma once

#include <atomic>
#include <cstdint>

/// How far the program has got: nearly every operation of ports, commands and daemon stores a fixed number on entry and
/// another on normal exit, whichever thread it runs on. Reported when the program crashes.
inline std::atomic<std::int32_t> g_milestone{0};

inline void setMilestone(std::int32_t number)
{
    g_milestone.store(number, std::memory_order_relaxed);
}
