#include "tools/tess-mqtt/command_filter.h"

#include <algorithm>
#include <optional>

#include "common/text.h"
#include "framework/tokenizer.h"

namespace {

constexpr std::string_view DELAY = "DELAY";

char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// Without white space at its ends, and with one blank for each run of it inside.
std::string plainText(std::string_view text)
{
    std::string plain;
    for (const char c : trimmed(text)) {
        if (!isWhiteSpace(c))
            plain += c;
        else if (!plain.ends_with(' '))
            plain += ' ';
    }
    return plain;
}

/// As rules are compared with it: behind a DELAY is one blank, as tessd needs none there.
std::string plainCommand(std::string_view command)
{
    std::string plain = plainText(command);
    if (beginsWithNoCase(plain, DELAY) && plain.size() > DELAY.size() && plain[DELAY.size()] != ' ')
        plain.insert(DELAY.size(), 1, ' ');
    return plain;
}

/// What tessd runs of the commands behind a DELAY.
/// @return empty: all of it, or there is no DELAY
std::string shortenedDelay(std::string_view line)
{
    std::vector<std::string_view> commands;
    stringTokenizer(line, commands, "|");
    const auto isDelay = [](std::string_view command) { return beginsWithNoCase(trimmedFront(command), DELAY); };
    auto command = std::ranges::find_if(commands, isDelay);
    std::string delayed;
    if (command == commands.end()) return delayed;
    while (++command != commands.end())
        delayed.append(delayed.empty() ? "" : "|").append(*command);
    return delayed.size() <= CommandFilter::MOST_DELAYED_BYTES ? std::string()
                                                               : delayed.substr(0, CommandFilter::MOST_DELAYED_BYTES);
}

} // namespace

bool matchesPattern(std::string_view pattern, std::string_view text, Stars stars)
{
    const std::size_t lastStars = pattern.find_last_not_of('*') + 1; // npos + 1 is 0
    const auto isTaken = [stars](char c) { return stars == Stars::ofAnything || c != ' '; };
    std::size_t p = 0;
    std::size_t t = 0;
    std::optional<std::size_t> star; // the last one passed, and how far the text was then
    std::size_t mark = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            mark = t;
        } else if (p < pattern.size() &&
                   ((pattern[p] == '?' && isTaken(text[t])) || lower(pattern[p]) == lower(text[t]))) {
            ++p;
            ++t;
        } else if (star && (*star >= lastStars || isTaken(text[mark]))) {
            p = *star + 1;
            t = ++mark;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', p) == std::string_view::npos;
}

std::string CommandFilter::add(std::string_view rule)
{
    const std::string_view word = rule.substr(0, rule.find_first_of(" \t"));
    const std::string pattern = plainText(rule.substr(word.size()));
    if ((word != "allow" && word != "deny") || pattern.empty()) return "is 'allow PATTERN' or 'deny PATTERN'";
    rules_.push_back({word == "allow", pattern});
    return {};
}

bool CommandFilter::allowsCommand(const std::string& command) const
{
    for (const auto& [allow, pattern] : rules_)
        if (matchesPattern(pattern, command, allow ? Stars::withinWords : Stars::ofAnything)) return allow;
    return !beginsWithNoCase(command, "RESET");
}

bool CommandFilter::allowsAll(std::string_view line) const
{
    for (;;) {
        const std::size_t end = line.find('|');
        if (!allowsCommand(plainCommand(line.substr(0, end)))) return false;
        if (end == std::string_view::npos) return true;
        line.remove_prefix(end + 1);
    }
}

bool CommandFilter::allows(std::string_view line) const
{
    if (!allowsAll(line)) return false;
    const std::string shortened = shortenedDelay(line);
    return shortened.empty() || allowsAll(shortened);
}
