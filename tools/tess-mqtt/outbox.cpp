#include "tools/tess-mqtt/outbox.h"

#include <algorithm>
#include <utility>

namespace {

std::size_t bytesOf(const Publication& answer)
{
    return answer.topic.size() + answer.payload.size() + (answer.correlation ? answer.correlation->size() : 0);
}

} // namespace

Outbox::Entries::iterator Outbox::erase(const Entries::iterator& entry)
{
    bytes_ -= bytesOf(entry->answer);
    return entries_.erase(entry);
}

std::size_t Outbox::add(Publication answer, Instant now)
{
    const std::size_t before = entries_.size();
    const std::size_t bytes = bytesOf(answer);
    for (auto entry = entries_.begin();
         entry != entries_.end() && (entries_.size() >= most_ || bytes_ + bytes > MOST_BYTES);)
        entry = entry->number ? std::next(entry) : erase(entry);
    const std::size_t lost = before - entries_.size();
    bytes_ += bytes;
    entries_.push_back({.answer = std::move(answer), .end = now + keep_});
    return lost;
}

std::size_t Outbox::send(const std::function<std::optional<int>(const Publication&)>& send)
{
    const auto isSent = [](const Entry& entry) { return entry.number.has_value(); };
    auto sent = static_cast<std::size_t>(std::ranges::count_if(entries_, isSent));
    std::size_t lost = 0;
    for (auto entry = entries_.begin(); entry != entries_.end() && sent < MOST_SENT;) {
        if (!isSent(*entry)) {
            entry->number = send(entry->answer);
            if (!entry->number) break;
            if (*entry->number == 0) {
                entry = erase(entry);
                ++lost;
                continue;
            }
            ++sent;
        }
        ++entry;
    }
    return lost;
}

void Outbox::onAcknowledged(int number)
{
    const auto found = std::ranges::find_if(entries_, [=](const Entry& entry) { return entry.number == number; });
    if (found != entries_.end()) (void)erase(found);
}

void Outbox::onDown()
{
    for (Entry& entry : entries_)
        entry.number.reset();
}

std::size_t Outbox::expire(Instant now)
{
    const std::size_t before = entries_.size();
    for (auto entry = entries_.begin(); entry != entries_.end();)
        entry = entry->number || entry->end > now ? std::next(entry) : erase(entry);
    return before - entries_.size();
}
