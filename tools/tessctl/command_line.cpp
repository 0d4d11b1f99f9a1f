#include "tools/tessctl/command_line.h"

#include <algorithm>

#include "common/text.h"
#include "framework/tokenizer.h"

std::string lineProblem(std::string_view line)
{
    if (line.size() > MAX_LINE_BYTES)
        return "a line of " + std::to_string(line.size()) + " bytes is too long, the limit is " +
               std::to_string(MAX_LINE_BYTES);
    const std::string_view inner = line.substr(0, line.find_last_not_of('\r') + 1); // npos + 1 is 0
    if (inner.find_first_of(std::string_view("\r\0", 2)) == std::string_view::npos) return {};
    return "a line with a carriage return or a NUL in it would become two commands: send them as lines of their own";
}

std::vector<std::string_view> commandsOf(std::string_view line)
{
    line = trimmedFront(line);
    if (line.empty()) return {};
    if (beginsWithNoCase(line, "RESET")) return {line}; // whatever follows
    std::vector<std::string_view> commands;
    stringTokenizer(line, commands, "|");
    const auto delay = std::ranges::find_if(
        commands, [](std::string_view command) { return beginsWithNoCase(trimmedFront(command), "DELAY"); });
    if (delay == commands.end()) return commands;
    *delay = {delay->data(), static_cast<std::size_t>(line.data() + line.size() - delay->data())};
    commands.erase(delay + 1, commands.end());
    return commands;
}

std::string splitProblem(std::string_view line)
{
    const std::vector<std::string_view> commands = commandsOf(line);
    const auto resets = [](std::string_view command) { return beginsWithNoCase(trimmedFront(command), "RESET"); };
    if (commands.empty() || std::none_of(commands.begin() + 1, commands.end(), resets)) return {};
    return "'" + std::string(line) +
           "': with --each, the RESET behind the '|' would restart the device; send it as a line "
           "of its own if it shall";
}

std::size_t answersDue(std::string_view line)
{
    return commandsOf(line).size();
}
