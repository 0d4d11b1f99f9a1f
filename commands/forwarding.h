#pragma once

#include <cstdint>

#include "commands/command_address.h"
#include "commands/command_context.h"
#include "connections/cmd_progress.h"

/// Sends the prepared outMsg to every registered process that the address and the kind of port
/// admit, in list order. The tag word gets `entryTag` or-ed in once a process matches. Does not
/// wait: a process whose queue is full makes the line wait.
/// @param progress  of the line; remembers whom the record is still to be sent to
/// @param portType  type bit of the port the command came from; PORT_DELAYED passes every mask
/// @return 0 the last send succeeded; 1 no process matched, or the last send failed; 2 it waits:
///         goOnForwarding()
/// Threads: service thread. Takes regLock for the whole walk.
int forwardCmd(CommandContext& context, CmdProgress& progress, const CommandAddress& address, std::uint32_t portType,
               std::uint32_t entryTag);

/// Goes on where forwardCmd() has left off, with the same record in outMsg.
/// @return as forwardCmd()
int goOnForwarding(CommandContext& context, CmdProgress& progress);

inline constexpr int FORWARD_WAITS = 2;
