#pragma once

#include <cstdlib>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/waiting.h"

/// The client's end of a TCP connection; what it does is what a telnet client does.
class TcpClient {
public:
    explicit TcpClient(int fd) : fd_(fd)
    {
        const int on = 1; // every send is a segment of its own
        ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    TcpClient(const TcpClient&) = delete;
    TcpClient& operator=(const TcpClient&) = delete;
    ~TcpClient() { close(); }

    /// Connects to a port of the loopback interface.
    /// @return the descriptor, -1 when nobody listens
    static int connectTo(std::uint16_t port)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
        ::close(fd);
        return -1;
    }

    int fd() const { return fd_; }

    /// @return false when not all of it could be sent
    bool send(std::string_view bytes, int flags = 0) const
    {
        return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | flags) == static_cast<ssize_t>(bytes.size());
    }

    /// Everything that has arrived.
    std::string received() const
    {
        std::string all;
        char part[4096];
        for (ssize_t n; (n = ::recv(fd_, part, sizeof part, MSG_DONTWAIT)) > 0;)
            all.append(part, static_cast<std::size_t>(n));
        return all;
    }

    /// Waits until that much has arrived, or the server has closed.
    std::string receive(std::size_t bytes) const
    {
        std::string all;
        waitUntil([&] {
            char part[4096];
            const ssize_t n = ::recv(fd_, part, std::min(sizeof part, bytes - all.size()), MSG_DONTWAIT);
            if (n > 0) all.append(part, static_cast<std::size_t>(n));
            return n == 0 || all.size() >= bytes;
        });
        return all;
    }

    /// Waits until the server has closed.
    /// @return everything before that; "(not closed)" in its place when it does not close
    std::string receiveToEnd() const
    {
        std::string all;
        const bool closed = waitUntil([&] {
            char part[4096];
            const ssize_t n = ::recv(fd_, part, sizeof part, MSG_DONTWAIT);
            if (n > 0) all.append(part, static_cast<std::size_t>(n));
            return n == 0 || (n < 0 && errno != EAGAIN);
        });
        return closed ? all : "(not closed)";
    }

    /// Says that nothing more comes.
    void shutDown() const { ::shutdown(fd_, SHUT_WR); }

    void close()
    {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

    /// Ends the connection with a reset.
    void reset()
    {
        const linger now{1, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
        close();
    }

private:
    int fd_;
};

/// A TCP connection over the loopback interface, between a client, which is the test, and a
/// connection.
class TcpPair {
public:
    TcpPair() : client(open(server_)) {}
    TcpPair(const TcpPair&) = delete;
    TcpPair& operator=(const TcpPair&) = delete;
    ~TcpPair()
    {
        if (server_ >= 0) ::close(server_);
    }

    /// Gives the connection's end, which is non-blocking, away.
    int releaseServer()
    {
        const int fd = server_;
        server_ = -1;
        return fd;
    }

private:
    static int open(int& server)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener, 1) != 0 || ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
            std::abort();
        const int client = TcpClient::connectTo(ntohs(address.sin_port));
        server = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        ::close(listener);
        if (client < 0 || server < 0) std::abort();
        return client;
    }

    int server_ = -1;

public:
    TcpClient client;
};

/// Waits until that many bytes (or more) wait in a socket: loopback is quick, not immediate.
inline bool hasArrived(int fd, std::size_t bytes)
{
    return waitUntil([=] {
        std::string seen(bytes, '\0');
        return ::recv(fd, seen.data(), seen.size(), MSG_PEEK | MSG_DONTWAIT) >= static_cast<ssize_t>(bytes);
    });
}
