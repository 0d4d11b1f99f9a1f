#pragma once

#include <chrono>

/// A moment on the monotonic clock, unmoved by changes of the date: when something is due.
using Instant = std::chrono::steady_clock::time_point;

/// Earlier than every moment: what is due then is always due.
inline constexpr Instant AT_ONCE = Instant::min();
/// Later than every moment: what is due then never is.
inline constexpr Instant NEVER = Instant::max();

inline Instant instantNow()
{
    return std::chrono::steady_clock::now();
}
