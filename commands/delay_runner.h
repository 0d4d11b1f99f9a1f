#pragma once

#include "commands/command_context.h"

/// Interprets every line that is due, in order, without a connection. Lines may queue further ones
/// and may clear the queue. A line that has to wait keeps those behind it waiting: to be called
/// again when it may go on.
/// Threads: service thread.
void runDelays(CommandContext& context);
