#include "framework/hr_time_out.h"

namespace {

constexpr long NANOS_PER_SECOND = 1'000'000'000;

timespec monotonicNow()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

} // namespace

void TOrbHRTimeOut::setTimeOut(const timeval& span)
{
    const timespec now = monotonicNow();
    const long nanos = now.tv_nsec + static_cast<long>(span.tv_usec % 1'000'000) * 1000;
    due_.tv_sec = now.tv_sec + span.tv_sec + span.tv_usec / 1'000'000 + nanos / NANOS_PER_SECOND;
    due_.tv_nsec = nanos % NANOS_PER_SECOND;
    if (due_.tv_nsec < 0) {
        due_.tv_sec -= 1;
        due_.tv_nsec += NANOS_PER_SECOND;
    }
    armed_ = true;
}

bool TOrbHRTimeOut::hasTimedOut() const
{
    if (!armed_) return true;
    const timespec now = monotonicNow();
    if (now.tv_sec != due_.tv_sec) return now.tv_sec > due_.tv_sec;
    return now.tv_nsec >= due_.tv_nsec;
}
