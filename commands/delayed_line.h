#pragma once

#include <array>
#include <cstddef>

#include "connections/cmd_progress.h"

/// Longest delayed line that is run, its NUL included.
inline constexpr std::size_t DELAYED_LINE_BYTES = 256;

/// A delayed line that has been taken out of the queue to be run. It waits as a connection does.
struct DelayedLine {
    std::array<char, DELAYED_LINE_BYTES> text{};
    bool runs = false;
    CmdProgress progress;
};
