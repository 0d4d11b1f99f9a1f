#include "connections/serial_line.h"

#include <algorithm>
#include <poll.h>
#include <unistd.h>

#include "connections/waiting.h"
#include "framework/hr_time_out.h"

namespace {

constexpr timeval PATIENCE{2, 0};
constexpr int LOOK_FOR_STOP_MS = 50;
// A terminal is reported writable when less than this waits in it (the kernel's WAKEUP_CHARS): so much goes without blocking.
constexpr std::size_t PIECE_BYTES = 256;

/// Sleeps until the line takes bytes.
bool lineIsReady(int fd)
{
    const TOrbHRTimeOut patience(PATIENCE);
    pollfd line{fd, POLLOUT, 0};
    while (::poll(&line, 1, LOOK_FOR_STOP_MS) <= 0)
        if (g_endWaits || patience.hasTimedOut()) return false;
    return (line.revents & POLLOUT) != 0;
}

} // namespace

bool writeToLine(int fd, const char* bytes, std::size_t count)
{
    while (count > 0) {
        if (!lineIsReady(fd)) return false;
        const ssize_t written = ::write(fd, bytes, std::min(count, PIECE_BYTES));
        if (written <= 0) return false;
        bytes += written;
        count -= static_cast<std::size_t>(written);
    }
    return true;
}
