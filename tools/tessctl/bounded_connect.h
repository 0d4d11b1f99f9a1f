#pragma once

#include <chrono>
#include <sys/socket.h>

/// Connects a blocking socket, but does not wait for longer than `patience` while its peer takes no connections. What is sent
/// over it later is not waited for any longer either.
/// @param patience  a millisecond at least
/// @return 0, else as errno has it; ETIMEDOUT when the time was over
int connectWithin(std::chrono::milliseconds patience, int fd, const sockaddr* name, socklen_t size);
