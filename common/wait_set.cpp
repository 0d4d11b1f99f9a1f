#include "common/wait_set.h"

#include <algorithm>
#include <cerrno>

#include "framework/sleep.h"

namespace {

constexpr int FAILURE_PAUSE_MS = 10; // everybody is served all the same, at this pace

/// How long to wait for `due`: at least 0, at most `most`. Rounded up, because whoever wakes up
/// early finds nothing due, and waits again.
timeval timeUntil(Instant due, Instant now, std::chrono::microseconds most)
{
    using std::chrono::microseconds;
    const microseconds left = due <= now          ? microseconds(0)
                              : due - now >= most ? most
                                                  : std::chrono::ceil<microseconds>(due - now);
    timeval span{};
    span.tv_sec = static_cast<time_t>(left.count() / 1'000'000);
    span.tv_usec = static_cast<suseconds_t>(left.count() % 1'000'000);
    return span;
}

} // namespace

WaitSet::WaitSet()
{
    FD_ZERO(&input_);
    FD_ZERO(&output_);
}

void WaitSet::addInput(int fd)
{
    if (!fits(fd)) return;
    FD_SET(fd, &input_);
    count(fd);
}

void WaitSet::addOutput(int fd)
{
    if (!fits(fd)) return;
    FD_SET(fd, &output_);
    hasOutputs_ = true;
    count(fd);
}

void WaitSet::count(int fd)
{
    if (fits(fd)) maxFd_ = std::max(maxFd_, fd);
}

void WaitSet::addDue(Instant due)
{
    due_ = std::min(due_, due);
}

void WaitSet::wait(std::chrono::milliseconds most)
{
    timeval span = timeUntil(due_, instantNow(), most);
    failed_ = ::select(maxFd_ + 1, &input_, hasOutputs_ ? &output_ : nullptr, nullptr, &span) < 0;
    if (failed_ && errno != EINTR) Sleep(FAILURE_PAUSE_MS); // it may well go on
    now_ = instantNow();
}

bool WaitSet::isIn(int fd, const fd_set& set) const
{
    return fits(fd) && (failed_ || FD_ISSET(fd, &set));
}
