#include "connections/serial_line.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <unistd.h>

#include "connections/waiting.h"
#include "framework/hr_time_out.h"
#include "framework/sleep.h"

namespace {

constexpr timeval PATIENCE{2, 0};
constexpr int LOOK_FOR_STOP_MS = 50;
// As many as the patience holds. When the whole machine has stood still, the line gets its time nevertheless.
constexpr int FEWEST_LOOKS = 40;
// A terminal is reported writable when less than this waits in it (the kernel's WAKEUP_CHARS).
constexpr std::size_t PIECE_BYTES = 256;

} // namespace

bool writeToLine(int fd, const char* bytes, std::size_t count)
{
    TOrbHRTimeOut patience(PATIENCE);
    int looks = 0;
    while (count > 0) {
        const bool last = looks >= FEWEST_LOOKS && patience.hasTimedOut();
        pollfd line{fd, POLLOUT, 0};
        if (::poll(&line, 1, last ? 0 : LOOK_FOR_STOP_MS) > 0) {
            if ((line.revents & POLLOUT) == 0) return false;
            const ssize_t written = ::write(fd, bytes, std::min(count, PIECE_BYTES));
            if (written > 0) {
                bytes += written;
                count -= static_cast<std::size_t>(written);
                patience.setTimeOut(PATIENCE);
                looks = 0;
                continue;
            }
            if (written == 0 || errno != EAGAIN) return false;
            Sleep(LOOK_FOR_STOP_MS); // a tab goes by itself, and may find less room than was reported
        }
        if (last || g_endWaits) return false;
        ++looks;
    }
    return true;
}
