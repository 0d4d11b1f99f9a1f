#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/tessctl/exit_status.h"

struct ListenOptions {
    std::string name = "LISTEN";
    std::uint32_t ports = 0;
    std::optional<long> address;
    bool takeOver = false; ///< the name, from another tessctl
    bool raw = false;
    std::uint64_t count = 0; ///< of records to print; 0: until SIGINT, SIGTERM or SIGHUP
};

/// Registers, prints every record that arrives, and unregisters at the end, or when nobody reads
/// what it prints.
/// @throws CtlError
ExitStatus runListen(const ListenOptions& options);
