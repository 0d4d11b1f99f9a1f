#pragma once

#include <chrono>
#include <string>
#include <vector>

/// What is common to all that is done over a broker.
struct FleetOptions {
    std::string settings;                   ///< file that says how the broker is reached; empty: the usual one
    std::chrono::milliseconds wait{10'000}; ///< for all answers
    bool json = false;
    bool all = false;
    std::string group;
    std::vector<std::string> devices;
};
