#include "framework/log_mgr.h"

#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "framework/bundled/log_line.h"
#include "framework/bundled/log_messages.h"
#include "framework/bundled/log_severity.h"
#include "framework/bundled/syslog_socket.h"
#include "framework/bundled/write_at_once.h"
#include "framework/fd.h"
#include "framework/fixed_text.h"
#include "framework/service_manager.h"

constinit TLogMgr logMgr;

namespace {

enum class Destination : int { standardError, systemLog, both };

// Atomic, because a signal handler or a thread that outlives main() may log at any moment.
constinit std::atomic<const char*> lineTag{""};
constinit std::atomic<Destination> destination{Destination::standardError};
constinit SyslogSocket syslogSocket;

/// The journal's stream, as the service manager has named it; standard error may be another one by
/// now. The numbers are written once, before the flag.
struct JournalStream {
    dev_t device = 0;
    ino_t inode = 0;
    std::atomic<bool> isKnown{false};
};
constinit JournalStream journal;

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

/// JOURNAL_STREAM is two decimal numbers with a colon between (systemd.exec(5)).
void lookForJournal()
{
    const char* const value = std::getenv("JOURNAL_STREAM");
    const std::string_view stream = value != nullptr ? value : "";
    const char* const end = stream.data() + stream.size();
    journal.isKnown.store(false);
    const auto device = std::from_chars(stream.data(), end, journal.device);
    if (device.ec != std::errc{} || device.ptr == end || *device.ptr != ':') return;
    const auto inode = std::from_chars(device.ptr + 1, end, journal.inode);
    journal.isKnown.store(inode.ec == std::errc{} && inode.ptr == end);
}

bool journalReadsStandardError()
{
    struct stat now {};
    return journal.isKnown.load() && ::fstat(STDERR_FILENO, &now) == 0 && now.st_dev == journal.device &&
           now.st_ino == journal.inode;
}

LogLineText::Time timeNow()
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const std::chrono::seconds seconds(now.tv_sec);
    return LogLineText::Time(seconds + std::chrono::milliseconds(now.tv_nsec / 1'000'000));
}

/// A line of which standard error has taken only the beginning counts as lost; the line end that it
/// lacks is written in front of the next line.
/// @return false: standard error did not take the line, or not the whole of it
bool logToStandardError(LogLineText::Time time, TTraceMsg id, const char* text)
{
    LogLineText line;
    const bool afterPiece = lineIsCut.exchange(false);
    if (afterPiece) line.lineEnd();
    if (journalReadsStandardError()) {
        const char severity = static_cast<char>(severityOfLine(id, text));
        line.text("<").text({&severity, 1}).text(">");
    }
    line.isoTime(time).text(lineTag.load()).text(" ").number(id).text(" ").oneLineText(text).lineEnd();
    const std::size_t written = writeAtOnce(STDERR_FILENO, line.view());
    if (written == line.view().size()) return true;
    if (afterPiece || written > 0) lineIsCut.store(true);
    return false;
}

/// @return false: the system log did not take the line
bool logToSystemLog(LogLineText::Time time, TTraceMsg id, const char* text)
{
    constexpr std::string_view daemonInfo = "<30>"; // facility 3 (daemon) * 8 + severity 6 (information): RFC 3164
    LogLineText line;
    line.text(daemonInfo).syslogTime(time).text(" ").text(program_invocation_short_name);
    line.text("[").number(::getpid()).text("]:");
    line.text(lineTag.load()).text(" ").number(id).text(" ").oneLineText(text);
    return syslogSocket.send(line.view());
}

/// @return false: no destination took the line
bool deliver(TTraceMsg id, const char* text)
{
    const LogLineText::Time time = timeNow();
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

} // namespace

// The bundled log has no entry limit, level or facility of its own; a line is written or it is not.
void TLogMgr::setLogParameters(int /*maxEntries*/, int /*level*/, const char* tag, int /*facility*/)
{
    lineTag.store(tag != nullptr ? tag : "");
    destination.store(destinationFromEnvironment());
    lookForJournal();
    if (destination.load() != Destination::standardError) syslogSocket.open();
}

void TLogMgr::initAfterDaemonize()
{
    constexpr int patience = 1; // a manager that is busy gets a moment, one that hangs does not hold up the start
    FixedText<512> state;
    state << "READY=1";
    if (!serviceStatus().empty()) state << "\nSTATUS=" << serviceStatus();
    if (!tellServiceManager(state.view(), patience))
        logMessage(framework_log::managerNotTold, std::getenv("NOTIFY_SOCKET"), std::strerror(EAGAIN));
}

void TLogMgr::log(TTraceMsg id, const char* text)
{
    const int savedErrno = errno;
    if (!tellLostLines() || !deliver(id, text)) lostLines.fetch_add(1);
    errno = savedErrno;
}
