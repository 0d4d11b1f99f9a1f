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
    /// @param keep  how long an answer waits for a broker that is away
    /// @param most  answers at a time; the oldest goes when one more comes
    Outbox(std::chrono::seconds keep, std::size_t most) : keep_(keep), most_(most) {}

    /// @return false: the oldest had to go for it
    bool add(Publication answer, Instant now);

    /// Hands out what has not been sent over this connection.
    /// @param send  returns the message's number, or nothing: it is to be tried again later
    void send(const std::function<std::optional<int>(const Publication&)>& send, Instant now);

    void onAcknowledged(int number);

    /// The connection is gone: what was not acknowledged is to be sent again.
    void onDown();

    /// Forgets what is too old. @return how many
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

    std::chrono::seconds keep_;
    std::size_t most_;
    std::deque<Entry> entries_;
};
