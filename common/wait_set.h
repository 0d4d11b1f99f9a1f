#pragma once

#include <sys/select.h>

#include "common/instant.h"

/// What the service loop waits for, in one select(2): descriptors, and the nearest moment at which
/// something is due. Descriptors that an fd_set cannot hold (below 0, 1024 and above) are left out.
/// Threads: an object belongs to one.
class WaitSet {
public:
    WaitSet();

    /// @return true for a descriptor that can be waited for
    static bool fits(int fd) { return fd >= 0 && fd < FD_SETSIZE; }

    void addInput(int fd);
    void addOutput(int fd);
    /// Wakes up no later than then.
    void addDue(Instant due);

    /// Does not wait for a descriptor, but has hasDescriptors() say that there is one.
    void count(int fd);

    /// @return false: no descriptor was added or counted
    bool hasDescriptors() const { return maxFd_ >= 0; }

    /// Waits until a descriptor is ready, something is due, a signal arrives, or `most` has passed.
    void wait(std::chrono::milliseconds most);

    /// For after wait(). Both are true for every descriptor when the wait itself has failed:
    /// whoever asks then tries to read or to write, and learns more.
    bool hasInput(int fd) const { return isIn(fd, input_); }
    bool hasRoom(int fd) const { return isIn(fd, output_); }

    /// @return true when `due` had come at the end of the wait
    bool isDue(Instant due) const { return due <= now_; }

    /// When the wait ended; before it, when the set was made.
    Instant now() const { return now_; }

private:
    bool isIn(int fd, const fd_set& set) const;

    fd_set input_;
    fd_set output_;
    int maxFd_ = -1;
    bool hasOutputs_ = false;
    Instant due_ = NEVER;
    Instant now_ = instantNow();
    bool failed_ = false;
};
