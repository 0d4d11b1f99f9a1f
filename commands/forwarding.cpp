#include "commands/forwarding.h"

#include "common/live_list.h"
#include "common/milestone.h"
#include "common/text.h"
#include "connections/witness.h"
#include "framework/queue_mgr.h"
#include "framework/tess_messages.h"

namespace {

bool isThisUnit(const char* unitAddr)
{
    return equalsNoCase(unitAddr, "s3") || equalsNoCase(unitAddr, "*");
}

bool takesPort(const TRegisteredProc& proc, std::uint32_t portType)
{
    return (proc.portMask & portType) != 0 || portType == PORT_DELAYED;
}

/// The wildcard leaves out "GPSD", which gets only what names it.
bool isAddressed(const TRegisteredProc& proc, const char* procAddr)
{
    if (equalsNoCase(proc.name.c_str(), procAddr)) return true;
    return equalsNoCase(procAddr, "*") && !equalsNoCase(proc.name.c_str(), "GPSD");
}

/// Sends outMsg to the targets that are left. Needs regLock.
int sendToTargets(CommandContext& context, CmdProgress& progress)
{
    for (; progress.target < progress.targetCount; ++progress.target) {
        const long sent = context.fullQueues.send(progress.queueWaiter, progress.targets[progress.target],
                                                  context.outMsg, context.outLen);
        if (sent == SEND_QUEUE_FULL) return FORWARD_WAITS;
        progress.sendResult = sent == SEND_DONE ? 0 : 1;
        if (sent == SEND_DONE)
            witness::forwarded(context.outMsg.tag, progress.portType, progress.targets[progress.target]);
    }
    return progress.sendResult;
}

} // namespace

int forwardCmd(CommandContext& context, CmdProgress& progress, const CommandAddress& address, std::uint32_t portType,
               std::uint32_t entryTag)
{
    setMilestone(Milestone::forwardBegun);
    progress.targetCount = 0;
    progress.target = 0;
    progress.sendResult = 1;
    progress.portType = portType;
    const std::scoped_lock lock(context.regLock);
    for (std::size_t i = 0; TRegisteredProc* proc = liveAt(context.regProcs, i); ++i) {
        if (!takesPort(*proc, portType) || !isThisUnit(address.unitAddr) || !isAddressed(*proc, address.procAddr))
            continue;
        context.outMsg.tag |= entryTag;
        proc->sent.add();
        if (progress.targetCount < progress.targets.size()) progress.targets[progress.targetCount++] = proc->procId;
    }
    const int result = sendToTargets(context, progress);
    setMilestone(Milestone::forwardDone);
    return result;
}

int goOnForwarding(CommandContext& context, CmdProgress& progress)
{
    setMilestone(Milestone::forwardBegun);
    const std::scoped_lock lock(context.regLock);
    const int result = sendToTargets(context, progress);
    setMilestone(Milestone::forwardDone);
    return result;
}
