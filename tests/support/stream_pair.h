#pragma once

#include <cstdlib>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

/// Two ends of a stream between a client, which is the test, and a connection. Both are
/// non-blocking.
class StreamPair {
public:
    StreamPair()
    {
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
        client_ = ends[0];
        server_ = ends[1];
    }
    StreamPair(const StreamPair&) = delete;
    StreamPair& operator=(const StreamPair&) = delete;
    ~StreamPair()
    {
        closeClient();
        if (server_ >= 0) ::close(server_);
    }

    /// Gives the connection's end away.
    int releaseServer()
    {
        const int fd = server_;
        server_ = -1;
        return fd;
    }

    int client() const { return client_; }
    int server() const { return server_; }

    /// @return false when not all of it could be sent
    bool send(std::string_view bytes) const
    {
        return ::send(client_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }

    /// Sends one urgent byte, '!'.
    /// @return false where the kernel has none for such streams (unix(7))
    bool sendUrgent() const { return ::send(client_, "!", 1, MSG_OOB | MSG_NOSIGNAL) == 1; }

    /// Everything that has arrived at the client.
    std::string received() const
    {
        std::string all;
        char part[4096];
        for (ssize_t n; (n = ::recv(client_, part, sizeof part, MSG_DONTWAIT)) > 0;)
            all.append(part, static_cast<std::size_t>(n));
        return all;
    }

    /// @return true when the connection has closed its end and everything before that has been
    ///         received
    bool closedByServer() const
    {
        char byte;
        return ::recv(client_, &byte, 1, MSG_DONTWAIT) == 0;
    }

    void closeClient()
    {
        if (client_ >= 0) ::close(client_);
        client_ = -1;
    }

private:
    int client_ = -1;
    int server_ = -1;
};

/// @return true when the service loop would be woken by that descriptor
inline bool hasInput(int fd)
{
    pollfd input{fd, POLLIN, 0};
    return ::poll(&input, 1, 0) == 1;
}
