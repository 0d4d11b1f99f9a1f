#pragma once

#include "framework/msg_proc.h"

/// A process with a queue and nothing to run.
class QuietProc : public TMsgProc {
public:
    explicit QuietProc(long queueId, bool openQueue = true) : TMsgProc(queueId, openQueue) {}
    int run() override { return 0; }
};
