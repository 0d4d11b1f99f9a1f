#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "commands/command_context.h"
#include "framework/msg_proc.h"
#include "framework/tess_messages.h"
#include "tests/support/queue_process.h"

/// What command processing needs of a daemon, with real queues in a directory of their own.
struct CommandTestBench {
    static constexpr long DAEMON = 1001;

    /// A process in the registry, which needs no queue of its own.
    void registerProcess(long procId, std::uint32_t portMask, std::string name)
    {
        regProcs.push_back(new TRegisteredProc{static_cast<std::int32_t>(procId), portMask, std::move(name)});
    }

    ~CommandTestBench()
    {
        for (const TRegisteredProc* proc : regProcs)
            delete proc;
    }

    class Queue : public TMsgProc {
    public:
        Queue() : TMsgProc(DAEMON, true) {}
        int run() override { return 0; }
    };

    TempQueueDir directory;
    Queue queue;
    TOrbAttachmentMsg outMsg{};
    std::int32_t outLen = 0;
    std::vector<TRegisteredProc*> regProcs;
    std::mutex regLock;
    TDelayQueue delayQueues;
    std::vector<std::string_view> tokens;
    TCommandContext context{outMsg, outLen, regProcs, regLock, delayQueues, tokens, nullptr};
};
