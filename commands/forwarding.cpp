#include "commands/forwarding.h"

#include <strings.h>

#include "commands/live_list.h"
#include "framework/queue_mgr.h"
#include "framework/tess_messages.h"
#include "ports/milestone.h"

namespace {

bool equalsNoCase(const char* a, const char* b)
{
    return ::strcasecmp(a, b) == 0;
}

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

} // namespace

int forwardCmd(TCommandContext& context, const TCommandAddress& address, std::uint32_t portType, std::uint32_t entryTag)
{
    setMilestone(32);
    const std::scoped_lock lock(context.regLock);
    int result = 1;
    for (std::size_t i = 0; const TRegisteredProc* proc = liveAt(context.regProcs, i); ++i) {
        if (!takesPort(*proc, portType) || !isThisUnit(address.unitAddr) || !isAddressed(*proc, address.procAddr))
            continue;
        context.outMsg.tag |= entryTag;
        result = g_qMgr.sendMsg(proc->procId, &context.outMsg, context.outLen, false) == 0 ? 0 : 1;
    }
    setMilestone(33);
    return result;
}
