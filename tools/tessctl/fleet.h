#pragma once

#include <string>

#include "tools/tessctl/exit_status.h"
#include "tools/tessctl/fleet_options.h"

/// The file that is used when none is named: $TESS_FLEET, ~/.config/tess/fleet.conf where that is
/// there, or /etc/tess/fleet.conf.
std::string fleetSettingsFile();

/// Sends a line to many devices, and prints what each has answered.
/// @throws CtlError  no broker, wrong settings, or no such group
ExitStatus runFleetSend(const FleetOptions& options, const std::string& line);

/// Prints which devices there are; to those of `group`, or `devices`, where they are given.
/// @return STATUS_NO_ANSWER when one of them is offline, or there is none
/// @throws CtlError  as runFleetSend()
ExitStatus runFleetStatus(const FleetOptions& options);
