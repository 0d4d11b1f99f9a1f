#include "commands/full_queues.h"

#include <algorithm>

#include "common/counters.h"
#include "framework/queue_mgr.h"

const FullQueues::Queue* FullQueues::find(long address) const
{
    const auto found = std::ranges::find(queues_, address, &Queue::address);
    return found != queues_.end() ? &*found : nullptr;
}

FullQueues::Queue* FullQueues::find(long address)
{
    return const_cast<Queue*>(std::as_const(*this).find(address));
}

/// Adds a queue that has just been found full. When there are too many, one that nobody waits for
/// is forgotten: should it be stuck, the next sender has to wait until that shows once more.
FullQueues::Queue& FullQueues::remember(long address)
{
    if (queues_.size() >= MAX_QUEUES) {
        const auto idle = std::ranges::find_if(queues_, [](const Queue& queue) { return queue.waiters.empty(); });
        if (idle != queues_.end()) queues_.erase(idle);
    }
    Queue& queue = queues_.emplace_back(address);
    queue.stuckFrom = instantNow() + PATIENCE;
    return queue;
}

bool FullQueues::isFirst(const Queue& queue, const QueueWaiter& who)
{
    return queue.waiters.empty() || queue.waiters.front() == &who || who.turnAt == queue.address;
}

/// @return false when there is no descriptor that tells of room; or when it has told so twice in a
///         row and the next send found none: this process's send buffer may be used up, or other
///         senders are faster. Then it is tried by the clock
bool FullQueues::isTrusted(const Queue& queue)
{
    return WaitSet::fits(queue.room.fd()) && queue.falseReports < 2;
}

long FullQueues::send(QueueWaiter& who, long address, TOrbAttachmentMsg& msg, long length)
{
    Queue* const queue = find(address);
    if (queue != nullptr && !isFirst(*queue, who)) return queue->isStuck ? givenUp(who) : join(*queue, who);
    const long result = g_qMgr.sendMsg(address, &msg, length, false);
    if (result == SEND_QUEUE_FULL) return refused(queue != nullptr ? *queue : remember(address), who);
    if (queue != nullptr) taken(*queue, who);
    return result == SEND_DONE ? SEND_DONE : SEND_FAILED;
}

long FullQueues::refused(Queue& queue, QueueWaiter& who)
{
    const Instant now = instantNow();
    queue.refusedAt = now;
    who.turnAt = 0;
    queue.isStuck = now >= queue.stuckFrom;
    if (queue.isStuck) return givenUp(who);
    if (who.address != 0) ++queue.falseReports;
    // A descriptor that reports room where there is none may belong to the queue of an owner that
    // is gone: the address is looked up anew. Where that fails, it is tried by the clock.
    if (queue.room.fd() < 0 || queue.falseReports > 0) (void)queue.room.watch(queue.address);
    queue.tryAt = isTrusted(queue) ? NEVER : now + RETRY_TIME;
    return join(queue, who);
}

long FullQueues::join(Queue& queue, QueueWaiter& who)
{
    if (who.address == 0) {
        queue.waiters.push_back(&who);
        g_counters.queueWaits.add();
    }
    who.address = queue.address;
    return SEND_QUEUE_FULL;
}

long FullQueues::givenUp(QueueWaiter& who)
{
    leave(who);
    return SEND_FAILED;
}

/// The queue has taken a record, or is gone.
void FullQueues::taken(Queue& queue, QueueWaiter& who)
{
    queue.falseReports = 0;
    queue.isStuck = false;
    queue.stuckFrom = instantNow() + PATIENCE;
    const long address = queue.address;
    if (who.address != 0) who.turnAt = address;
    leave(who);
    if (queue.waiters.empty()) queues_.remove_if([address](const Queue& known) { return known.address == address; });
}

void FullQueues::leave(QueueWaiter& who)
{
    Queue* const queue = who.address != 0 ? find(who.address) : nullptr;
    who.address = 0;
    if (queue == nullptr) return;
    std::erase(queue->waiters, &who);
    if (queue->waiters.empty()) queue->room.stop();
}

bool FullQueues::isFull(long address) const
{
    const Queue* const queue = find(address);
    return queue != nullptr && (queue->isStuck || !queue->waiters.empty());
}

void FullQueues::addTo(WaitSet& waits) const
{
    for (const Queue& queue : queues_) {
        if (queue.waiters.empty()) continue;
        waits.addDue(std::min(queue.stuckFrom, queue.tryAt)); // past for a stuck one, which is tried at once
        if (isTrusted(queue)) waits.addOutput(queue.room.fd());
    }
}

bool FullQueues::mayTry(const QueueWaiter& who, const WaitSet& waits) const
{
    const Queue* const queue = find(who.address);
    if (queue == nullptr || queue->isStuck) return true;
    // Only the first one finds out that a queue is stuck: it may have taken something at the last
    // moment.
    if (!isFirst(*queue, who)) return false;
    const bool isDue = waits.isDue(std::min(queue->stuckFrom, queue->tryAt));
    // What was reported before a refusal is past.
    const bool hasRoom = queue->refusedAt <= waits.now() && waits.hasRoom(queue->room.fd());
    return isDue || (isTrusted(*queue) && hasRoom);
}
