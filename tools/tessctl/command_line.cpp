#include "tools/tessctl/command_line.h"

#include <vector>

#include "framework/tokenizer.h"
#include "tools/tessctl/begins_with.h"

namespace {

std::string_view withoutLeadingBlanks(std::string_view text)
{
    const std::size_t begin = text.find_first_not_of(" \t\r\n\v\f");
    return begin == std::string_view::npos ? std::string_view() : text.substr(begin);
}

} // namespace

std::string lineProblem(std::string_view line)
{
    if (line.size() > MAX_LINE_BYTES)
        return "a line of " + std::to_string(line.size()) + " bytes is too long, the limit is " +
               std::to_string(MAX_LINE_BYTES);
    const std::string_view inner = line.substr(0, line.find_last_not_of('\r') + 1); // npos + 1 is 0
    if (inner.find_first_of(std::string_view("\r\0", 2)) == std::string_view::npos) return {};
    return "a line with a carriage return or a NUL in it would become two commands: send them as lines of their own";
}

std::size_t answersDue(std::string_view line)
{
    if (beginsWith(line, "RESET")) return 1; // whatever follows
    std::vector<std::string_view> commands;
    stringTokenizer(line, commands, "|");
    std::size_t due = 0;
    for (const std::string_view each : commands) {
        const std::string_view command = withoutLeadingBlanks(each);
        ++due; // an empty one is forwarded to everybody
        if (beginsWith(command, "DELAY")) break;
    }
    return withoutLeadingBlanks(line).empty() ? 0 : due;
}
