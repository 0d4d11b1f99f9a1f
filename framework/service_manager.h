#pragma once

#include <chrono>
#include <string_view>
#include <sys/types.h>

#include "framework/log_mgr.h"

/// What a process and the service manager that started it have to do with each other beyond TLogMgr
/// (sd_notify(3), systemd.exec(5)). The same whatever library implements the framework; without a
/// service manager nothing of it does anything.

/// How bad what a log line tells is: the digits of syslog(3), which stand in front of lines that
/// the journal takes from standard error.
enum class LogSeverity : char { error = '3', warning = '4', information = '6' };

/// Tells how bad a line is; must do with what a signal handler may do.
/// @param text  as it was given to TLogMgr::log()
using LogSeverityOf = LogSeverity (*)(TTraceMsg id, const char* text);

/// Sets who tells that. Without anybody all lines that are not the framework's own are information.
/// Call before other threads run.
void setLogSeverities(LogSeverityOf severityOf);

/// @return how bad a line is for the one whom setLogSeverities() has named
LogSeverity logSeverity(TTraceMsg id, const char* text);

/// Sets what the bundled TLogMgr::initAfterDaemonize() tells as STATUS= beside READY=1, for people
/// who look at the service.
/// @param text  one line; stays the caller's, and must outlive that call
void setServiceStatus(const char* text);

/// @return what setServiceStatus() was given; the empty text: nothing
std::string_view serviceStatus();

/// Sends one message to the socket that NOTIFY_SOCKET names.
/// @param state     as sd_notify(3) takes it
/// @param patience  for how many seconds to wait for room in a full socket; 0: not at all
/// @return false: it stayed full. Else it was told, or there is nobody to tell
bool tellServiceManager(std::string_view state, int patience);

/// Tells the service manager that the process is alive, where that asks for it (WATCHDOG_USEC): at
/// most once in a third of the time after which it would lose patience.
/// Threads: one. In a forked child it is silent.
class ServiceWatchdog {
public:
    /// Looks what is asked for.
    ServiceWatchdog();

    /// To be called from the loop that is to be watched, at least once a second; costs nothing when
    /// nobody asks.
    void alive()
    {
        if (interval_.count() > 0) tellWhenDue();
    }

private:
    using Clock = std::chrono::steady_clock;

    void tellWhenDue();

    std::chrono::microseconds interval_{0}; ///< zero: nobody asks
    Clock::time_point due_{};
    pid_t pid_;
};
