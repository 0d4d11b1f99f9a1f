#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include "common/listeners.h"
#include "common/milestone.h"
#include "common/std_descriptors.h"
#include "daemon/daemon_log.h"
#include "daemon/log_severity.h"
#include "daemon/options.h"
#include "daemon/service_status.h"
#include "daemon/tess.h"
#include "framework/tess_messages.h"

namespace {

/// @throws what the daemon's constructor throws, after it has logged "Error runtime" where that is
///         due
TTess* construct(const Options& options)
try {
    return new TTess(TESS_QUEUE_ID, options.com2, options.telnet, options.noipcsocket, options.noxcp);
} catch (const std::runtime_error&) {
    logMessage(daemon_log::errorRuntime);
    throw;
}

bool isAuditWanted()
{
    const char* const wanted = std::getenv("TESS_AUDIT");
    return wanted != nullptr && std::string_view(wanted) == "1";
}

} // namespace

int main(int argc, char* argv[])
try {
    openStdDescriptors();
    setMilestone(Milestone::programBegun);
    setLogSeverities(daemonLogSeverity);
    setListening(LISTENER_AUDIT, isAuditWanted());
    logMgr.setLogParameters(128, 6, "    [TESS]", 4);
    const Options options = parseOptions(argc, argv);
    if (options.missingArgument != 0) {
        (void)std::fprintf(stderr, "%s: option %d requires an argument\n", argv[0], options.missingArgument);
        return EXIT_FAILURE;
    }

    setMilestone(Milestone::creatingDaemon);
    g_tess = construct(options);
    const FixedText<128> status = serviceStatusText(g_tess.load()->openPorts());
    setServiceStatus(status.c_str());
    logMgr.initAfterDaemonize();
    setMilestone(Milestone::daemonCreated);
    logMessage(daemon_log::running);
    if (g_tess.load()->startService() != 0) return -1;
    setMilestone(Milestone::serviceStarted);
    (void)g_tess.load()->run(); // always 0
    setMilestone(Milestone::messageLoopLeft);
    endDaemon();
    return EXIT_SUCCESS;
} catch (...) {
    return EXIT_FAILURE;
}
