#include "framework/queue_mgr.h"

#include "framework/bundled/own_queue.h"
#include "framework/bundled/queue_sender.h"
#include "framework/bundled/stuck_queues.h"

#include <algorithm>
#include <memory>
#include <pthread.h>
#include <type_traits>

constinit TQueueMgr g_qMgr;

namespace {

constinit TStuckQueues stuckQueues;

static_assert(std::is_trivially_destructible_v<TStuckQueues>); // see TOwnQueue

/// A forked child has one thread only, but every lock as some thread of its parent held it.
void startInForkedChild()
{
    ownQueue.startInForkedChild();
    std::construct_at(&stuckQueues); // half changed, maybe; what is stuck costs a wait again
}

[[maybe_unused]] const int atFork = ::pthread_atfork(nullptr, nullptr, startInForkedChild);

} // namespace

long TQueueMgr::getMsg(TOrbAttachmentMsg* msg, TMsgQueueTypes /*type*/, bool wait)
{
    return ownQueue.receive(msg, wait);
}

long TQueueMgr::sendMsg(long address, TOrbAttachmentMsg* msg, long length, bool wait)
{
    using Sent = TQueueSender::Sent;
    sockaddr_un to;
    if (length < static_cast<long>(MSG_HEADER_BYTES)) return 1;
    if (address < 1 || address > TQueueDirectory::HIGHEST_ADDRESS) return 1;
    if (!ownQueue.directory().socketAddress(address, to)) return 1;
    const std::size_t bytes = std::min(static_cast<std::size_t>(length), MSG_RECORD_BYTES);

    TQueueSender sender(ownQueue, to, msg, bytes);
    Sent sent = sender.trySend();
    if (sent == Sent::noRoom && (wait || !stuckQueues.has(address))) {
        sent = sender.sendWhenRoom(!wait);
        if (sent == Sent::noRoom && !wait) stuckQueues.add(address);
    }
    if (sent != Sent::noRoom) stuckQueues.remove(address);
    return sent == Sent::done ? 0 : 1;
}
