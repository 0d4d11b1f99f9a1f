#pragma once

#include "framework/fd.h"

/// Tells when a queue that was full may take a record again, to a caller of TQueueMgr::sendMsg()
/// that has other things to wait for too.
///
///     if (g_qMgr.sendMsg(address, &msg, length, false) == SEND_QUEUE_FULL) fd = room.watch(address);
///
/// The report may be wrong: other senders were faster, or what this process has sent and nobody has
/// taken yet uses up its own send buffer, which this descriptor does not tell. A caller whose next
/// attempt is refused all the same must pause before it waits for the descriptor again: it may be
/// writable on and on. In a forked child it is the child's own copy of the descriptor, of the same
/// queue.
/// Threads: any; an object belongs to one.
class QueueRoom {
public:
    /// Watches the queue that has this address now. Called again it looks anew, at another queue or
    /// at the same one, whose owner may be another process by now; the descriptor then keeps its
    /// number.
    /// @param address  queue address, 1 to HIGHEST_QUEUE_ADDRESS
    /// @return a descriptor that select(2) and poll(2) report as writable when the queue may have
    ///         room or its owner is gone. It stays the object's: not to be read, written or closed.
    ///         -1: it is not to be had, because there is no such queue, it may not be reached,
    ///         there is no descriptor to spare, or the framework cannot tell; try to send again
    ///         after a short time
    int watch(long address);

    /// @return the descriptor, until stop() or a watch() that fails; -1: none
    int fd() const { return fd_.get(); }

    /// Closes the descriptor, if there is one.
    void stop();

private:
    Fd fd_;
};
