#include "common/watch_feed.h"

#include <algorithm>
#include <memory>
#include <pthread.h>
#include <span>

#include "framework/fixed_text.h"
#include "framework/queue_mgr.h"
#include "framework/tess_messages.h"

constinit WatchFeed g_watch;

namespace {

void startInForkedChild()
{
    g_watch.startInCopy();
}

[[maybe_unused]] const int atFork = ::pthread_atfork(nullptr, nullptr, startInForkedChild);

/// The lines at the front of a text that fit into so many bytes.
std::string_view wholeLines(std::string_view text, std::size_t most)
{
    if (text.size() <= most) return text;
    return text.substr(0, text.rfind('\n', most - 1) + 1);
}

std::uint32_t linesIn(std::string_view text)
{
    return static_cast<std::uint32_t>(std::ranges::count(text, '\n'));
}

} // namespace

bool WatchFeed::takes(long address)
{
    const std::scoped_lock lock(lock_);
    return count_ < MAX_WATCHERS || isKnown(address);
}

void WatchFeed::add(long address)
{
    const std::scoped_lock lock(lock_);
    if (count_ == MAX_WATCHERS || isKnown(address)) return;
    watchers_[count_++] = {address, 0, 0};
    setListening(LISTENER_WATCHERS, true);
}

bool WatchFeed::isKnown(long address) const
{
    const auto known = std::span(watchers_).first(count_);
    return std::ranges::find(known, address, &Watcher::address) != known.end();
}

void WatchFeed::remove(long address)
{
    const std::scoped_lock lock(lock_);
    for (std::size_t i = count_; i-- > 0;)
        if (watchers_[i].address == address) removeAt(i);
}

void WatchFeed::removeAt(std::size_t index)
{
    watchers_[index] = watchers_[--count_];
    if (count_ > 0) return;
    used_ = 0;
    setListening(LISTENER_WATCHERS, false);
}

std::size_t WatchFeed::watchers()
{
    const std::scoped_lock lock(lock_);
    return count_;
}

void WatchFeed::append(std::string_view line)
{
    const std::scoped_lock lock(lock_);
    if (count_ == 0) return; // the last one has gone meanwhile
    if (text_.size() - used_ <= line.size()) {
        for (Watcher& watcher : std::span(watchers_).first(count_))
            ++watcher.lostLines;
        return;
    }
    used_ += line.copy(&text_[used_], line.size());
    text_[used_++] = '\n';
}

/// The lock is held while it sends: two threads that send at the same time would change the order.
void WatchFeed::send()
{
    const std::scoped_lock lock(lock_);
    std::string_view text(text_.data(), used_);
    if (text.empty() && owesAnyone()) sendPiece({});
    while (!text.empty()) {
        const std::string_view piece = wholeLines(text, PIECE_BYTES);
        sendPiece(piece);
        text.remove_prefix(piece.size());
    }
    used_ = 0;
}

bool WatchFeed::owesAnyone() const
{
    return std::ranges::any_of(std::span(watchers_).first(count_),
                               [](const Watcher& watcher) { return watcher.lostLines > 0; });
}

void WatchFeed::sendPiece(std::string_view piece)
{
    for (std::size_t i = count_; i-- > 0;) {
        const bool hasNothing = piece.empty() && watchers_[i].lostLines == 0;
        if (!hasNothing && !reaches(watchers_[i], piece)) removeAt(i);
    }
}

/// @return false: the watcher is gone
bool WatchFeed::reaches(Watcher& watcher, std::string_view piece)
{
    FixedText<LOST_LINE_BYTES> lost;
    if (watcher.lostLines > 0) lost << "lost records=" << watcher.lostRecords << " lines=" << watcher.lostLines << '\n';
    TOrbAttachmentMsg record; // its text is filled as far as it is sent
    record.kind = MSG_WATCH_TEXT;
    record.sender = 0;
    record.tag = 0;
    record.len = 0;
    std::size_t length = lost.view().copy(record.text, LOST_LINE_BYTES);
    length += piece.copy(record.text + length, piece.size());
    record.text[length++] = '\0';
    const long sent = g_qMgr.sendMsg(watcher.address, &record, static_cast<long>(MSG_HEADER_BYTES + length), false);
    if (sent == SEND_QUEUE_FULL) {
        if (!piece.empty()) ++watcher.lostRecords;
        watcher.lostLines += linesIn(piece);
        return true;
    }
    watcher.lostRecords = 0;
    watcher.lostLines = 0;
    return sent == SEND_DONE;
}

void WatchFeed::startInCopy()
{
    std::construct_at(&lock_); // a thread of the parent may have had it
    count_ = 0;
    used_ = 0;
    setListening(LISTENER_WATCHERS, false);
}
