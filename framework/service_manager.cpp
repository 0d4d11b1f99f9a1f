#include "framework/service_manager.h"

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

#include "framework/fd.h"
#include "framework/fixed_text.h"
#include "framework/hr_time_out.h"

namespace {

constinit std::atomic<LogSeverityOf> severityOfLines{nullptr};
constinit std::atomic<const char*> status{""};

std::string_view environment(const char* name)
{
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

/// The socket address that NOTIFY_SOCKET names: a path, or an abstract name after '@'.
/// @return its length; 0: it names none
socklen_t notifyAddress(sockaddr_un& address)
{
    const std::string_view name = environment("NOTIFY_SOCKET");
    address.sun_family = AF_UNIX;
    if (name.size() < 2 || name.size() >= sizeof address.sun_path) return 0;
    if (name.front() != '/' && name.front() != '@') return 0;
    putText(address.sun_path, name);
    if (name.front() == '@') address.sun_path[0] = '\0';
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
}

/// @return whether sends wait no longer than that; false: they must not wait at all
bool limitSends(int sock, const timeval& patience)
{
    if (patience.tv_sec == 0) return false; // which would be: without end
    return ::setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience) == 0;
}

/// @return the decimal number that the variable is; 0: it is none
std::int64_t numberIn(const char* name)
{
    const std::string_view value = environment(name);
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
    return error == std::errc{} && end == value.data() + value.size() && number > 0 ? number : 0;
}

} // namespace

void setLogSeverities(LogSeverityOf severityOf)
{
    severityOfLines.store(severityOf);
}

LogSeverity logSeverity(TTraceMsg id, const char* text)
{
    const LogSeverityOf severityOf = severityOfLines.load();
    return severityOf != nullptr ? severityOf(id, text) : LogSeverity::information;
}

void setServiceStatus(const char* text)
{
    status.store(text);
}

std::string_view serviceStatus()
{
    return status.load();
}

bool tellServiceManager(std::string_view state, int patience)
{
    sockaddr_un manager{};
    const socklen_t length = notifyAddress(manager);
    if (length == 0) return true;
    const Fd sock(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    timeval limit{};
    limit.tv_sec = patience;
    const int flags = limitSends(sock.get(), limit) ? MSG_NOSIGNAL : MSG_NOSIGNAL | MSG_DONTWAIT;
    const TOrbHRTimeOut end(limit); // after a signal the kernel reckons its own time anew
    ssize_t sent = 0;
    do {
        sent = ::sendto(sock.get(), state.data(), state.size(), flags, reinterpret_cast<const sockaddr*>(&manager),
                        length);
    } while (sent < 0 && errno == EINTR && !end.hasTimedOut());
    const bool full = sent < 0 && (errno == EAGAIN || errno == EINTR); // else it is told, or nobody is there
    return !full;
}

ServiceWatchdog::ServiceWatchdog() : pid_(::getpid())
{
    const std::int64_t meant = numberIn("WATCHDOG_PID");
    if (meant != 0 && meant != pid_) return;
    interval_ = std::chrono::microseconds(numberIn("WATCHDOG_USEC")) / 3;
}

void ServiceWatchdog::tellWhenDue()
{
    const Clock::time_point now = Clock::now();
    if (now < due_ || ::getpid() != pid_) return;
    due_ = now + interval_;
    (void)tellServiceManager("WATCHDOG=1", 0); // to a manager that is busy it is said again
}
