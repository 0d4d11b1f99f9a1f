#include "tests/commands/send_hook.h"

#include <sys/socket.h>
#include <utility>

namespace {

std::function<void()> beforeSend;

} // namespace

SendHook::SendHook(std::function<void()> before)
{
    beforeSend = std::move(before);
}

SendHook::~SendHook()
{
    beforeSend = nullptr;
}

extern "C" {

ssize_t __real_sendto(int fd, const void* bytes, size_t count, int flags, const sockaddr* to, socklen_t length);
ssize_t __wrap_sendto(int fd, const void* bytes, size_t count, int flags, const sockaddr* to, socklen_t length);

ssize_t __wrap_sendto(int fd, const void* bytes, size_t count, int flags, const sockaddr* to, socklen_t length)
{
    if (beforeSend) beforeSend();
    return __real_sendto(fd, bytes, count, flags, to, length);
}
}
