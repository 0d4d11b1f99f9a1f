#pragma once

#include <chrono>
#include <string_view>
#include <sys/types.h>

#include "framework/log_mgr.h"

/// How a process talks to the service manager that started it (sd_notify(3), systemd.exec(5)),
/// besides what TLogMgr does. The same with any framework library. Without a service manager
/// nothing is sent.

/// The severity of a log line, as the digit of syslog(3) that stands in front of lines for the
/// journal.
enum class LogSeverity : char { error = '3', warning = '4', information = '6' };

/// A function that gives the severity of a line. It may be called in a signal handler: only what
/// signal-safety(7) allows.
/// @param text  as it was given to TLogMgr::log()
using LogSeverityOf = LogSeverity (*)(TTraceMsg id, const char* text);

/// Sets the function that gives the severity of lines that are not the framework's own. Without one
/// they are all information. Call before other threads run.
/// @param severityOf  null: none
void setLogSeverities(LogSeverityOf severityOf);

/// @return what that function says of a line; information when there is none
/// Threads: any; also from a signal handler.
LogSeverity logSeverity(TTraceMsg id, const char* text);

/// Sets what the bundled TLogMgr::initAfterDaemonize() tells as STATUS= beside READY=1, for people
/// who look at the service.
/// @param text  one line; stays the caller's, and must outlive that call
void setServiceStatus(const char* text);

/// @return what setServiceStatus() was given; the empty text: nothing
std::string_view serviceStatus();

/// Sends one message to the socket that NOTIFY_SOCKET names.
/// @param state     as sd_notify(3) takes it
/// @param patience  seconds to wait for room in a full socket, nearly twice as long when signals
///                  arrive; 0: not at all
/// @return false: the socket stayed full. true: sent, or nobody is there to be told
/// Threads: any, while no other thread changes the environment.
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
