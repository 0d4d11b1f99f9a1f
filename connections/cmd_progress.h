#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "framework/tess_messages.h"

/// Whoever waits for room in the queue of a process.
struct QueueWaiter {
    long address = 0; ///< of that queue; 0: does not wait
    /// The queue at which it has waited and been served: it may go on there, ahead of the others
    /// that wait, until it is refused or has no further line to send now. 0: none
    long turnAt = 0;
};

/// How far the interpretation of some command lines has come. While one of them waits for a process
/// or a program, whoever asked is not read, and gets no further line interpreted.
struct CmdProgress {
    /// What the line under way waits for.
    enum class Wait : std::uint8_t { nothing, room, reInit };

    int line = 0; ///< the one under way, of `lineCount`
    int lineCount = 0;
    std::size_t token = 0; ///< the one under way, of that line
    Wait wait = Wait::nothing;
    bool pastReset = false; ///< the line is no reset, or one that has failed and is a command

    // The token's way to the registered processes.
    std::uint32_t portType = 0;                               ///< of the port that the command came from
    std::array<std::int32_t, MAX_REGISTERED_PROCS> targets{}; ///< queue addresses, in the registry's order
    std::size_t targetCount = 0;
    std::size_t target = 0; ///< the one under way
    int sendResult = 1;     ///< of the last send
    QueueWaiter queueWaiter;

    bool waits() const { return wait != Wait::nothing; }
};
