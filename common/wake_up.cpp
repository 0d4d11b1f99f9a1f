#include "common/wake_up.h"

#include <cerrno>
#include <cstdint>
#include <pthread.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <unistd.h>

constinit WakeUp g_wakeUp;

namespace {

void startInForkedChild()
{
    g_wakeUp.openAnew();
}

[[maybe_unused]] const int atFork = ::pthread_atfork(nullptr, nullptr, startInForkedChild);

} // namespace

void WakeUp::open()
{
    if (fd_ >= 0) return;
    fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd_ < 0) throw std::runtime_error("failed creating wake-up descriptor");
}

void WakeUp::openAnew()
{
    if (fd_ < 0) return;
    (void)::close(fd_); // the parent keeps its own
    fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

void WakeUp::wake() const
{
    const int savedErrno = errno;
    const std::uint64_t one = 1;
    // Fails only when the counter is full, and then the descriptor is readable already.
    (void)::write(fd_, &one, sizeof one);
    errno = savedErrno;
}

void WakeUp::clear() const
{
    std::uint64_t count = 0;
    (void)::read(fd_, &count, sizeof count); // fails only when nobody has woken it, and then there is nothing to clear
}
