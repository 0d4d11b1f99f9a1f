#pragma once

#include <string>

#include "tools/tessctl/exit_status.h"
#include "tools/tessctl/fleet_options.h"

/// Becomes the program that talks to the broker: it is one of its own, so that everybody else's
/// tessctl need not load what encryption takes.
/// @param what  "send" or "status"
/// @param line  to be sent
/// @throws CtlError  it is not there
[[noreturn]] void becomeFleetProgram(const std::string& what, const FleetOptions& options, const std::string& line);

/// What it is called with, taken apart again.
struct FleetCall {
    std::string what;
    std::string line;
    FleetOptions options;
};
FleetCall fleetCall(int argc, char** argv);
