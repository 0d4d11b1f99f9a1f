#include "tests/commands/fake_clock.h"

#include <cerrno>
#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

const FakeClock* fake = nullptr;
const StoppedTime* stopped = nullptr;

// Where 64-bit times are a choice, clock_gettime() is a macro's name for the call of the second
// name below, and its system call has a number of its own.
#ifdef SYS_clock_gettime64
constexpr long READ_CLOCK = SYS_clock_gettime64;
#else
constexpr long READ_CLOCK = SYS_clock_gettime;
#endif

using Instant = std::chrono::steady_clock::time_point;

timespec asTimespec(Instant moment)
{
    using std::chrono::nanoseconds;
    const std::int64_t nanos = nanoseconds(moment.time_since_epoch()).count();
    return {static_cast<std::time_t>(nanos / 1'000'000'000), static_cast<long>(nanos % 1'000'000'000)};
}

int readClock(clockid_t clock, timespec* now)
{
    if (fake == nullptr && stopped != nullptr && clock == CLOCK_MONOTONIC) {
        *now = asTimespec(stopped->now);
        return 0;
    }
    if (fake == nullptr || clock != CLOCK_MONOTONIC) return static_cast<int>(::syscall(READ_CLOCK, clock, now));
    if (fake->fails) {
        errno = EINVAL;
        return -1;
    }
    const std::chrono::nanoseconds passed = stopped != nullptr ? stopped->now - stopped->began : Instant::duration{};
    *now =
        asTimespec(Instant(std::chrono::seconds(fake->seconds) + std::chrono::nanoseconds(fake->nanoseconds) + passed));
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

StoppedTime::StoppedTime() : now(std::chrono::steady_clock::now())
{
    stopped = this;
}

StoppedTime::~StoppedTime()
{
    stopped = nullptr;
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

/// std::chrono::steady_clock::now(), as the compiler names it.
std::chrono::steady_clock::time_point steadyNow() noexcept __asm__("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");

std::chrono::steady_clock::time_point steadyNow() noexcept
{
    if (stopped != nullptr) return stopped->now;
    timespec now{};
    (void)::syscall(READ_CLOCK, CLOCK_MONOTONIC, &now);
    return std::chrono::steady_clock::time_point(std::chrono::seconds(now.tv_sec) +
                                                 std::chrono::nanoseconds(now.tv_nsec));
}
