#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/tess-mqtt/broker_settings.h"
#include "tools/tess-mqtt/command_filter.h"

/// When what happens in tessd is published.
enum class EventMode { never, asked, always };

/// What a bridge is told by its file.
struct BridgeSettings {
    BrokerSettings broker;
    std::string device; ///< the host's name, where the file has none
    std::vector<std::string> groups;
    CommandFilter filter;
    long timeout = 5;       ///< seconds that a process has for its answer
    long mostInFlight = 32; ///< requests at a time
    long answerKeep = 60;   ///< seconds that an answer waits for a broker that is away
    long window = 600;      ///< seconds in which a request that comes again is known
    long metrics = 60;      ///< seconds between two; 0: none
    long longestPause = 4;  ///< seconds between two attempts to reach the broker
    EventMode events = EventMode::never;
};

/// @param name      of the file, for what is said
/// @param hostName  the device's name where the file has none
/// @throws SettingsError
BridgeSettings bridgeSettings(std::string_view text, const std::string& name, const std::string& hostName);
