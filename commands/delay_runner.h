#pragma once

#include "commands/command_context.h"

/// Interprets every line that is due, in order, without a connection. Lines may queue further ones
/// and may clear the queue. A line that has to wait keeps those behind it waiting: to be called
/// again when it may go on. Of a line only the first 255 characters are run. When the clock cannot
/// be read, it sleeps for 100 ms and runs nothing more.
/// Threads: service thread.
void runDelays(CommandContext& context);
