#pragma once

/// Ends the message loop's wait for messages, by a record that the daemon sends to itself. As every record of a kind that is not
/// known it is not handled. Threads: any; not from a signal handler, which ends that wait by itself.
void wakeMessageLoop() noexcept;

/// @return true, once, after any number of wakes. Threads: the message loop's.
bool takeMessageWake() noexcept;
