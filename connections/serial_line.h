#pragma once

#include <cstddef>

/// Writes to a serial line, which may be slow, and waits until the line has taken everything; but for no longer than 2
/// seconds in which it takes nothing, and no longer than until the daemon is asked to stop.
/// @param fd  of a terminal device, non-blocking: with a tab in the text a blocking one may wait where it said it would not
/// @return true when everything was written
/// Threads: any.
bool writeToLine(int fd, const char* bytes, std::size_t count);
