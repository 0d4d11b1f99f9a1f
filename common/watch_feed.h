#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string_view>

#include "common/listeners.h"
#include "framework/orb_attachment_msg.h"

/// Lines for processes that watch what happens: gathered, and sent to each of them in records of
/// kind 303, many lines in one. Never waits: a watcher whose queue is full loses the record, and is
/// told how many records and lines it has lost in front of the next one that fits; one that is gone
/// is forgotten. Allocates nothing.
/// Threads: any.
class WatchFeed {
public:
    static constexpr std::size_t MAX_WATCHERS = 8;
    /// What is gathered between two sendings; more is lost to all watchers, who are told.
    static constexpr std::size_t KEPT_BYTES = 32768;

    constexpr WatchFeed() = default;
    WatchFeed(const WatchFeed&) = delete;
    WatchFeed& operator=(const WatchFeed&) = delete;

    /// @param address  of a queue; one that watches already may
    /// @return false: there are as many watchers as there can be
    bool takes(long address);

    /// Makes a process a watcher, if that is possible. One that is one already goes on.
    void add(long address);

    /// Forgets a watcher; does nothing for an address that does not watch.
    void remove(long address);

    std::size_t watchers();

    /// Keeps a line for the next sending.
    /// @param line  without its end
    void append(std::string_view line);

    /// Sends what there is; to be called after every piece of work. One system call for each
    /// watcher and record.
    void flush()
    {
        if (isListening(LISTENER_WATCHERS)) send();
    }

    /// In a process that has just been forked: nobody watches it.
    void startInCopy();

private:
    struct Watcher {
        long address = 0;
        std::uint32_t lostRecords = 0;
        std::uint32_t lostLines = 0;
    };

    static constexpr std::size_t LOST_LINE_BYTES = 64;
    static constexpr std::size_t PIECE_BYTES = MSG_TEXT_BYTES - LOST_LINE_BYTES;

    bool isKnown(long address) const;
    void send();
    bool owesAnyone() const;
    void sendPiece(std::string_view piece);
    bool reaches(Watcher& watcher, std::string_view piece);
    void removeAt(std::size_t index);

    std::mutex lock_;
    std::array<Watcher, MAX_WATCHERS> watchers_{};
    std::size_t count_ = 0;
    std::array<char, KEPT_BYTES> text_{};
    std::size_t used_ = 0;
};

extern WatchFeed g_watch;
