#include "tests/support/address_rules.h"

#include <cctype>

namespace {

constexpr std::size_t LONGEST_FIELD = 255;

bool white(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

std::string cut(const std::string& field)
{
    return field.substr(0, LONGEST_FIELD);
}

/// True for a text that is a broadcast by its stars, dots and white space alone.
bool isBroadcast(std::string_view s)
{
    std::string stars;
    std::string dots;
    for (std::size_t i = 0; i < s.size(); ++i) {
        if ((s[i] == '*' && i == 0) || s[i] == '$') return false;
        if (s[i] == '*') stars += '*';
        if (s[i] == '.') dots += '.';
        if (!white(s[i])) continue;
        stars += ' ';
        dots += ' ';
    }
    return stars.starts_with(" *") || !dots.starts_with(". ");
}

} // namespace

AddressByRules addressByRules(std::string_view s)
{
    if (isBroadcast(s)) return {1, "*", "*"};

    std::string unit;
    std::size_t at = 0;
    while (at < s.size() && !white(s[at]) && s[at] != '.' && s[at] != '$')
        unit += s[at++];
    if (at == s.size()) return {static_cast<int>(at), cut(unit), ""};
    if (s[at] == '$') {
        while (at < s.size() && s[at] != ',')
            unit += s[at++];
        if (unit.starts_with("$GPRMC")) return {static_cast<int>(at) - 2, "*", "GPSD"};
        return {0, cut(unit), ""};
    }
    std::string process;
    if (s[at] == '.') {
        ++at;
        while (at < s.size() && !white(s[at]))
            process += s[at++];
    } else {
        if (unit != "*" && !unit.empty()) return {0, cut(unit), ""};
        process = "*";
    }
    while (at < s.size() && white(s[at]))
        ++at;
    return {static_cast<int>(at), cut(unit), cut(process)};
}
