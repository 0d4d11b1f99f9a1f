#pragma once

#include "framework/msg_proc.h"

/// A process that runs for as long as the device does and serves messages.
class TMsgDmn : public TMsgProc {
public:
    /// As TMsgProc.
    TMsgDmn(long queueId, bool openQueue);
};
