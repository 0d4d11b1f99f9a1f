#pragma once

#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/tessctl/exit_status.h"

/// What a device's bridge, or the broker in its place, says of it.
struct DeviceState {
    std::string device{};
    bool online = false;
    std::string tessd{}; ///< its version; empty: tessd is not there
    std::vector<std::string> names{};
    std::vector<std::string> groups{};
    bool isKnown = true; ///< otherwise nobody has ever heard of it
};

/// @param payload  of the device's status
/// @return nothing: it is no such payload
std::optional<DeviceState> deviceState(std::string_view payload);

/// What has become of a line at one device.
struct FleetAnswer {
    std::string device;
    std::string status; ///< as the answer has it; else "offline", "unknown" or "no answer"
    std::string ms;     ///< empty without an answer
    std::string text;   ///< lines with a LF between them
};

/// @param width  as for tableLines()
std::vector<std::string> fleetLines(const std::vector<FleetAnswer>& answers, std::size_t width);
std::vector<std::string> stateLines(const std::vector<DeviceState>& states, std::size_t width);

nlohmann::ordered_json fleetJson(const std::vector<FleetAnswer>& answers);
nlohmann::ordered_json stateJson(const std::vector<DeviceState>& states);

/// STATUS_DONE: all have answered; STATUS_REFUSED: all have, but some refused; STATUS_NO_ANSWER:
/// some have not.
ExitStatus fleetStatus(const std::vector<FleetAnswer>& answers);

/// One line that counts: "3 answered, 1 offline".
std::string fleetSummary(const std::vector<FleetAnswer>& answers);
