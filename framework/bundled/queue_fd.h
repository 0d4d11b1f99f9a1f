#pragma once

#include <unistd.h>
#include <utility>

/// Owns a descriptor, or none (negative), and closes it at the end of its life.
class TQueueFd {
public:
    explicit TQueueFd(int fd) : fd_(fd) {}
    TQueueFd(const TQueueFd&) = delete;
    TQueueFd& operator=(const TQueueFd&) = delete;
    ~TQueueFd()
    {
        if (fd_ >= 0) ::close(fd_);
    }

    int get() const { return fd_; }
    /// Gives the descriptor away; the caller closes it.
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};
