#pragma once

#include <ctime>
#include <sys/time.h>

/// A time-out on the monotonic clock (clock_gettime(2), CLOCK_MONOTONIC): unmoved by changes of the
/// date.
/// Threads: no lock of its own.
class TOrbHRTimeOut {
public:
    /// Unarmed, which counts as timed out.
    TOrbHRTimeOut() = default;

    /// Armed, as by setTimeOut().
    explicit TOrbHRTimeOut(const timeval& span) { setTimeOut(span); }

    /// Arms it afresh: times out `span` from now, whatever it was before.
    /// @param span  seconds and microseconds, of which there may be more than a million; zero and
    ///              less are over at once
    void setTimeOut(const timeval& span);

    /// @return true when the time is over, or when it was never armed
    bool hasTimedOut() const;

private:
    timespec due_{};
    bool armed_ = false;
};
