#include "tools/tess-mqtt/request.h"

#include <algorithm>
#include <chrono>

#include "common/text.h"
#include "tools/tessctl/command_line.h"

namespace {

constexpr std::ptrdiff_t MOST_COMMANDS = 64; // in a line: each takes room in what is sent behind it

Judgement ignored(const char* why)
{
    return {.request = std::nullopt, .refusal = std::nullopt, .whyIgnored = why};
}

std::string withoutEnd(std::string line)
{
    if (line.ends_with('\n')) line.pop_back();
    if (line.ends_with('\r')) line.pop_back();
    return line;
}

/// @return empty when it can be sent as one line
std::string problemOf(const std::string& line)
{
    if (line.size() > MAX_LINE_BYTES)
        return "a line has " + std::to_string(MAX_LINE_BYTES) + " bytes at most, and this has " +
               std::to_string(line.size());
    if (line.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos)
        return "a request is one line, without a line end or a NUL in it";
    if (commandsOf(line).empty()) return "an empty line is no command";
    if (std::ranges::count(line, '|') >= MOST_COMMANDS)
        return "a line has " + std::to_string(MOST_COMMANDS) + " commands at most";
    return {};
}

Reply refusal(const std::string& why)
{
    return {ReplyStatus::refused, "Error: " + why};
}

} // namespace

Judgement judge(const Publication& publication, const Topics& topics, const CommandFilter& filter, Instant now)
{
    if (!topics.isCommand(publication.topic)) return ignored("it is for another topic");
    if (publication.retained) return ignored("it is retained: a command is not to be kept by the broker");
    if (!publication.responseTopic) return ignored("it has no response topic");
    if (!topics.mayAnswer(*publication.responseTopic)) return ignored("its response topic is not for answers");
    Request request{.responseTopic = *publication.responseTopic,
                    .correlation = publication.correlation,
                    .line = withoutEnd(publication.payload),
                    .arrived = now};
    if (publication.expiry) request.expires = now + std::chrono::seconds(*publication.expiry);
    Judgement judgement{.request = std::move(request)};
    const std::string& line = judgement.request->line;
    if (const std::string problem = problemOf(line); !problem.empty())
        judgement.refusal = refusal(problem);
    else if (!filter.allows(line))
        judgement.refusal = refusal("this command may not come from afar: the bridge's filter says so");
    return judgement;
}
