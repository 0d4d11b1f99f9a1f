#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/tessctl/item.h"

/// What the bridge has counted since its start.
struct BridgeCounts {
    std::uint64_t answered = 0;
    std::uint64_t refused = 0;
    std::uint64_t timeout = 0;
    std::uint64_t busy = 0;
    std::uint64_t again = 0;   ///< requests that were delivered once more
    std::uint64_t ignored = 0; ///< that nobody could be told of
    std::uint64_t lost = 0;    ///< answers that no broker has taken
    std::uint64_t unsent = 0;  ///< events for which there was no room
    std::uint64_t strays = 0;  ///< answers of tessd's to nobody here
    std::size_t inFlight = 0;
};

/// OpenMetrics text: what `tessctl metrics` prints, and the bridge's own.
/// @param items  of tessd; empty while it is not there
std::string bridgeMetrics(const std::vector<Item>& items, const BridgeCounts& counts);
