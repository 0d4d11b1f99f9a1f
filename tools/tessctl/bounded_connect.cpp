#include "tools/tessctl/bounded_connect.h"

#include <cerrno>
#include <sys/time.h>

int connectWithin(std::chrono::milliseconds patience, int fd, const sockaddr* name, socklen_t size)
{
    timeval limit{};
    limit.tv_sec = static_cast<time_t>(patience.count() / 1000);
    limit.tv_usec = static_cast<suseconds_t>(patience.count() % 1000 * 1000);
    if (::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0) return errno;
    if (::connect(fd, name, size) == 0) return 0;
    const bool late = errno == EAGAIN || errno == EINPROGRESS; // what a local socket and what TCP report then
    return late ? ETIMEDOUT : errno;
}
