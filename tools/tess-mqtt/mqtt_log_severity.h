#pragma once

#include "framework/service_manager.h"

/// @return the severity of a line that the bridge logs: information, unless its number is known as
///         a warning's or an error's
/// Threads: any; also from a signal handler.
LogSeverity mqttLogSeverity(TTraceMsg id, const char* text);
