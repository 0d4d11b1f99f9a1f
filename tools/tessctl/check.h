#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/tessctl/exit_status.h"

/// One thing that was looked at.
struct Finding {
    std::string name; ///< one of allChecks()
    bool ok = false;
    std::string what; ///< in words
};

/// Looks at one thing. Takes about 10 seconds at most, for telnet 15.
/// @param name  one of allChecks(), nothing else. "queue" is the queue directory, "daemon" tessd's
///              own queue, the others are ports
Finding look(std::string_view name);

/// The names of what can be looked at: queue, daemon, ipc, xcp, telnet, com2.
std::vector<std::string> allChecks();

/// Looks at several things and says what works from here.
/// @param names  as in Finding
/// @return STATUS_DONE when all of it does
/// @throws CtlError  what is printed is lost
ExitStatus runCheck(bool json, const std::vector<std::string>& names);

/// Looks at one thing only, and prints how long that took, in milliseconds.
/// @param name  as in Finding; "queue" means tessd's own queue here
/// @return STATUS_DONE, or STATUS_REFUSED when it does not work
/// @throws CtlError  what is printed is lost
ExitStatus runPing(std::string_view name);
