#pragma once

#include <chrono>
#include <sys/socket.h>

/// Connects a blocking socket, and gives up when its peer has not accepted the connection within a
/// time. Afterwards the same time limits each send() over that socket.
/// @param patience  the longest wait; a millisecond at least
/// @param fd        the socket; stays the caller's
/// @return 0: connected; else the error's number (errno(3)), ETIMEDOUT when the time was over
int connectWithin(std::chrono::milliseconds patience, int fd, const sockaddr* name, socklen_t size);
