#pragma once

#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

/// Another standard error, for as long as it lives.
class StandardError {
public:
    explicit StandardError(int fd) : saved_(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3))
    {
        if (saved_ < 0 || ::dup2(fd, STDERR_FILENO) < 0) std::abort();
    }
    StandardError(const StandardError&) = delete;
    StandardError& operator=(const StandardError&) = delete;
    ~StandardError()
    {
        ::dup2(saved_, STDERR_FILENO);
        ::close(saved_);
    }

private:
    int saved_;
};
