#include "tools/tessctl/top_view.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/tessctl/item_json.h"
#include "tools/tessctl/status_query.h"
#include "tools/tessctl/status_view.h"
#include "tools/tessctl/text_table.h"

namespace {

struct Rate {
    const char* key;  ///< of the line `count`
    const char* name; ///< on the screen
};

constexpr std::array RATES{Rate{"lines", "lines"}, Rate{"forwarded", "forwarded"}, Rate{"answered", "answers"},
                           Rate{"refused", "refused"}, Rate{"dropped", "dropped"}};

std::string decimals(double number)
{
    std::array<char, 32> text{};
    (void)std::snprintf(text.data(), text.size(), "%.1f", number); // it fits
    return text.data();
}

std::string rateText(const Sample& before, const Sample& now)
{
    std::string text;
    for (const Rate& each : RATES)
        text += (text.empty() ? "" : ", ") + decimals(rate(before, now, each.key)) + " " + each.name;
    return text + " a second";
}

std::string headLine(const Sample& now)
{
    const Item& daemon = itemOf(now.items, "daemon");
    return "tessd " + daemon.text("version") + ", up " + spanText(std::chrono::seconds(daemon.number("uptime"))) +
           ", " + daemon.text("delays") + " delays pending";
}

/// The busiest first.
std::vector<Item> byCommands(std::vector<Item> items)
{
    std::ranges::stable_sort(items, std::ranges::greater(), [](const Item& item) { return item.number("sent"); });
    return items;
}

void append(std::vector<std::string>& to, std::string title, const std::vector<std::string>& lines)
{
    to.emplace_back();
    to.push_back(std::move(title));
    to.insert(to.end(), lines.begin(), lines.end());
}

} // namespace

double rate(const Sample& before, const Sample& now, const char* key)
{
    const double seconds = std::chrono::duration<double>(now.when - before.when).count();
    const auto counted = [key](const Sample& sample) {
        return static_cast<std::uint32_t>(itemOf(sample.items, "count").number(key));
    };
    const bool isSameDaemon = itemOf(before.items, "daemon").text("pid") == itemOf(now.items, "daemon").text("pid");
    if (seconds <= 0 || !isSameDaemon) return 0;
    return static_cast<double>(counted(now) - counted(before)) / seconds; // also where it has begun anew
}

std::vector<std::string> topLines(const Sample& before, const Sample& now, std::size_t width, std::size_t rows)
{
    const std::vector<Item> processes = byCommands(itemsOf(now.items, "process"));
    const std::vector<Item> connections = itemsOf(now.items, "connection");
    std::vector<std::string> lines{cutLine(headLine(now), width), cutLine(rateText(before, now), width)};
    append(lines, "Processes: " + std::to_string(processes.size()), processLines(processes, width));
    append(lines, "Clients: " + std::to_string(connections.size()), connectionLines(connections, width));
    if (rows > 0 && lines.size() > rows) {
        lines.resize(rows - 1);
        lines.push_back(cutLine("... there is more than this terminal shows", width));
    }
    return lines;
}

nlohmann::ordered_json topJson(const Sample& before, const Sample& now)
{
    nlohmann::ordered_json object = statusJson(now.items);
    for (const Rate& each : RATES)
        object["rates"][each.key] = rate(before, now, each.key);
    return object;
}
