#include "commands/delay_queue.h"

std::optional<std::string> DelayQueue::takeDue(std::uint64_t now)
{
    const auto first = lines_.begin();
    if (first == lines_.end() || first->first > now) return std::nullopt;
    return std::move(lines_.extract(first).mapped());
}
