#include "tools/tess-mqtt/settings_table.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>

#include "common/text.h"
#include "tools/tessctl/nearest_word.h"

namespace {

constexpr std::size_t MOST_BYTES = 65536;

} // namespace

void SettingsTable::addText(const std::string& key, std::string& text)
{
    add(key, [&text](const std::string& value) {
        text = value;
        return std::string(value.empty() ? "is empty" : "");
    });
}

void SettingsTable::addSwitch(const std::string& key, bool& on)
{
    add(key, [&on](const std::string& value) {
        on = value == "yes";
        return std::string(value == "yes" || value == "no" ? "" : "is 'yes' or 'no'");
    });
}

void SettingsTable::addNumber(const std::string& key, long least, long most, long& number)
{
    add(key, [=, &number](const std::string& value) {
        const char* const end = value.data() + value.size();
        const auto [stopped, error] = std::from_chars(value.data(), end, number);
        const bool isGood = error == std::errc() && stopped == end && number >= least && number <= most;
        return isGood ? std::string()
                      : "is a whole number from " + std::to_string(least) + " to " + std::to_string(most);
    });
}

std::string SettingsTable::take(std::string_view line) const
{
    const std::size_t sign = line.find('=');
    if (sign == std::string_view::npos) return "a line is 'key = value'";
    const std::string key(trimmed(line.substr(0, sign)));
    const auto taker = takers_.find(key);
    if (taker != takers_.end()) {
        const std::string problem = taker->second(std::string(trimmed(line.substr(sign + 1))));
        return problem.empty() ? problem : "'" + key + "' " + problem;
    }
    std::vector<std::string> keys;
    for (const auto& each : takers_)
        keys.push_back(each.first);
    const std::string meant = nearestWord(key, keys);
    return "no setting is called '" + key + "'" + (meant.empty() ? "" : ": do you mean '" + meant + "'?");
}

void SettingsTable::read(std::string_view text, const std::string& name) const
{
    for (int number = 1; !text.empty(); ++number) {
        const std::string_view whole = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(whole.size() + 1, text.size()));
        const std::string_view line = trimmed(whole);
        if (line.empty() || line.front() == '#') continue;
        const std::string problem = take(line);
        if (problem.empty()) continue;
        throw SettingsError(std::string(name).append(":").append(std::to_string(number)).append(": ").append(problem));
    }
}

std::string settingsFileText(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::string text(MOST_BYTES + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!file.is_open() || file.bad()) throw SettingsError(path + ": " + std::strerror(errno));
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > MOST_BYTES) throw SettingsError(path + ": it is too long for a file of settings");
    return text;
}
