#pragma once

#include "framework/bundled/own_queue.h"
#include "framework/orb_attachment_msg.h"

#include <chrono>
#include <cstddef>
#include <sys/un.h>

/// One record on its way to one queue.
/// Threads: an object belongs to one thread; several may wait at once.
class TQueueSender {
public:
    enum class Sent {
        done,   ///< the record is in the queue
        noRoom, ///< the queue is full
        failed, ///< no such queue, its owner is gone, or it may not be reached
    };

    /// How long a bounded wait lasts, and how long an unbounded one may be without any progress once the backlog is full.
    static constexpr std::chrono::milliseconds PATIENCE{250};

    /// @param own     sent from; taken in meanwhile
    /// @param msg     stays the caller's, as long as the sender lives
    /// @param length  MSG_HEADER_BYTES to MSG_RECORD_BYTES
    TQueueSender(TOwnQueue& own, const sockaddr_un& to, const TOrbAttachmentMsg* msg, std::size_t length)
        : own_(own), to_(to), msg_(msg), length_(length)
    {
    }

    /// Tries once, without waiting.
    Sent trySend();

    /// Waits for room and sends; meanwhile takes what arrives on the own queue into its backlog.
    /// @param bounded  true: gives up after PATIENCE; false: only when the own backlog is full and nothing moves
    Sent sendWhenRoom(bool bounded);

private:
    using Clock = std::chrono::steady_clock;
    using Millis = std::chrono::milliseconds;

    class RoomWait;

    TOwnQueue& own_;
    const sockaddr_un& to_;
    const TOrbAttachmentMsg* msg_;
    std::size_t length_;
};
