#pragma once

#include "framework/proc.h"

/// A process that takes part in the message queues.
class TMsgProc : public TProc {
public:
    /// Opens this process's queue when `openQueue` is set; from then on g_qMgr receives at that
    /// address and sends from it. One queue a process. The queues are in the directory that
    /// TESS_QUEUE_DIR names now, or in /run/tess/queue; a missing one is made, with mode 0770.
    /// Waits up to 2 seconds for that directory's lock (flock(2)).
    /// @param queueId    queue address, 1 to 2147483647; any, when no queue is opened
    /// @param openQueue  false: the process only sends, and what it sends carries no sender
    /// @throws std::runtime_error the queue cannot be opened; the reason has been logged ("queue
    ///                             address 1001 is in use" when another live process holds the
    ///                             address)
    /// Threads: any, while no other thread changes the environment.
    TMsgProc(long queueId, bool openQueue);

    /// Closes the queue: records that nobody has taken are lost, its file is removed, and the
    /// address is free again. Waits for a getMsg() under way, up to a second, and up to 2 seconds
    /// for the directory's lock; without that the file stays, for the next owner to replace. In a
    /// forked child it only forgets the queue, which stays the parent's.
    ~TMsgProc() override;

    /// @return the address as given
    long queueId() const { return queueId_; }

private:
    long queueId_;
    bool open_;
};
