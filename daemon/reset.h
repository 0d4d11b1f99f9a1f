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

    /// Carries out a RESET command line, or goes on with one that was told RESET_WAITS. The device
    /// restarts after 5 seconds, from a child process; until then the caller goes on.
    /// @param line   what parseResetLine() reads: one word: restart; or three words, RESET, REINIT
    ///               (in any case) and this host's name: re-initialise first. Not looked at when
    ///               the asker's program is at work, or has ended and its result was not told
    /// @param asker  any pointer that tells this asker from others; never dereferenced
    /// @return RESET_STARTED; RESET_WAITS: the program is at work, ask again when ReInit::isOver();
    ///         RESET_REFUSED: wrong words, another asker's program is at work, the program or the
    ///         fork has failed. In the child it means that the restart has failed; the child then
    ///         goes on as a second copy of the daemon (deliberate). A failure of fork(2) or of the
    ///         restart is logged
    ResetResult ask(const char* line, const void* asker) noexcept;

    /// Restarts the device when the program of an asker that is gone has ended well.
    void finishForgotten() noexcept;

private:
    ResetResult restart() noexcept;

    ReInit& reInit_;
    std::function<int()> forkWhole_;
};
