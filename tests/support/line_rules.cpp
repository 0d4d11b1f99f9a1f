#include "tests/support/line_rules.h"

#include <cctype>

namespace {

bool white(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

bool lineEnd(char c)
{
    return c == '\r' || c == '\n';
}

std::string upToNul(const std::string& text)
{
    return text.substr(0, text.find('\0'));
}

} // namespace

std::vector<std::string> linesByRules(std::string_view received, bool nulIsSpace)
{
    std::vector<std::string> lines;
    std::string line;
    bool inside = false;
    const auto end = [&] {
        if (inside) lines.push_back(upToNul(line));
        line.clear();
        inside = false;
    };
    for (const char c : received) {
        if (lineEnd(c)) {
            end();
        } else if (inside || (!white(c) && (c != '\0' || !nulIsSpace))) {
            inside = true;
            line += c;
        }
    }
    end();
    return lines;
}

std::vector<std::string> frameLinesByRules(std::string_view payload)
{
    // What stays of the payload: everything but the white space that is skipped where a line is
    // looked for.
    std::string left(payload);
    std::vector<std::size_t> starts;
    bool looking = true;
    for (std::size_t i = 0; i < left.size(); ++i) {
        if (looking && white(left[i])) {
            left[i] = '\0';
            continue;
        }
        if (looking) starts.push_back(i);
        looking = lineEnd(left[i]);
    }
    std::vector<std::string> lines;
    for (const std::size_t start : starts)
        lines.push_back(upToNul(left.substr(start)));
    return lines;
}
