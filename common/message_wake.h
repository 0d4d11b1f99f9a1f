#pragma once

/// Ends the message loop's wait for messages: sends the daemon's own queue a record of a kind that
/// nobody knows, which the loop takes and ignores. Threads: any; not from a signal handler, which
/// has no need of it, because a signal ends that wait.
void wakeMessageLoop() noexcept;

/// @return true when wakeMessageLoop() has been called, once or more often, since this was last
///         asked
/// Threads: the message loop's.
bool takeMessageWake() noexcept;
