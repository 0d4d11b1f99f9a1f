#pragma once

#include "framework/service_manager.h"

/// @return how bad it is what a line of the daemon's log tells
/// Threads: any; also from a signal handler.
LogSeverity daemonLogSeverity(TTraceMsg id, const char* text);
