#include "framework/bundled/log_severity.h"

#include "framework/bundled/log_messages.h"

LogSeverity severityOfLine(TTraceMsg id, const char* text)
{
    switch (id) {
    case framework_log::QUEUE_NOT_OPENED:
        return LogSeverity::error;
    case framework_log::datagramDropped.id:
    case framework_log::managerNotTold.id:
    case framework_log::linesLost.id:
        return LogSeverity::warning;
    default:
        return logSeverity(id, text);
    }
}
