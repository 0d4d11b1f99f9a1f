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
