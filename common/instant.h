#pragma once

#include <chrono>

/// A moment on the monotonic clock, unmoved by changes of the date: when something is due.
using Instant = std::chrono::steady_clock::time_point;

/// Due at once, and due at no time.
inline constexpr Instant AT_ONCE = Instant::min();
inline constexpr Instant NEVER = Instant::max();

inline Instant instantNow()
{
    return std::chrono::steady_clock::now();
}
