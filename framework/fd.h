#pragma once

#include <unistd.h>
#include <utility>

/// Owns a descriptor, or none (negative), and closes it at the end of its life.
/// Threads: no lock of its own; also in a signal handler.
class Fd {
public:
    Fd() = default;
    /// @param fd  owned from here on
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(other.release()) {}
    Fd& operator=(Fd&& other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~Fd() { reset(); }

    /// @return the descriptor, which stays the object's; negative: none
    int get() const { return fd_; }

    /// Gives the descriptor away; the caller closes it.
    int release() { return std::exchange(fd_, -1); }

    /// Closes the descriptor, if there is one, and owns another one.
    void reset(int fd = -1)
    {
        if (fd_ >= 0) (void)::close(fd_); // nothing is left to do for a descriptor that fails to close
        fd_ = fd;
    }

private:
    int fd_ = -1;
};
