#pragma once

#include <chrono>
#include <cstdint>

#include "tools/tessctl/exit_status.h"

struct TopOptions {
    std::chrono::milliseconds interval{1000};
    std::uint64_t count = 0; ///< of screens; 0: until `q` is typed, or a signal comes
    bool json = false;
};

/// Shows the daemon's state on the whole terminal, again and again. Where standard output is no
/// terminal it prints one screen, and with `json` an object for each, in a line.
/// @throws CtlError
ExitStatus runTop(TopOptions options);
