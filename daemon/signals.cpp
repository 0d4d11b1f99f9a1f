#include "daemon/signals.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "common/milestone.h"
#include "daemon/daemon_log.h"
#include "framework/fixed_text.h"

namespace {

using SignalText = FixedText<128>;

constinit std::atomic<void (*)()> stopDaemon{nullptr};
static_assert(std::atomic<void (*)()>::is_always_lock_free);

} // namespace

void signalHandler(int signo)
{
    const int savedErrno = errno;
    switch (signo) {
    case SIGQUIT:
    case SIGTERM: {
        SignalText text;
        text << daemon_log::signalReceived.text << (signo == SIGTERM ? "SIGTERM" : "SIGQUIT")
             << daemon_log::signalShutdownTail;
        logMgr.log(daemon_log::signalReceived.id, text.c_str());
        if (void (*const stop)() = stopDaemon) stop();
        break;
    }
    case SIGSEGV: {
        SignalText text;
        text << daemon_log::signalSegv.text << g_milestone.load(std::memory_order_relaxed);
        logMgr.log(daemon_log::signalSegv.id, text.c_str());
        std::exit(1);
    }
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
