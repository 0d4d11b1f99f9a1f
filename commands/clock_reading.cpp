#include "commands/clock_reading.h"

#include <ctime>

std::optional<ClockReading> ClockReading::now()
{
    timespec now{};
    if (::clock_gettime(CLOCK_MONOTONIC, &now) != 0) return std::nullopt;
    return ClockReading{now.tv_sec, now.tv_nsec};
}
