#pragma once

#include "framework/service_manager.h"

/// @return the severity of a line that the daemon logs: information, unless it is known as a
///         warning or an error
/// Threads: any; also from a signal handler.
LogSeverity daemonLogSeverity(TTraceMsg id, const char* text);
