#pragma once

#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

/// Another standard error, for as long as it lives.
class TStandardError {
public:
    explicit TStandardError(int fd) : saved_(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3))
    {
        if (saved_ < 0 || ::dup2(fd, STDERR_FILENO) < 0) std::abort();
    }
    TStandardError(const TStandardError&) = delete;
    TStandardError& operator=(const TStandardError&) = delete;
    ~TStandardError()
    {
        ::dup2(saved_, STDERR_FILENO);
        ::close(saved_);
    }

private:
    int saved_;
};
