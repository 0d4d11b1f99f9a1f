#pragma once

#include "framework/log_mgr.h"

/// One row of a room's table of log messages. Where values follow, `text` is what stands in front of them.
struct LogMessage {
    TTraceMsg id;
    const char* text;
};

inline void logMessage(const LogMessage& message)
{
    logMgr.log(message.id, message.text);
}
