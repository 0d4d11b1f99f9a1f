#pragma once

#include <cstdint>
#include <string>

#include "common/counters.h"

/// A process that registered to receive commands.
struct TRegisteredProc {
    std::int32_t procId;    ///< its queue address
    std::uint32_t portMask; ///< kinds of port whose commands it wants (TessPortType bits)
    std::string name;
    Counter sent{};     ///< commands for it, delivered or not; changed under the registry lock
    Counter answered{}; ///< answers that have come from its address; the message loop's
};

/// What was counted of a process that has unregistered. One that only looks whether its name is
/// still its own registers again at once, and goes on counting.
struct LeftProc {
    std::int32_t procId = 0;
    std::string name{};
    std::uint32_t sent = 0;
    std::uint32_t answered = 0;
};
