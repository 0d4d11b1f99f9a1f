#include "framework/bundled/log_severity.h"

#include "framework/bundled/log_messages.h"

LogSeverity severityOfLine(TTraceMsg id, const char* text)
{
    switch (id) {
    case LOG_QUEUE_NOT_OPENED:
        return LogSeverity::error;
    case LOG_DATAGRAM_DROPPED:
    case LOG_MANAGER_NOT_TOLD:
    case LOG_LINES_LOST:
        return LogSeverity::warning;
    default:
        return logSeverity(id, text);
    }
}
