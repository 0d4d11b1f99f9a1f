#include "tools/tess-mqtt/bridge_settings.h"

#include <algorithm>

#include "framework/tokenizer.h"
#include "tools/tess-mqtt/topics.h"

namespace {

constexpr const char* NAME_RULE = "1 to 64 letters, digits, '-', '_' and '.'";

std::string takeGroups(std::vector<std::string>& groups, const std::string& value)
{
    std::vector<std::string_view> names;
    stringTokenizer(value, names, " ,\t");
    for (const std::string_view name : names) {
        if (!isNodeName(name)) return "has names of " + std::string(NAME_RULE);
        if (std::ranges::find(groups, name) == groups.end()) groups.emplace_back(name);
    }
    return {};
}

std::string takeEvents(EventMode& mode, const std::string& value)
{
    if (value == "always")
        mode = EventMode::always;
    else
        mode = value == "asked" ? EventMode::asked : EventMode::never;
    return value == "always" || value == "asked" || value == "no" ? "" : "is 'no', 'asked' or 'always'";
}

std::string deviceProblem(const std::string& name)
{
    if (isDeviceName(name)) return {};
    return "has " + std::string(NAME_RULE) + ", and is not 'all', 'group' or 'answer'";
}

void addBridgeSettings(SettingsTable& table, BridgeSettings& settings)
{
    addBrokerSettings(table, settings.broker);
    table.add("device", [&settings](const std::string& value) {
        settings.device = value;
        return deviceProblem(value);
    });
    table.add("groups", [&settings](const std::string& value) { return takeGroups(settings.groups, value); });
    table.add("filter", [&settings](const std::string& value) { return settings.filter.add(value); });
    table.add("events", [&settings](const std::string& value) { return takeEvents(settings.events, value); });
    table.addNumber("timeout", 1, 3600, settings.timeout);
    table.addNumber("in_flight", 1, 1000, settings.mostInFlight);
    table.addNumber("answer_keep", 0, 86400, settings.answerKeep);
    table.addNumber("window", 1, 86400, settings.window);
    table.addNumber("metrics", 0, 86400, settings.metrics);
    table.addNumber("longest_pause", 1, 3600, settings.longestPause);
}

} // namespace

BridgeSettings bridgeSettings(std::string_view text, const std::string& name, const std::string& hostName)
{
    BridgeSettings settings;
    SettingsTable table;
    addBridgeSettings(table, settings);
    table.read(text, name);
    std::string problem = brokerProblem(settings.broker);
    if (problem.empty() && settings.device.empty()) {
        settings.device = hostName.substr(0, hostName.find('.'));
        if (!isDeviceName(settings.device)) problem = "this host's name cannot be that of a device: device = NAME";
    }
    if (!problem.empty()) throw SettingsError(name + ": " + problem);
    return settings;
}
