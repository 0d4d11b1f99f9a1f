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

    /// @param own      the queue to send from, and to empty into its backlog while waiting; must
    ///                 outlive the sender
    /// @param address  the queue to send to
    /// @param to       the address of that queue's socket, as own.directory() has it; must outlive
    ///                 the sender
    /// @param msg      the record; stays the caller's, and must outlive the sender
    /// @param length   MSG_HEADER_BYTES to MSG_RECORD_BYTES
    QueueSender(OwnQueue& own, long address, const sockaddr_un& to, const TOrbAttachmentMsg* msg, std::size_t length)
        : own_(own), address_(address), to_(to), msg_(msg), length_(length)
    {
    }

    /// Tries once, without waiting.
    /// @return SEND_QUEUE_FULL: no room, in the queue or in this process's send buffer
    SendResult trySend();

    /// Waits for room and sends; meanwhile takes what arrives on the own queue into its backlog.
    /// @return never SEND_QUEUE_FULL unless the own backlog is full and nothing has moved for
    ///         PATIENCE
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
