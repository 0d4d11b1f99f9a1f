#include "tools/tessctl/fleet_view.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "tools/tessctl/text_table.h"
#include "tools/tessctl/visible_text.h"

namespace {

using Json = nlohmann::ordered_json;

std::string textAt(const Json& object, const char* key)
{
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

std::vector<std::string> textsAt(const Json& object, const char* key)
{
    std::vector<std::string> texts;
    const auto found = object.find(key);
    if (found == object.end() || !found->is_array()) return texts;
    for (const Json& each : *found)
        if (each.is_string()) texts.push_back(each.get<std::string>());
    return texts;
}

/// A cell has no line ends and no tabs.
std::string cell(std::string_view line)
{
    std::string text(line);
    std::ranges::replace_if(
        text, [](char c) { return c == '\t' || c == '\r' || c == '\n'; }, ' ');
    return visibleText(text);
}

std::string joined(const std::vector<std::string>& words)
{
    std::string text;
    for (const std::string& word : words)
        text.append(text.empty() ? "" : ",").append(word);
    return text.empty() ? "-" : cell(text);
}

const char* statusOf(const DeviceState& state)
{
    if (!state.isKnown) return "unknown";
    return state.online ? "online" : "offline";
}

} // namespace

std::optional<DeviceState> deviceState(std::string_view payload)
{
    const Json object = Json::parse(payload, nullptr, false);
    if (!object.is_object()) return std::nullopt;
    DeviceState state{.device = textAt(object, "device"),
                      .online = textAt(object, "status") == "online",
                      .tessd = textAt(object, "tessd"),
                      .names = textsAt(object, "names"),
                      .groups = textsAt(object, "groups")};
    return state.device.empty() ? std::nullopt : std::optional(std::move(state));
}

std::vector<std::string> fleetLines(const std::vector<FleetAnswer>& answers, std::size_t width)
{
    std::vector<std::vector<std::string>> rows{{"DEVICE", "STATUS", "MS", "ANSWER"}};
    for (const FleetAnswer& answer : answers) {
        std::string_view rest = answer.text;
        const std::string_view first = rest.substr(0, rest.find('\n'));
        rows.push_back(
            {cell(answer.device), cell(answer.status), answer.ms.empty() ? "-" : cell(answer.ms), cell(first)});
        rest.remove_prefix(std::min(first.size() + 1, rest.size()));
        while (!rest.empty()) {
            const std::string_view line = rest.substr(0, rest.find('\n'));
            rows.push_back({"", "", "", cell(line)});
            rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        }
    }
    return tableLines(rows, width);
}

std::vector<std::string> stateLines(const std::vector<DeviceState>& states, std::size_t width)
{
    std::vector<std::vector<std::string>> rows{{"DEVICE", "STATUS", "TESSD", "GROUPS", "PROCESSES"}};
    for (const DeviceState& state : states)
        rows.push_back({cell(state.device), statusOf(state), state.tessd.empty() ? "-" : cell(state.tessd),
                        joined(state.groups), joined(state.names)});
    return tableLines(rows, width);
}

Json fleetJson(const std::vector<FleetAnswer>& answers)
{
    Json array = Json::array();
    for (const FleetAnswer& answer : answers) {
        const bool isNumber = !answer.ms.empty() && answer.ms.size() < 10 &&
                              answer.ms.find_first_not_of("0123456789") == std::string::npos;
        array.push_back({{"device", answer.device},
                         {"status", answer.status},
                         {"ms", isNumber ? Json(std::stol(answer.ms)) : Json(nullptr)},
                         {"answer", answer.ms.empty() ? Json(nullptr) : Json(answer.text)}});
    }
    return array;
}

Json stateJson(const std::vector<DeviceState>& states)
{
    Json array = Json::array();
    for (const DeviceState& state : states)
        array.push_back({{"device", state.device},
                         {"status", statusOf(state)},
                         {"tessd", state.tessd.empty() ? Json(nullptr) : Json(state.tessd)},
                         {"groups", state.groups},
                         {"names", state.names}});
    return array;
}

ExitStatus fleetStatus(const std::vector<FleetAnswer>& answers)
{
    const auto is = [](const char* status) {
        return [status](const FleetAnswer& answer) { return answer.status == status; };
    };
    if (std::ranges::all_of(answers, is("answered"))) return STATUS_DONE;
    const bool haveAll = std::ranges::all_of(
        answers, [&](const FleetAnswer& answer) { return is("answered")(answer) || is("refused")(answer); });
    return haveAll ? STATUS_REFUSED : STATUS_NO_ANSWER;
}

std::string fleetSummary(const std::vector<FleetAnswer>& answers)
{
    std::map<std::string, std::size_t> counts;
    for (const FleetAnswer& answer : answers)
        ++counts[answer.status];
    std::string text;
    for (const auto& [status, count] : counts)
        text.append(text.empty() ? "" : ", ").append(std::to_string(count) + " " + cell(status));
    return text;
}
