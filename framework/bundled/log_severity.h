#pragma once

#include "framework/service_manager.h"

/// @return the severity of a line: fixed for the framework's own lines; for others what the
///         function says that was given to setLogSeverities(), or information without one
/// Threads: any; also from a signal handler.
LogSeverity severityOfLine(TTraceMsg id, const char* text);
