#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/tess-mqtt/reply.h"

/// The requests that were begun lately, so that one that is delivered twice is carried out once: by
/// response topic, correlation data and line, of which a hash of 128 bits is kept. The line counts
/// too, because not everybody has new correlation data for each request.
///
/// With a file it also knows those of the process before it; the file is mapped, so that what is in
/// it when the process is killed stays.
/// Threads: one.
class RecentRequests {
public:
    static constexpr std::size_t SLOTS = 4096;                ///< older ones are forgotten
    static constexpr std::size_t MOST_TEXT_BYTES = 1024 * 64; ///< of all kept answers

    struct Key {
        std::string_view topic; ///< for the answer
        std::string_view correlation;
        std::string_view line{};
    };

    /// @param window  seconds after which a request is forgotten
    /// @param file    empty: none. One that cannot be made or mapped is done without
    RecentRequests(long window, const std::string& file);
    ~RecentRequests();
    RecentRequests(const RecentRequests&) = delete;
    RecentRequests& operator=(const RecentRequests&) = delete;

    /// Whether the file, where one was asked for, is in use.
    bool isKept() const { return mapped_; }

    enum class Known { no, underWay, answered, answerLost };

    /// @param now  seconds on a clock that goes on while the device sleeps, and begins at its start
    Known find(const Key& key, std::int64_t now);

    /// The kept reply, after find() has said `answered`.
    const Reply& reply(const Key& key);

    /// It is carried out from now on.
    void begin(const Key& key, std::int64_t now);

    /// It has been answered. A reply that is too long by itself is not kept; for others the oldest
    /// go.
    void finish(const Key& key, const Reply& reply);

    /// It was not carried out after all: when it comes again it is a new one.
    void forget(const Key& key);

private:
    using Hash = std::array<std::uint64_t, 2>;

    /// As it lies in the file.
    struct Slot {
        Hash hash;
        std::int64_t begun;   ///< 0: free
        std::uint64_t number; ///< counts up; 0: never taken
    };

    struct Entry {
        std::size_t slot;
        Known known;
        Reply reply;
    };

    static Hash hashOf(const Key& key);
    void map(const std::string& file);
    void readSlots();
    void drop(std::size_t slot);
    void dropOld(std::int64_t now);
    void dropOldReplies();

    std::int64_t window_;
    bool mapped_ = false;
    std::unique_ptr<Slot[]> own_; ///< where there is no file
    Slot* slots_ = nullptr;
    std::size_t next_ = 0; ///< slots are taken in turn
    std::uint64_t lastNumber_ = 0;
    std::deque<std::size_t> order_; ///< those that are taken, or were, the oldest in front
    std::deque<Hash> answered_;     ///< whose replies are kept, or were, the oldest in front
    std::size_t textBytes_ = 0;
    std::map<Hash, Entry> entries_;
};
