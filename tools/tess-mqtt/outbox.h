#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <optional>

#include "common/instant.h"
#include "tools/tess-mqtt/publication.h"

/// Answers on their way to the broker, each until the broker has acknowledged it, or it is too old.
/// Threads: one.
class Outbox {
public:
    static constexpr std::size_t MOST_BYTES = 1024 * 1024; ///< of all answers, but one of any size is held
    static constexpr std::size_t MOST_SENT = 64;           ///< that are not acknowledged: the client holds them, too

    /// @param keep  how long an answer waits for a broker that is away
    /// @param most  answers at a time; the oldest that are not sent go when one more comes
    Outbox(std::chrono::seconds keep, std::size_t most) : keep_(keep), most_(most) {}

    /// @return how many had to go for it
    std::size_t add(Publication answer, Instant now);

    /// Hands out what has not been sent over this connection.
    /// @param send  returns the message's number; 0: the broker cannot take it; or nothing: it is
    ///              to be tried again later
    /// @return how many the broker cannot take: they are forgotten
    std::size_t send(const std::function<std::optional<int>(const Publication&)>& send);

    void onAcknowledged(int number);

    /// The connection is gone: what was not acknowledged is to be sent again.
    void onDown();

    /// Without a connection: forgets what has waited for too long. @return how many
    std::size_t expire(Instant now);

    /// When the oldest is too old.
    Instant due() const { return entries_.empty() ? NEVER : entries_.front().end; }

    std::size_t size() const { return entries_.size(); }

private:
    struct Entry {
        Publication answer;
        Instant end;
        std::optional<int> number{}; ///< sent over this connection
    };
    using Entries = std::deque<Entry>;

    Entries::iterator erase(const Entries::iterator& entry);

    std::chrono::seconds keep_;
    std::size_t most_;
    std::size_t bytes_ = 0;
    Entries entries_;
};
