// The registry of processes that receive commands.
#include <cstring>
#include <new>
#include <utility>

#include "common/live_list.h"
#include "common/milestone.h"
#include "connections/witness.h"
#include "daemon/tess.h"
#include "framework/tess_messages.h"

namespace {

struct RegisterRequest {
    std::uint32_t portMask;
    std::string_view name;
};

/// The record is zero behind what was received, so that whatever is missing reads as mask 0 or the
/// empty name.
RegisterRequest readRequest(const TOrbAttachmentMsg& msg)
{
    RegisterRequest request{};
    std::memcpy(&request.portMask, msg.text, sizeof request.portMask);
    const char* const name = msg.text + sizeof request.portMask;
    request.name = {name, ::strnlen(name, MSG_TEXT_BYTES - sizeof request.portMask)};
    return request;
}

LeftProc leaving(TRegisteredProc& proc)
{
    return {proc.procId, std::move(proc.name), proc.sent.value(), proc.answered.value()};
}

void goOnCounting(TRegisteredProc& proc, const LeftProc& left)
{
    if (proc.procId != left.procId || proc.name != left.name) return;
    proc.sent.set(left.sent);
    proc.answered.set(left.answered);
}

} // namespace

RegisterResult TTess::registerProc() noexcept
try {
    setMilestone(Milestone::registerBegun);
    const RegisterRequest request = readRequest(inMsg);
    if (request.portMask == 0) return RegisterResult::nothingEnabled;
    const std::scoped_lock lock(regLock);
    for (std::size_t i = 0; TRegisteredProc* proc = liveAt(regProcs, i); ++i) {
        if (proc->name != request.name) continue;
        proc->procId = inMsg.sender;
        proc->portMask = request.portMask;
        return RegisterResult::done;
    }
    if (regProcs.size() >= MAX_REGISTERED_PROCS) return RegisterResult::listFull;
    regProcs.reserve(MAX_REGISTERED_PROCS);
    regProcs.push_back(new TRegisteredProc{inMsg.sender, request.portMask, std::string(request.name)});
    goOnCounting(*regProcs.back(), leftProc);
    setMilestone(Milestone::registerDone);
    return RegisterResult::done;
} catch (const std::bad_alloc&) {
    return RegisterResult::noMemory;
}

UnregisterResult TTess::unregisterProc() noexcept
{
    setMilestone(Milestone::unregisterBegun);
    const std::scoped_lock lock(regLock);
    if (regProcs.empty()) return UnregisterResult::listEmpty;
    UnregisterResult result = UnregisterResult::notFound;
    for (std::size_t i = 0; TRegisteredProc* proc = liveAt(regProcs, i); ++i) {
        if (proc->procId != inMsg.sender) continue;
        witness::unregistered(proc->procId, proc->name);
        leftProc = leaving(*proc);
        delete proc;
        regProcs.erase(regProcs.begin() + static_cast<std::ptrdiff_t>(i));
        result = UnregisterResult::done;
        break;
    }
    setMilestone(Milestone::unregisterDone);
    return result;
}

void TTess::clearRegistry() noexcept
{
    setMilestone(Milestone::clearRegistryBegun);
    const std::scoped_lock lock(regLock);
    for (const TRegisteredProc* proc : regProcs)
        delete proc;
    regProcs.clear();
    setMilestone(Milestone::clearRegistryDone);
}
