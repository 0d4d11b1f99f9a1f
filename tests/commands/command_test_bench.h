#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "commands/command_context.h"
#include "framework/queue_mgr.h"
#include "framework/tess_messages.h"
#include "tests/support/queue_process.h"
#include "tests/support/quiet_proc.h"

/// What command processing needs of a daemon, with real queues in a directory of their own.
struct CommandTestBench {
    static constexpr long DAEMON = 1001;
    static constexpr const char* FILLER = "filler";

    /// A process in the registry, which needs no queue of its own.
    void registerProcess(long procId, std::uint32_t portMask, std::string name)
    {
        regProcs.push_back(new TRegisteredProc{static_cast<std::int32_t>(procId), portMask, std::move(name)});
    }

    /// Sends records of its own to a queue until there is no room.
    /// @return how many
    static std::size_t fill(long address)
    {
        Outgoing filler = message(MSG_TEXT, FILLER);
        std::size_t count = 0;
        while (g_qMgr.sendMsg(address, &filler.record, static_cast<long>(filler.length), false) == SEND_DONE)
            ++count;
        return count;
    }

    /// What has been forwarded to a process, without what fill() has sent.
    static std::vector<std::string> forwardedTo(const QueueProcess& process)
    {
        std::vector<std::string> texts = process.receiveTexts();
        std::erase(texts, FILLER);
        return texts;
    }

    /// What those find who wait for queues, without a wait.
    WaitSet look() const
    {
        WaitSet waits;
        fullQueues.addTo(waits);
        waits.wait(std::chrono::milliseconds(0));
        return waits;
    }

    void clearRegistry()
    {
        for (const TRegisteredProc* proc : regProcs)
            delete proc;
        regProcs.clear();
    }

    ~CommandTestBench() { clearRegistry(); }

    TempQueueDir directory;
    QuietProc queue{DAEMON};
    TOrbAttachmentMsg outMsg{};
    std::int32_t outLen = 0;
    std::vector<TRegisteredProc*> regProcs;
    std::mutex regLock;
    FullQueues fullQueues;
    DelayQueue delayQueues;
    DelayedLine delayedLine;
    std::vector<std::string_view> tokens;
    CommandContext context{outMsg, outLen, regProcs, regLock, fullQueues, delayQueues, delayedLine, tokens, nullptr};
};
