#pragma once

#include <stdexcept>
#include <string>

/// What is thrown when a queue cannot be opened. Whoever opens it logs the same text.

/// @param what  cannot be done, or cannot be used
[[noreturn]] inline void failToOpenQueue(long address, const std::string& what, const std::string& why)
{
    throw std::runtime_error("queue address " + std::to_string(address) + ": " + what + ": " + why);
}

/// Somebody has the queue's address already.
[[noreturn]] inline void failQueueInUse(long address)
{
    throw std::runtime_error("queue address " + std::to_string(address) + " is in use");
}
