#pragma once

#include <cstdint>
#include <mutex>
#include <string_view>
#include <vector>

#include "commands/delay_queue.h"
#include "commands/registered_proc.h"
#include "framework/orb_attachment_msg.h"

/// All that command processing needs of the daemon; the daemon owns what is referred to.
struct TCommandContext {
    TOrbAttachmentMsg& outMsg; ///< replies and forwarded commands; its kind is set by the caller
    std::int32_t& outLen;      ///< bytes of outMsg that are sent to a process
    std::vector<TRegisteredProc*>& regProcs;
    std::mutex& regLock;                   ///< guards regProcs
    TDelayQueue& delayQueues;              ///< service thread only
    std::vector<std::string_view>& tokens; ///< scratch, kept between calls so that nothing is allocated
    int (*resetDevice)(const char* line);  ///< 0 the reset was started, else it was refused or failed
    bool delaysCleared = false;            ///< set by a DELAY CLEAR, for a walk over the queue that is under way
};
