#include "tests/commands/fake_clock.h"

#include <cerrno>
#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

const FakeClock* fake = nullptr;

// Where 64-bit times are a choice, clock_gettime() is a macro's name for the call of the second name below, and its system
// call has a number of its own.
#ifdef SYS_clock_gettime64
constexpr long READ_CLOCK = SYS_clock_gettime64;
#else
constexpr long READ_CLOCK = SYS_clock_gettime;
#endif

int readClock(clockid_t clock, timespec* now)
{
    if (fake == nullptr || clock != CLOCK_MONOTONIC) return static_cast<int>(::syscall(READ_CLOCK, clock, now));
    if (fake->fails) {
        errno = EINVAL;
        return -1;
    }
    now->tv_sec = static_cast<std::time_t>(fake->seconds);
    now->tv_nsec = static_cast<long>(fake->nanoseconds);
    return 0;
}

} // namespace

FakeClock::FakeClock(std::int64_t startSeconds, std::int64_t startNanoseconds)
    : seconds(startSeconds), nanoseconds(startNanoseconds)
{
    fake = this;
}

FakeClock::~FakeClock()
{
    fake = nullptr;
}

extern "C" {

int __wrap_clock_gettime(clockid_t clock, timespec* now);
int __wrap___clock_gettime64(clockid_t clock, timespec* now);

int __wrap_clock_gettime(clockid_t clock, timespec* now)
{
    return readClock(clock, now);
}

int __wrap___clock_gettime64(clockid_t clock, timespec* now)
{
    return readClock(clock, now);
}
}
