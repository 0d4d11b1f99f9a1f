#pragma once

#include "framework/log_mgr.h"

/// Identifiers of the log lines that the framework itself writes.

/// The queue could not be opened; the text names the reason.
inline constexpr TTraceMsg LOG_QUEUE_NOT_OPENED = 250001;
/// A datagram arrived that is no record: shorter than its four words, or longer than a record.
inline constexpr TTraceMsg LOG_DATAGRAM_DROPPED = 250002;
/// The service manager that started the process did not take the message that it is up.
inline constexpr TTraceMsg LOG_MANAGER_NOT_TOLD = 250006;
/// Lines were lost, because nobody took them at once; the text has their number.
inline constexpr TTraceMsg LOG_LINES_LOST = 250008;
