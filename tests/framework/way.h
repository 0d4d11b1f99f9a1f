#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include "tests/support/waiting.h"

/// Two descriptors: what is written to the one can be read from the other.
class Way {
public:
    enum Kind { PIPE, PACKET_PIPE, STREAM, TERMINAL };

    explicit Way(Kind kind) : kind_(kind)
    {
        int ends[2];
        if (!open(ends)) throw std::runtime_error("there is no such way");
        far_ = ends[0];
        near_ = ends[1];
        ::fcntl(far_, F_SETFL, O_NONBLOCK);
    }
    Way(const Way&) = delete;
    Way& operator=(const Way&) = delete;
    ~Way()
    {
        closeFar();
        ::close(near_);
    }

    int fd() const { return near_; }

    /// Leaves no room: fills it, or halts the terminal.
    void fill() const
    {
        if (kind_ == TERMINAL) {
            ::tcflow(near_, TCOOFF);
            return;
        }
        const int flags = ::fcntl(near_, F_GETFL);
        ::fcntl(near_, F_SETFL, flags | O_NONBLOCK);
        const std::string piece(4096, '.');
        std::size_t bytes = piece.size();
        while (bytes > 0)
            if (::write(near_, piece.data(), bytes) < 0) bytes /= 2;
        ::fcntl(near_, F_SETFL, flags);
    }

    /// Lets the terminal go on, and reads everything that has come.
    /// @param end  waits until that has come
    std::string receive(std::string_view end = "") const
    {
        if (kind_ == TERMINAL) ::tcflow(near_, TCOON);
        std::string all;
        waitUntil([&] {
            char part[4096];
            for (ssize_t n; (n = ::read(far_, part, sizeof part)) > 0;)
                all.append(part, static_cast<std::size_t>(n));
            return all.ends_with(end);
        });
        return all;
    }

    /// What one read gives: a packet, where there are such.
    std::string receiveOne() const
    {
        char part[4096];
        const ssize_t n = ::read(far_, part, sizeof part);
        return n > 0 ? std::string(part, static_cast<std::size_t>(n)) : "<nothing there>";
    }

    void closeFar()
    {
        if (far_ >= 0) ::close(far_);
        far_ = -1;
    }

private:
    bool open(int (&ends)[2]) const
    {
        switch (kind_) {
        case PIPE:
            return ::pipe2(ends, O_CLOEXEC) == 0;
        case PACKET_PIPE:
            return ::pipe2(ends, O_CLOEXEC | O_DIRECT) == 0;
        case STREAM:
            return ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0;
        case TERMINAL:
            break;
        }
        termios plain{};
        plain.c_cflag = CS8 | CREAD;
        return ::openpty(&ends[0], &ends[1], nullptr, &plain, nullptr) == 0;
    }

    Kind kind_;
    int far_ = -1;
    int near_ = -1;
};
