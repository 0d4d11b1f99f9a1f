#pragma once

#include <chrono>
#include <cstddef>
#include <sys/un.h>

#include "framework/bundled/own_queue.h"
#include "framework/orb_attachment_msg.h"
#include "framework/queue_mgr.h"

/// One record on its way to one queue.
/// Threads: an object belongs to one thread; several may wait at once.
class QueueSender {
public:
    /// How long a wait may be without any progress once the backlog is full.
    static constexpr std::chrono::milliseconds PATIENCE{250};

    /// @param own      sent from; taken in meanwhile
    /// @param address  the queue that is sent to
    /// @param to       its socket, as own.directory() has it
    /// @param msg      stays the caller's, as long as the sender lives
    /// @param length   MSG_HEADER_BYTES to MSG_RECORD_BYTES
    QueueSender(OwnQueue& own, long address, const sockaddr_un& to, const TOrbAttachmentMsg* msg, std::size_t length)
        : own_(own), address_(address), to_(to), msg_(msg), length_(length)
    {
    }

    /// Tries once, without waiting.
    SendResult trySend();

    /// Waits for room and sends; meanwhile takes what arrives on the own queue into its backlog.
    /// @return SEND_QUEUE_FULL only when the own backlog is full too and nothing moves
    SendResult sendWhenRoom();

private:
    using Clock = std::chrono::steady_clock;
    using Millis = std::chrono::milliseconds;

    class RoomWait;

    OwnQueue& own_;
    long address_;
    const sockaddr_un& to_;
    const TOrbAttachmentMsg* msg_;
    std::size_t length_;
};
