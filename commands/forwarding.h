#pragma once

#include <cstdint>

#include "commands/command_address.h"
#include "commands/command_context.h"

/// Sends the prepared outMsg to every registered process that the address and the kind of port admit, in list order.
/// The tag word gets `entryTag` or-ed in once a process matches.
/// A process whose queue is full holds this up for at most 250 ms, once (TQueueMgr::sendMsg).
/// @param portType  type bit of the port the command came from; PORT_DELAYED passes every mask
/// @return 0 the last send succeeded; 1 no process matched, or the last send failed
/// Threads: service thread. Takes regLock for the whole walk.
int forwardCmd(TCommandContext& context, const TCommandAddress& address, std::uint32_t portType,
               std::uint32_t entryTag);
