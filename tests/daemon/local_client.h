#pragma once

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "framework/fixed_text.h"
#include "tests/support/waiting.h"

/// A client of a local socket.
class LocalClient {
public:
    explicit LocalClient(const char* path) : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un name{};
        name.sun_family = AF_UNIX;
        putText(name.sun_path, path);
        if (::connect(fd_, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0) std::abort();
    }
    LocalClient(const LocalClient&) = delete;
    LocalClient& operator=(const LocalClient&) = delete;
    ~LocalClient() { ::close(fd_); }

    bool send(std::string_view text) const
    {
        return ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
    }
    /// Waits until that much has come, or the other side has closed.
    std::string receive(std::size_t bytes) const
    {
        const timeval deadline{DEADLINE.count(), 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline);
        std::string all;
        char part[4096];
        while (all.size() < bytes) {
            const ssize_t n = ::recv(fd_, part, std::min(sizeof part, bytes - all.size()), 0);
            if (n <= 0) break;
            all.append(part, static_cast<std::size_t>(n));
        }
        return all;
    }

private:
    int fd_;
};
