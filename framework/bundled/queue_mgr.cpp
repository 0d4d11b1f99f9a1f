#include "framework/queue_mgr.h"

#include <algorithm>
#include <pthread.h>

#include "framework/bundled/own_queue.h"
#include "framework/bundled/queue_sender.h"
#include "framework/tess_messages.h"

constinit TQueueMgr g_qMgr;

namespace {

/// A forked child has one thread only, but finds every lock as it was in its parent: held, if any
/// thread there held it.
void startInForkedChild()
{
    ownQueue.startInForkedChild();
}

[[maybe_unused]] const int atFork = ::pthread_atfork(nullptr, nullptr, startInForkedChild);

} // namespace

long TQueueMgr::getMsg(TOrbAttachmentMsg* msg, TMsgQueueTypes /*type*/, bool wait)
{
    return ownQueue.receive(msg, wait);
}

long TQueueMgr::sendMsg(long address, TOrbAttachmentMsg* msg, long length, bool wait)
{
    sockaddr_un to;
    if (length < static_cast<long>(MSG_HEADER_BYTES)) return SEND_FAILED;
    if (address < 1 || address > HIGHEST_QUEUE_ADDRESS) return SEND_FAILED;
    if (!ownQueue.directory().socketAddress(address, to)) return SEND_FAILED;
    const std::size_t bytes = std::min(static_cast<std::size_t>(length), MSG_RECORD_BYTES);

    QueueSender sender(ownQueue, address, to, msg, bytes);
    const SendResult sent = sender.trySend();
    return wait && sent == SEND_QUEUE_FULL ? sender.sendWhenRoom() : sent;
}
