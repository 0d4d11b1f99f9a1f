#pragma once

/// Installs signalHandler() for SIGQUIT, SIGTERM, SIGSEGV, SIGPIPE and SIGCHLD (sigaction(2)).
/// @param stop  asks the daemon to stop, if there is one; called by the handler, whenever: also
///              when the daemon is gone
void installSignalHandlers(void (*stop)());

/// SIGQUIT, SIGTERM: logs and asks the daemon to stop. SIGSEGV: logs how far the program had got
/// and ends it with status 1. SIGPIPE: nothing. SIGCHLD: logs, and leaves the child to be reaped by
/// whoever started it. Keeps errno; allocates nothing.
void signalHandler(int signo);
