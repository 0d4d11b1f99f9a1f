#pragma once

#include <string>
#include <vector>

#include "tools/tess-mqtt/topics.h"

/// What is published of a device as its status: one JSON object.
struct Presence {
    std::string version;            ///< of tessd; empty: it is not there
    std::vector<std::string> names; ///< registered with it

    bool operator==(const Presence&) const = default;
};

/// @param bridge  version of this program
std::string onlineText(const Topics& topics, const Presence& presence, const std::string& bridge);
std::string offlineText(const Topics& topics);
