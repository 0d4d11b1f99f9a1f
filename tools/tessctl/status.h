#pragma once

#include "tools/tessctl/exit_status.h"

/// What tessd tells of itself, printed. All throw CtlError.

/// Version, ports and counters.
ExitStatus runStatus(bool json);

/// The registered processes.
/// @param namesOnly  a name a line, those that cannot be typed left out
ExitStatus runList(bool json, bool namesOnly);

/// The connections.
ExitStatus runWho(bool json);

/// All numbers, as OpenMetrics text.
/// @param json  as an object, as `status` has it
ExitStatus runMetrics(bool json);
