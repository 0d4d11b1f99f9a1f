#pragma once

#include <cstdint>
#include <string>

#include "tools/tessctl/exit_status.h"

struct WatchOptions {
    std::string name; ///< only what belongs to the process of this name; empty: everything
    std::string port; ///< only what belongs to connections of this port; empty: everything
    bool json = false;
    std::uint64_t count = 0; ///< of lines to print; 0: until SIGINT, SIGTERM or SIGHUP
};

/// Prints what happens at tessd, as it happens, until it is stopped or nobody reads what it prints.
/// @throws CtlError
ExitStatus runWatch(const WatchOptions& options);
