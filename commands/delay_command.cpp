#include "commands/delay_command.h"

#include <algorithm>
#include <boost/format.hpp>
#include <ctime>
#include <optional>

#include "commands/command_context.h"
#include "commands/delay_time.h"
#include "commands/interpreter.h"
#include "commands/reply.h"
#include "common/text.h"
#include "connections/port_conn.h"
#include "framework/fixed_text.h"
#include "framework/sleep.h"

namespace {

constexpr int CLOCK_RETRY_MS = 100;
constexpr std::int64_t NS_PER_S = 1'000'000'000;
constexpr std::int64_t NS_PER_MS = 1'000'000;
constexpr std::int64_t MS_PER_S = 1'000;

struct Now {
    std::int64_t seconds;
    std::int64_t nanoseconds;
};

std::optional<Now> readClock()
{
    timespec now{};
    if (::clock_gettime(CLOCK_MONOTONIC, &now) != 0) return std::nullopt;
    return Now{now.tv_sec, now.tv_nsec};
}

std::uint64_t toMilliseconds(const Now& now)
{
    return static_cast<std::uint64_t>(now.seconds * MS_PER_S + now.nanoseconds / NS_PER_MS);
}

/// When a delay that starts now falls due. Of its milliseconds almost nothing counts: the remainder is taken for nanoseconds
/// (deliberate).
std::uint64_t dueTime(Now now, std::uint64_t delay)
{
    now.seconds += static_cast<std::uint32_t>(delay / MS_PER_S);
    now.nanoseconds += static_cast<std::uint32_t>(delay % NS_PER_MS);
    return toMilliseconds(now);
}

std::string joined(std::span<const std::string_view> tokens)
{
    std::string line;
    for (const std::string_view token : tokens) {
        if (token.data() != tokens.front().data()) line += '|';
        line += token;
    }
    return line;
}

/// One line of the listing. The rest of the due time in milliseconds is set off against the clock's nanoseconds
/// (deliberate): the milliseconds shown run to the clock's next whole second, and the seconds are one less.
std::string listingLine(const Now& now, std::uint64_t due, const std::string& line)
{
    // Seconds wrap at 32 bits; they are negative when the line is due within the second.
    std::uint32_t left = static_cast<std::uint32_t>(due / MS_PER_S) - static_cast<std::uint32_t>(now.seconds);
    std::int64_t fraction = static_cast<std::int64_t>(due % MS_PER_S);
    if (now.nanoseconds > fraction) {
        fraction += NS_PER_S;
        left -= 1;
    }
    const auto seconds = static_cast<std::int32_t>(left);
    return (boost::format("%03u:%02u:%02u.%03u %s\r\n") % (seconds / 3600) % (seconds % 3600 / 60) %
            (seconds % 3600 % 60) % ((fraction - now.nanoseconds) / NS_PER_MS) % line)
        .str();
}

/// Writes a text of whole lines, as many as fit a record at a time.
void writeLines(TCommandContext& context, TPortConn& conn, std::string_view text)
{
    constexpr std::size_t capacity = MSG_TEXT_BYTES - 1;
    while (!text.empty()) {
        const std::size_t lastEnd = text.size() <= capacity ? text.size() : text.rfind('\n', capacity - 1) + 1;
        replyTo(context, &conn, text.substr(0, lastEnd));
        text.remove_prefix(lastEnd);
    }
}

} // namespace

int setDelay(TCommandContext& context, std::span<const std::string_view> tokens)
{
    const std::string_view argument = trimmed(trimmed(tokens[0]).substr(std::string_view("DELAY").size()));
    if (beginsWithNoCase(argument, "CLEAR")) {
        context.delayQueues.clear();
        return 0;
    }
    const std::uint64_t delay = parseDelayTime(argument);
    if (delay == 0) return 1;
    const std::optional<Now> now = readClock();
    if (!now) return 1;
    context.delayQueues.emplace(dueTime(*now, delay), joined(tokens.subspan(1)));
    return 0;
}

int listDelays(TCommandContext& context, TPortConn* conn)
{
    const std::optional<Now> now = readClock();
    if (!now) {
        replyTo(context, conn, "Error Getting Delay Queues\r\n\r\n");
        return 1;
    }
    if (conn == nullptr) return 0;
    std::string text = "OK\r\n";
    for (const auto& [due, line] : context.delayQueues)
        text += listingLine(*now, due, line);
    text += "\r\n";
    writeLines(context, *conn, text);
    return 0;
}

namespace {

/// Takes the first line that is due out of the queue.
/// @return false: none is due
bool takeDue(TDelayQueue& queue, std::uint64_t now, TDelayedLine& line)
{
    const auto first = queue.begin();
    if (first == queue.end() || first->first > now) return false;
    putText(line.text, first->second);
    line.runs = true;
    queue.erase(first);
    return true;
}

/// @return false: it has to wait
bool run(TCommandContext& context, TDelayedLine& line)
{
    const TCmdEntry command{0, line.text.data()};
    line.runs = processCmd(context, nullptr, &command) == CMD_WAITS; // any other result: there is nobody to tell
    return !line.runs;
}

} // namespace

void runDelays(TCommandContext& context)
{
    TDelayedLine& line = context.delayedLine;
    if (line.runs && !run(context, line)) return;
    const std::optional<Now> now = readClock();
    if (!now) {
        Sleep(CLOCK_RETRY_MS);
        return;
    }
    while (takeDue(context.delayQueues, toMilliseconds(*now), line) && run(context, line)) {
    }
}
