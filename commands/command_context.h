#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string_view>
#include <vector>

#include "commands/delay_queue.h"
#include "commands/delayed_line.h"
#include "commands/full_queues.h"
#include "commands/registered_proc.h"
#include "framework/orb_attachment_msg.h"

/// Results of CommandContext::resetDevice.
enum ResetResult : int {
    RESET_STARTED = 0,
    RESET_REFUSED = 1, ///< or failed
    RESET_WAITS = 2,   ///< a program is at work: ask again when the service loop comes back to this line
};

/// All that command processing needs of the daemon; the daemon owns what is referred to.
struct CommandContext {
    TOrbAttachmentMsg& outMsg; ///< replies and forwarded commands; its kind is set by the caller
    std::int32_t& outLen;      ///< bytes of outMsg that are sent to a process
    std::vector<TRegisteredProc*>& regProcs;
    std::mutex& regLock; ///< guards regProcs and fullQueues
    FullQueues& fullQueues;
    DelayQueue& delayQueues;               ///< service thread only
    DelayedLine& delayedLine;              ///< the one that is being run
    std::vector<std::string_view>& tokens; ///< scratch, kept between calls so that nothing is allocated
    /// Resets the device for whoever asks; an asker that has to wait asks again with the same
    /// pointer.
    std::function<ResetResult(const char* line, const void* asker)> resetDevice;
};
