#pragma once

#include <cstdint>
#include <optional>

/// What the monotonic clock (clock_gettime(2)) shows: the time that delays are reckoned in.
struct ClockReading {
    static constexpr std::int64_t NS_PER_S = 1'000'000'000;
    static constexpr std::int64_t NS_PER_MS = 1'000'000;
    static constexpr std::int64_t MS_PER_S = 1'000;

    /// @return nothing when the clock cannot be read
    static std::optional<ClockReading> now();

    /// The reading in whole milliseconds, as due times are kept.
    std::uint64_t milliseconds() const
    {
        return static_cast<std::uint64_t>(seconds * MS_PER_S + nanoseconds / NS_PER_MS);
    }

    std::int64_t seconds;
    std::int64_t nanoseconds; ///< of the second that has begun
};
