#include "daemon/reset.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <sys/reboot.h>
#include <unistd.h>

#include "commands/reset_line.h"
#include "daemon/daemon_log.h"

namespace {

constexpr unsigned REBOOT_DELAY_S = 5;
constexpr int REBOOT_RESTART = 0x1234567; // RB_AUTOBOOT, reboot(2)

} // namespace

Reset::Reset(ReInit& reInit, std::function<int()> forkWhole) : reInit_(reInit), forkWhole_(std::move(forkWhole)) {}

ResetResult Reset::ask(const char* line, const void* asker) noexcept
try {
    if (reInit_.isAskedBy(asker)) {
        if (!reInit_.isOver(asker)) return RESET_WAITS;
        return reInit_.takeResult() ? restart() : RESET_REFUSED;
    }
    const ResetLine asked = parseResetLine(line);
    if (asked == ResetLine::restart) return restart();
    return asked == ResetLine::reInit && reInit_.start(asker) ? RESET_WAITS : RESET_REFUSED;
} catch (const std::bad_alloc&) { // while the line was taken apart: nothing has been begun
    return RESET_REFUSED;
}

void Reset::finishForgotten() noexcept
{
    if (reInit_.takeForgotten()) (void)restart(); // nobody is there to be told
}

ResetResult Reset::restart() noexcept
{
    const int child = forkWhole_();
    if (child < 0) {
        logMessage(daemon_log::forkFailed, std::strerror(errno));
        return RESET_REFUSED;
    }
    if (child > 0) return RESET_STARTED;

    ::sync();
    ::sleep(REBOOT_DELAY_S); // by which the requester and the log are told before the end
    if (::reboot(REBOOT_RESTART) == 0) ::_exit(0);
    logMessage(daemon_log::rebootFailed, std::strerror(errno));
    return RESET_REFUSED;
}
