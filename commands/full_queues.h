#pragma once

#include <list>
#include <vector>

#include "common/wait_set.h"
#include "connections/cmd_progress.h"
#include "framework/orb_attachment_msg.h"
#include "framework/queue_room.h"

/// The queues that had no room for a record, and who waits for each, in order of asking. Whoever's
/// turn has come goes on until it is refused again, or its owner ends the turn. A queue that has
/// taken nothing for a while is stuck: nobody waits for it any longer before it takes a record
/// again.
/// Threads: no lock of its own; under the daemon's registry lock.
class FullQueues {
public:
    /// How long a queue may take nothing while somebody waits for it.
    static constexpr std::chrono::milliseconds PATIENCE{250};
    /// Between two attempts where nothing tells whether a queue has room.
    static constexpr std::chrono::milliseconds RETRY_TIME{10};
    /// Stuck queues that are remembered: twice the processes that can be registered.
    static constexpr std::size_t MAX_QUEUES = 64;

    /// Sends a record, behind whoever waits for that queue already. Does not wait.
    /// @param who     the sender. After SEND_QUEUE_FULL it waits: it must not move or be destroyed
    ///                before another send() has returned something else, or leave() was called
    /// @param length  bytes of `msg` to send
    /// @return SEND_DONE; SEND_FAILED: it cannot be delivered, or the queue is stuck;
    ///         SEND_QUEUE_FULL: `who` waits now, and the same record is to be sent again once
    ///         mayTry() says so
    long send(QueueWaiter& who, long address, TOrbAttachmentMsg& msg, long length);

    /// Ends a wait; does nothing for whoever does not wait.
    void leave(QueueWaiter& who);

    /// Adds what the waits wait for.
    void addTo(WaitSet& waits) const;

    /// @return true while somebody waits for room in that queue, or it is stuck
    bool isFull(long address) const;

    /// @return true when another attempt may succeed, or time is up
    bool mayTry(const QueueWaiter& who, const WaitSet& waits) const;

private:
    struct Queue {
        explicit Queue(long queueAddress) : address(queueAddress) {}

        long address;
        Instant stuckFrom = NEVER;   ///< unless it takes something before
        bool isStuck = false;        ///< found to be so, and has taken nothing since
        Instant tryAt = NEVER;       ///< where no descriptor tells its room
        int falseReports = 0;        ///< of room, in a row
        Instant refusedAt = AT_ONCE; ///< the last time
        QueueRoom room;
        std::vector<QueueWaiter*> waiters;
    };

    const Queue* find(long address) const;
    Queue* find(long address);
    Queue& remember(long address);
    long refused(Queue& queue, QueueWaiter& who);
    void taken(Queue& queue, QueueWaiter& who);
    long givenUp(QueueWaiter& who);
    static long join(Queue& queue, QueueWaiter& who);
    static bool isFirst(const Queue& queue, const QueueWaiter& who);
    static bool isTrusted(const Queue& queue);

    std::list<Queue> queues_; ///< the oldest first
};
