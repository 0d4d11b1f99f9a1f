#pragma once

#include <chrono>

/// A moment on the monotonic clock, unmoved by changes of the date: when something is due.
using Instant = std::chrono::steady_clock::time_point;

/// Before every moment, so that it is always due; and behind every moment, so that it never is.
inline constexpr Instant AT_ONCE = Instant::min();
inline constexpr Instant NEVER = Instant::max();

inline Instant instantNow()
{
    return std::chrono::steady_clock::now();
}
