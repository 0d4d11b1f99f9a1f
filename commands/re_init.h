#pragma once

#include <memory>
#include <mutex>

/// The program that re-initialises the installed software version (versionReInit()): in a thread of
/// its own, one at a time, while whoever asked for it waits. Whoever asks is told from others by a
/// pointer.
/// Threads: any.
class ReInit {
public:
    /// @param onOver  called when the program has ended, by its thread; must stay valid for as long
    ///                as the process lives
    explicit ReInit(void (*onOver)()) : onOver_(onOver) {}

    /// @return false: a program is at work already, the daemon ends, or it cannot be started
    bool start(const void* asker) noexcept;

    /// @return true when the asker has started a program and has not been told its result
    bool isAskedBy(const void* asker) const;

    /// @return true when the program that the asker waits for has ended, or it waits for none
    bool isOver(const void* asker) const;

    /// Tells the result, once; to be asked when it is over.
    /// @return true when the program has ended well
    bool takeResult();

    /// The asker is gone. What it has asked for is done all the same.
    void forget(const void* asker);

    /// @return true, once, when a forgotten asker's program has ended well
    bool takeForgotten();

    /// From here on no program starts and none is over: the daemon ends.
    void cancel();

    /// In a copy of the daemon there is no program at work, whoever waits for it.
    void startInCopy();

private:
    struct Run; ///< shared with the program's thread, which may outlive the daemon

    bool endedLocked() const;
    bool takeResultLocked();

    void (*onOver_)();
    mutable std::mutex lock_;
    const void* asker_ = nullptr; ///< null: nobody has asked
    bool cancelled_ = false;
    std::shared_ptr<Run> run_;
    bool isLost_ = false; ///< the program, if there is one, is the original's
};
