#pragma once

#include <cstdint>
#include <string>

/// A process that registered to receive commands.
struct TRegisteredProc {
    std::int32_t procId;    ///< its queue address
    std::uint32_t portMask; ///< kinds of port whose commands it wants (TessPortType bits)
    std::string name;
};
