#pragma once

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/// A bare Unix datagram socket: a peer that knows the wire and nothing else. It leaves its file
/// behind.
class RawSocket {
public:
    RawSocket() : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
    /// Bound to a path, or to an abstract name when `name` begins with a NUL.
    explicit RawSocket(const std::string& name) : RawSocket()
    {
        socklen_t length = 0;
        const sockaddr_un at = address(name, length);
        if (::bind(fd_, reinterpret_cast<const sockaddr*>(&at), length) != 0)
            throw std::runtime_error("bind " + name + ": " + std::strerror(errno));
    }
    RawSocket(const RawSocket&) = delete;
    RawSocket& operator=(const RawSocket&) = delete;
    ~RawSocket() { ::close(fd_); }

    int fd() const { return fd_; }

    /// @return false when it could not be sent at once
    bool sendTo(const std::string& name, const void* bytes, std::size_t count) const
    {
        socklen_t length = 0;
        const sockaddr_un to = address(name, length);
        return ::sendto(fd_, bytes, count, MSG_NOSIGNAL | MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&to),
                        length) == static_cast<ssize_t>(count);
    }

    bool connectTo(const std::string& name) const
    {
        socklen_t length = 0;
        const sockaddr_un to = address(name, length);
        return ::connect(fd_, reinterpret_cast<const sockaddr*>(&to), length) == 0;
    }

    /// The next datagram; waits for it for up to ten seconds.
    std::string receive() const
    {
        pollfd waitFor{};
        waitFor.fd = fd_;
        waitFor.events = POLLIN;
        if (::poll(&waitFor, 1, 10'000) != 1) return "<nothing came>";
        return receiveNow();
    }

    std::string receiveNow() const
    {
        char bytes[16384];
        const ssize_t n = ::recv(fd_, bytes, sizeof bytes, MSG_DONTWAIT);
        return n < 0 ? "<nothing there>" : std::string(bytes, static_cast<std::size_t>(n));
    }

private:
    static sockaddr_un address(const std::string& name, socklen_t& length)
    {
        sockaddr_un result{};
        result.sun_family = AF_UNIX;
        if (name.size() > sizeof result.sun_path) throw std::runtime_error("name too long");
        std::memcpy(result.sun_path, name.data(), name.size());
        length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        return result;
    }

    int fd_;
};
