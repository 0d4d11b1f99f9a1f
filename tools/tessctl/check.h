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

/// Looks at one thing: at a port, or at tessd's queue.
/// @param name  as in Finding
Finding look(std::string_view name);

/// The names of what can be looked at: queue, daemon, ipc, xcp, telnet, com2.
std::vector<std::string> allChecks();

/// Looks at several things and says what works from here.
/// @param names  as in Finding
/// @return STATUS_DONE when all of it does
/// @throws CtlError  what is printed is lost
ExitStatus runCheck(bool json, const std::vector<std::string>& names);

/// Looks at one thing only, and tells how long that took.
/// @param name  as in Finding; for the queue, tessd's own is looked at
ExitStatus runPing(std::string_view name);
