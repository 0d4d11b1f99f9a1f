#pragma once

#include <stdexcept>
#include <string>

/// Throw what OwnQueue::open() throws, which logs the same text.

/// @param what  the path or the system call that failed
/// @param why   the reason, in words
/// @throws std::runtime_error  always
[[noreturn]] inline void failToOpenQueue(long address, const std::string& what, const std::string& why)
{
    throw std::runtime_error("queue address " + std::to_string(address) + ": " + what + ": " + why);
}

/// Somebody has the queue's address already.
/// @throws std::runtime_error  always
[[noreturn]] inline void failQueueInUse(long address)
{
    throw std::runtime_error("queue address " + std::to_string(address) + " is in use");
}
