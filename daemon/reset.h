#pragma once

#include <functional>

#include "commands/command_context.h"
#include "commands/re_init.h"

/// Resets of the device: restarts it, or re-initialises the installed software version first, while
/// whoever asked waits.
/// Threads: any.
class Reset {
public:
    /// @param reInit     the program's; must outlive this
    /// @param forkWhole  fork(2) at a moment when nobody else is in the middle of a change
    Reset(ReInit& reInit, std::function<int()> forkWhole);

    /// Restarts the device 5 seconds from now, from a child process; until then the caller goes on.
    /// @param line   RESET command line: one word; or three words, RESET, REINIT (in any case) and
    ///               this host's name, which re-initialise first
    /// @return RESET_STARTED; RESET_REFUSED: also while another one's program is at work, or when
    ///         the restart has failed, which is logged. When the restart itself fails, that is
    ///         returned a second time, in the child, which goes on as a second copy of the daemon
    ///         (deliberate). RESET_WAITS: the program is at work, ask again when it is over
    ResetResult ask(const char* line, const void* asker) noexcept;

    /// Restarts the device when the program of an asker that is gone has ended well.
    void finishForgotten() noexcept;

private:
    ResetResult restart() noexcept;

    ReInit& reInit_;
    std::function<int()> forkWhole_;
};
