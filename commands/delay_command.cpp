#include "commands/delay_command.h"

#include <array>
#include <cstdio>
#include <optional>

#include "commands/clock_reading.h"
#include "commands/delay_time.h"
#include "commands/reply.h"
#include "common/text.h"

namespace {

using Clock = ClockReading;

/// When a delay that starts now falls due. Of the delay only the whole seconds count: what is meant
/// to be the rest in milliseconds is added to the nanoseconds, as less than a millisecond
/// (deliberate).
/// @param delay  milliseconds
/// @return milliseconds on the monotonic clock
std::uint64_t dueTime(Clock now, std::uint64_t delay)
{
    now.seconds += static_cast<std::uint32_t>(delay / Clock::MS_PER_S);
    now.nanoseconds += static_cast<std::uint32_t>(delay % Clock::NS_PER_MS);
    return now.milliseconds();
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

/// One line of the listing. The rest of the due time in milliseconds is set off against the clock's
/// nanoseconds (deliberate): the milliseconds shown run to the clock's next whole second, and the
/// seconds are one less.
std::string listingLine(const Clock& now, std::uint64_t due, const std::string& line)
{
    // Seconds wrap at 32 bits; they are negative when the line is due within the second.
    std::uint32_t left = static_cast<std::uint32_t>(due / Clock::MS_PER_S) - static_cast<std::uint32_t>(now.seconds);
    std::int64_t fraction = static_cast<std::int64_t>(due % Clock::MS_PER_S);
    if (now.nanoseconds > fraction) {
        fraction += Clock::NS_PER_S;
        left -= 1;
    }
    const auto seconds = static_cast<std::int32_t>(left);
    std::array<char, 64> time; // four numbers, each of 20 characters at most
    (void)std::snprintf(time.data(), time.size(), "%03d:%02d:%02d.%03lld ", seconds / 3600, seconds % 3600 / 60,
                        seconds % 3600 % 60, static_cast<long long>((fraction - now.nanoseconds) / Clock::NS_PER_MS));
    return time.data() + line + "\r\n";
}

/// Writes a text of whole lines, as many as fit a record at a time.
void writeLines(CommandContext& context, TPortConn& conn, std::string_view text)
{
    constexpr std::size_t capacity = MSG_TEXT_BYTES - 1;
    while (!text.empty()) {
        const std::size_t lastEnd = text.size() <= capacity ? text.size() : text.rfind('\n', capacity - 1) + 1;
        replyTo(context, &conn, text.substr(0, lastEnd));
        text.remove_prefix(lastEnd);
    }
}

} // namespace

int setDelay(CommandContext& context, std::span<const std::string_view> tokens)
{
    const std::string_view argument = trimmed(trimmed(tokens[0]).substr(std::string_view("DELAY").size()));
    if (beginsWithNoCase(argument, "CLEAR")) {
        context.delayQueues.clear();
        return 0;
    }
    const std::uint64_t delay = parseDelayTime(argument);
    if (delay == 0) return 1;
    const std::optional<Clock> now = Clock::now();
    if (!now) return 1;
    context.delayQueues.add(dueTime(*now, delay), joined(tokens.subspan(1)));
    return 0;
}

int listDelays(CommandContext& context, TPortConn* conn)
{
    const std::optional<Clock> now = Clock::now();
    if (!now) {
        replyTo(context, conn, "Error Getting Delay Queues\r\n\r\n");
        return 1;
    }
    if (conn == nullptr) return 0;
    std::string text = "OK\r\n";
    for (const auto& [due, line] : context.delayQueues.lines())
        text += listingLine(*now, due, line);
    text += "\r\n";
    writeLines(context, *conn, text);
    return 0;
}
