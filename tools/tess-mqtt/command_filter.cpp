#include "tools/tess-mqtt/command_filter.h"

#include <optional>

#include "common/text.h"

namespace {

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

} // namespace

bool matchesPattern(std::string_view pattern, std::string_view text)
{
    std::size_t p = 0;
    std::size_t t = 0;
    std::optional<std::size_t> star; // the last one passed, and how far the text was then
    std::size_t mark = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            mark = t;
        } else if (p < pattern.size() && (pattern[p] == '?' || lower(pattern[p]) == lower(text[t]))) {
            ++p;
            ++t;
        } else if (star) {
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
    for (const Rule& rule : rules_)
        if (matchesPattern(rule.pattern, command)) return rule.allow;
    return !beginsWithNoCase(command, "RESET");
}

bool CommandFilter::allows(std::string_view line) const
{
    for (;;) {
        const std::size_t end = line.find('|');
        if (!allowsCommand(plainText(line.substr(0, end)))) return false;
        if (end == std::string_view::npos) return true;
        line.remove_prefix(end + 1);
    }
}
