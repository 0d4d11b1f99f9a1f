#pragma once

#include "framework/service_manager.h"

/// @return how bad a line is: of the framework's own lines it knows, of others whoever has set
///         setLogSeverities()
/// Threads: any; also from a signal handler.
LogSeverity severityOfLine(TTraceMsg id, const char* text);
