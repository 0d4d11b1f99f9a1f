#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/tessctl/fleet_view.h"

/// What becomes of a line at the devices that it is for, as their answers come in.
/// Threads: one.
class FleetAnswers {
public:
    /// @param states  of those that it is for; those that are online are waited for
    explicit FleetAnswers(const std::vector<DeviceState>& states);

    /// Takes an answer, also of a device that has come meanwhile. A line that is sent again may be
    /// answered again: then what a device has done counts more than that it does not know any more.
    void take(FleetAnswer answer);

    std::size_t expected() const { return expected_; }

    /// The devices that are still waited for.
    const std::set<std::string>& missing() const { return missing_; }

    /// A row for each device, by name.
    std::vector<FleetAnswer> rows() const;

private:
    std::map<std::string, FleetAnswer> rows_;
    std::set<std::string> missing_;
    std::size_t expected_;
};
