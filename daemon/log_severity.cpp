#include "daemon/log_severity.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "connections/connection_log.h"
#include "daemon/daemon_log.h"
#include "ports/port_log.h"

namespace {

/// A row of a log table, known by its number and the text in front of what varies.
struct Row {
    template <class... Values>
    constexpr Row(const LogMessage<Values...>& message)
        : id(message.id), head(std::string_view(message.text).substr(0, std::string_view(message.text).find('{')))
    {
    }

    TTraceMsg id;
    std::string_view head;
};

/// The daemon does not start, breaks off, or does not do what it is there for.
constexpr Row errors[] = {
    daemon_log::errorRuntime, daemon_log::noCom2,     daemon_log::noTelnet,
    daemon_log::noXcp,        daemon_log::noIpc,      daemon_log::forkFailed,
    daemon_log::rebootFailed, daemon_log::signalSegv, connection_log::loginBadState,
};

/// A client has not got what it wanted, or somebody has tried what is not allowed.
constexpr Row warnings[] = {
    connection_log::fullBuffer,           connection_log::xcpWriteFailed,     connection_log::xcpLengthOutOfRange,
    connection_log::com2OutputDropped,    connection_log::telnetWriteFailed,  connection_log::loginUserInvalid,
    connection_log::loginPasswordInvalid, connection_log::loginUnknownReason, port_log::telnetBufferFailed,
};

} // namespace

LogSeverity daemonLogSeverity(TTraceMsg id, const char* text)
{
    const std::string_view line = text;
    const auto isLine = [&](const Row& row) { return row.id == id && line.starts_with(row.head); };
    if (std::any_of(std::begin(errors), std::end(errors), isLine)) return LogSeverity::error;
    if (std::any_of(std::begin(warnings), std::end(warnings), isLine)) return LogSeverity::warning;
    return LogSeverity::information;
}
