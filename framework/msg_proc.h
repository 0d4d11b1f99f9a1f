#pragma once

#include "framework/proc.h"

/// A process that takes part in the message queues.
class TMsgProc : public TProc {
public:
    /// Opens this process's queue when `openQueue` is set; from then on g_qMgr receives at that address and sends from
    /// it. One queue a process.
    /// @param queueId    queue address, 1 to 2147483647
    /// @param openQueue  false: the process only sends, and what it sends carries no sender
    /// @throws std::runtime_error  the queue cannot be opened; the reason has been logged ("queue address 1001 is in
    ///                             use" when another live process holds the address)
    TMsgProc(long queueId, bool openQueue);

    /// Closes the queue; the address is free again.
    ~TMsgProc() override;

    long queueId() const { return queueId_; }

private:
    long queueId_;
    bool open_;
};
