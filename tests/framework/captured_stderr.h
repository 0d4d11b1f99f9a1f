#pragma once

#include <cstdio>
#include <stdexcept>
#include <string>
#include <unistd.h>

/// Collects what is written to descriptor 2, until it is destroyed. A sanitizer's report is passed on then.
class TCapturedStderr {
public:
    TCapturedStderr() : file_(std::tmpfile()), saved_(::dup(STDERR_FILENO))
    {
        if (file_ == nullptr || saved_ < 0) throw std::runtime_error("cannot capture standard error");
        ::dup2(::fileno(file_), STDERR_FILENO);
    }
    TCapturedStderr(const TCapturedStderr&) = delete;
    TCapturedStderr& operator=(const TCapturedStderr&) = delete;
    ~TCapturedStderr()
    {
        ::dup2(saved_, STDERR_FILENO);
        ::close(saved_);
        const std::string all = text();
        if (all.find("Sanitizer") != std::string::npos) std::fputs(all.c_str(), stderr);
        std::fclose(file_);
    }

    /// Everything written so far.
    std::string text() const
    {
        std::string all;
        char piece[4096];
        off_t at = 0;
        ssize_t n = 0;
        while ((n = ::pread(::fileno(file_), piece, sizeof piece, at)) > 0) {
            all.append(piece, static_cast<std::size_t>(n));
            at += n;
        }
        return all;
    }

private:
    std::FILE* file_;
    int saved_;
};
