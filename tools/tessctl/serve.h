#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/tessctl/exit_status.h"

struct ServeOptions {
    std::string name;
    std::uint32_t ports = 0;
    std::optional<long> address;
    std::chrono::milliseconds timeLimit{10'000}; ///< for one run of the program
    bool untilUnread = false;                    ///< end when nobody reads standard output any more, too
    std::vector<std::string> program;
};

/// How many commands wait at most while the program runs; the next one is refused.
inline constexpr std::size_t MOST_WAITING = 1000;

/// How much a program may print for one command.
inline constexpr std::size_t MOST_OUTPUT_BYTES = 65536;

/// Is a process of the device whose answers a program makes, until SIGTERM, SIGINT or SIGHUP.
/// Commands that have arrived by then are still answered: for 10 seconds at most, or until a second
/// signal.
/// @throws CtlError
ExitStatus runServe(const ServeOptions& options);
