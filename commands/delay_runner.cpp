#include "commands/delay_runner.h"

#include "commands/clock_reading.h"
#include "commands/interpreter.h"
#include "framework/fixed_text.h"
#include "framework/sleep.h"

namespace {

constexpr int CLOCK_RETRY_MS = 100;

/// @return false: no line is due
bool takeDue(DelayQueue& queue, const ClockReading& now, DelayedLine& line)
{
    const std::optional<std::string> text = queue.takeDue(now.milliseconds());
    if (!text) return false;
    putText(line.text, *text);
    line.runs = true;
    return true;
}

/// @return false: it has to wait
bool run(CommandContext& context, DelayedLine& line)
{
    const CmdEntry command{0, line.text.data()};
    line.runs = processCmd(context, nullptr, &command) == CMD_WAITS; // any other result: there is nobody to tell
    line.progress.queueWaiter.turnAt = 0;
    return !line.runs;
}

} // namespace

void runDelays(CommandContext& context)
{
    DelayedLine& line = context.delayedLine;
    if (line.runs && !run(context, line)) return;
    const std::optional<ClockReading> now = ClockReading::now();
    if (!now) {
        Sleep(CLOCK_RETRY_MS);
        return;
    }
    while (takeDue(context.delayQueues, *now, line) && run(context, line)) {
    }
}
