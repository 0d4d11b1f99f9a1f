#include "daemon/signals.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "common/milestone.h"
#include "daemon/daemon_log.h"

namespace {

constinit std::atomic<void (*)()> stopDaemon{nullptr};
static_assert(std::atomic<void (*)()>::is_always_lock_free);

} // namespace

void signalHandler(int signo)
{
    const int savedErrno = errno;
    switch (signo) {
    case SIGQUIT:
    case SIGTERM:
        logMessage(signo == SIGTERM ? daemon_log::signalTerm : daemon_log::signalQuit);
        if (void (*const stop)() = stopDaemon) stop();
        break;
    case SIGSEGV:
        logMessage(daemon_log::signalSegv, g_milestone.load(std::memory_order_relaxed));
        std::exit(1); // runs exit handlers, although they are not made for a signal handler (deliberate)
    case SIGCHLD:
        logMessage(daemon_log::signalChild);
        break;
    default: // SIGPIPE among them: the failed write reports itself
        break;
    }
    errno = savedErrno;
}

void installSignalHandlers(void (*stop)())
{
    stopDaemon = stop;
    struct sigaction action {};
    action.sa_handler = signalHandler;
    sigfillset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int signo : {SIGQUIT, SIGTERM, SIGSEGV, SIGPIPE})
        (void)::sigaction(signo, &action, nullptr);
    action.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    (void)::sigaction(SIGCHLD, &action, nullptr);
}
