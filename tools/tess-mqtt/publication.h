#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// A message of MQTT 5, with what this program has a use for of its properties.
struct Publication {
    std::string topic;
    std::string payload;
    bool retained = false;
    std::optional<std::string> responseTopic{};
    std::optional<std::string> correlation{};
    std::optional<std::uint32_t> expiry{}; ///< seconds that are left
    std::vector<std::pair<std::string, std::string>> user{};
};

/// The value of a user property; empty where there is none of that name.
inline std::string userProperty(const Publication& publication, const std::string& name)
{
    for (const auto& [key, value] : publication.user)
        if (key == name) return value;
    return {};
}
