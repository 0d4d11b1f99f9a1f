#include "commands/full_queues.h"

#include <algorithm>

#include "framework/queue_mgr.h"

const TFullQueues::Queue* TFullQueues::find(long address) const
{
    const auto found = std::ranges::find(queues_, address, &Queue::address);
    return found != queues_.end() ? &*found : nullptr;
}

TFullQueues::Queue* TFullQueues::find(long address)
{
    return const_cast<Queue*>(std::as_const(*this).find(address));
}

/// A queue that was not known to be full. When there are too many, one that nobody waits for is forgotten: it costs its next
/// sender another wait.
TFullQueues::Queue& TFullQueues::remember(long address)
{
    if (queues_.size() >= MAX_QUEUES) {
        const auto idle = std::ranges::find_if(queues_, [](const Queue& queue) { return queue.waiters.empty(); });
        if (idle != queues_.end()) queues_.erase(idle);
    }
    Queue& queue = queues_.emplace_back(address);
    queue.stuckFrom = instantNow() + PATIENCE;
    return queue;
}

bool TFullQueues::isFirst(const Queue& queue, const TQueueWaiter& who)
{
    return queue.waiters.empty() || queue.waiters.front() == &who;
}

/// Room that proves not to be there twice running tells nothing: the own send buffer may be used up, or others are faster.
bool TFullQueues::isTrusted(const Queue& queue)
{
    return TWaitSet::fits(queue.room.fd()) && queue.falseReports < 2;
}

long TFullQueues::send(TQueueWaiter& who, long address, TOrbAttachmentMsg& msg, long length)
{
    Queue* const queue = find(address);
    if (queue != nullptr && !isFirst(*queue, who)) return queue->isStuck ? givenUp(who) : join(*queue, who);
    const long result = g_qMgr.sendMsg(address, &msg, length, false);
    if (result == SEND_QUEUE_FULL) return refused(queue != nullptr ? *queue : remember(address), who);
    if (queue != nullptr) taken(*queue, who);
    return result == SEND_DONE ? SEND_DONE : SEND_FAILED;
}

long TFullQueues::refused(Queue& queue, TQueueWaiter& who)
{
    const Instant now = instantNow();
    queue.isStuck = now >= queue.stuckFrom;
    if (queue.isStuck) return givenUp(who);
    if (who.address != 0) ++queue.falseReports;
    // What reports in vain may be the queue of an owner that is gone. Without a descriptor time serves.
    if (queue.room.fd() < 0 || queue.falseReports > 0) (void)queue.room.watch(queue.address);
    queue.tryAt = isTrusted(queue) ? NEVER : now + RETRY_TIME;
    return join(queue, who);
}

long TFullQueues::join(Queue& queue, TQueueWaiter& who)
{
    if (who.address == 0) queue.waiters.push_back(&who);
    who.address = queue.address;
    return SEND_QUEUE_FULL;
}

long TFullQueues::givenUp(TQueueWaiter& who)
{
    leave(who);
    return SEND_FAILED;
}

/// The queue has taken a record, or is gone.
void TFullQueues::taken(Queue& queue, TQueueWaiter& who)
{
    queue.falseReports = 0;
    queue.isStuck = false;
    queue.stuckFrom = instantNow() + PATIENCE;
    const long address = queue.address;
    leave(who);
    if (queue.waiters.empty()) queues_.remove_if([address](const Queue& known) { return known.address == address; });
}

void TFullQueues::leave(TQueueWaiter& who)
{
    Queue* const queue = who.address != 0 ? find(who.address) : nullptr;
    who.address = 0;
    if (queue == nullptr) return;
    std::erase(queue->waiters, &who);
    if (queue->waiters.empty()) queue->room.stop();
}

void TFullQueues::addTo(TWaitSet& waits) const
{
    for (const Queue& queue : queues_) {
        if (queue.waiters.empty()) continue;
        waits.addDue(std::min(queue.stuckFrom, queue.tryAt)); // of a stuck one it has come
        if (isTrusted(queue)) waits.addOutput(queue.room.fd());
    }
}

bool TFullQueues::mayTry(const TQueueWaiter& who, const TWaitSet& waits) const
{
    const Queue* const queue = find(who.address);
    if (queue == nullptr || queue->isStuck) return true;
    // Only the first one finds out that a queue is stuck: it may have taken something at the last moment.
    if (!isFirst(*queue, who)) return false;
    const bool isDue = waits.isDue(std::min(queue->stuckFrom, queue->tryAt));
    return isDue || (isTrusted(*queue) && waits.hasRoom(queue->room.fd()));
}
