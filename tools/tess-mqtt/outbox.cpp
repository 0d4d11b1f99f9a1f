#include "tools/tess-mqtt/outbox.h"

#include <algorithm>
#include <utility>

bool Outbox::add(Publication answer, Instant now)
{
    const bool isFull = entries_.size() >= most_;
    if (isFull) entries_.pop_front();
    entries_.push_back({.answer = std::move(answer), .end = now + keep_});
    return !isFull;
}

void Outbox::send(const std::function<std::optional<int>(const Publication&)>& send, Instant now)
{
    for (Entry& entry : entries_) {
        if (entry.number || entry.end < now) continue;
        entry.number = send(entry.answer);
        if (!entry.number) return;
    }
}

void Outbox::onAcknowledged(int number)
{
    const auto found = std::ranges::find_if(entries_, [=](const Entry& entry) { return entry.number == number; });
    if (found != entries_.end()) entries_.erase(found);
}

void Outbox::onDown()
{
    for (Entry& entry : entries_)
        entry.number.reset();
}

std::size_t Outbox::expire(Instant now)
{
    const std::size_t before = entries_.size();
    while (!entries_.empty() && entries_.front().end <= now)
        entries_.pop_front();
    return before - entries_.size();
}
