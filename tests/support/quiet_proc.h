#pragma once

#include "framework/msg_proc.h"

/// A process with a queue and nothing to run.
class TQuietProc : public TMsgProc {
public:
    explicit TQuietProc(long queueId, bool openQueue = true) : TMsgProc(queueId, openQueue) {}
    int run() override { return 0; }
};
