#include "framework/log_mgr.h"

#include "framework/bundled/log_line.h"
#include "framework/bundled/log_messages.h"
#include "framework/bundled/syslog_socket.h"
#include "framework/bundled/write_at_once.h"
#include "framework/fd.h"
#include "framework/fixed_text.h"
#include "framework/hr_time_out.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

constinit TLogMgr logMgr;

namespace {

enum class Destination : int { standardError, systemLog, both };

// Atomic, because a signal handler or a thread that outlives main() may log at any moment.
constinit std::atomic<const char*> lineTag{""};
constinit std::atomic<Destination> destination{Destination::standardError};
constinit TSyslogSocket syslogSocket;

/// Lines that nobody has taken and nobody has been told of.
constinit std::atomic<unsigned> lostLines{0};
/// Only the beginning of the last line went to standard error.
constinit std::atomic<bool> lineIsCut{false};

static_assert(std::atomic<const char*>::is_always_lock_free && std::atomic<Destination>::is_always_lock_free);
static_assert(std::atomic<unsigned>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

/// The lines that the parent has lost are told of by the parent, not by the child too.
void startInForkedChild()
{
    lostLines.store(0);
}

[[maybe_unused]] const int atFork = ::pthread_atfork(nullptr, nullptr, startInForkedChild);

Destination destinationFromEnvironment()
{
    const char* const value = std::getenv("TESS_LOG");
    const std::string_view wanted = value != nullptr ? value : "";
    if (wanted == "syslog") return Destination::systemLog;
    if (wanted == "both") return Destination::both;
    return Destination::standardError;
}

TLogLine::Time timeNow()
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const std::chrono::seconds seconds(now.tv_sec);
    return TLogLine::Time(seconds + std::chrono::milliseconds(now.tv_nsec / 1'000'000));
}

/// A line of which standard error has taken only the beginning counts as lost; the line end that it lacks is written in front of
/// the next line.
/// @return false: standard error did not take the line, or not the whole of it
bool logToStandardError(TLogLine::Time time, TTraceMsg id, const char* text)
{
    TLogLine line;
    const bool afterPiece = lineIsCut.exchange(false);
    if (afterPiece) line.lineEnd();
    line.isoTime(time).text(lineTag.load()).text(" ").number(id).text(" ").oneLineText(text).lineEnd();
    const std::size_t written = writeAtOnce(STDERR_FILENO, line.view());
    if (written == line.view().size()) return true;
    if (afterPiece || written > 0) lineIsCut.store(true);
    return false;
}

/// @return false: the system log did not take the line
bool logToSystemLog(TLogLine::Time time, TTraceMsg id, const char* text)
{
    constexpr std::string_view daemonInfo = "<30>"; // facility 3 (daemon) * 8 + severity 6 (information): RFC 3164
    TLogLine line;
    line.text(daemonInfo).syslogTime(time).text(" ").text(program_invocation_short_name);
    line.text("[").number(::getpid()).text("]:");
    line.text(lineTag.load()).text(" ").number(id).text(" ").oneLineText(text);
    return syslogSocket.send(line.view());
}

/// @return false: no destination took the line
bool deliver(TTraceMsg id, const char* text)
{
    const TLogLine::Time time = timeNow();
    const Destination to = destination.load();
    const bool taken = to != Destination::standardError && logToSystemLog(time, id, text);
    if (taken && to == Destination::systemLog) return true;
    return logToStandardError(time, id, text) || taken;
}

/// @return false: lines have been lost, and there is no room for saying so
bool tellLostLines()
{
    const unsigned lost = lostLines.exchange(0);
    if (lost == 0) return true;
    const LogMessage<Number>& row = framework_log::linesLost;
    if (deliver(row.id, composed(row, lost).c_str())) return true;
    lostLines.fetch_add(lost);
    return false;
}

/// The socket address that NOTIFY_SOCKET names: a path, or an abstract name after '@' (sd_notify(3)).
/// @return its length; 0: it names none
socklen_t notifyAddress(sockaddr_un& address)
{
    const char* const value = std::getenv("NOTIFY_SOCKET");
    const std::string_view name = value != nullptr ? value : "";
    address.sun_family = AF_UNIX;
    if (name.size() < 2 || name.size() >= sizeof address.sun_path) return 0;
    if (name.front() != '/' && name.front() != '@') return 0;
    putText(address.sun_path, name);
    if (name.front() == '@') address.sun_path[0] = '\0';
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
}

} // namespace

// The bundled log has no entry limit, level or facility of its own; a line is written or it is not.
void TLogMgr::setLogParameters(int /*maxEntries*/, int /*level*/, const char* tag, int /*facility*/)
{
    lineTag.store(tag != nullptr ? tag : "");
    destination.store(destinationFromEnvironment());
    if (destination.load() != Destination::standardError) syslogSocket.open();
}

void TLogMgr::initAfterDaemonize()
{
    constexpr std::string_view ready = "READY=1";
    sockaddr_un manager{};
    const socklen_t length = notifyAddress(manager);
    if (length == 0) return;
    const Fd sock(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    timeval patience{}; // a manager that is busy gets a moment, one that hangs does not hold up the start
    patience.tv_sec = 1;
    const bool bounded = ::setsockopt(sock.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience) == 0;
    const int flags = bounded ? MSG_NOSIGNAL : MSG_NOSIGNAL | MSG_DONTWAIT;
    const TOrbHRTimeOut end(patience); // after a signal the kernel reckons its own time anew
    ssize_t sent = 0;
    do {
        sent = ::sendto(sock.get(), ready.data(), ready.size(), flags, reinterpret_cast<const sockaddr*>(&manager),
                        length);
    } while (sent < 0 && errno == EINTR && !end.hasTimedOut());
    const bool full = sent < 0 && (errno == EAGAIN || errno == EINTR); // else it is told, or nobody is there
    if (full) logMessage(framework_log::managerNotTold, std::getenv("NOTIFY_SOCKET"), std::strerror(EAGAIN));
}

void TLogMgr::log(TTraceMsg id, const char* text)
{
    const int savedErrno = errno;
    if (!tellLostLines() || !deliver(id, text)) lostLines.fetch_add(1);
    errno = savedErrno;
}
