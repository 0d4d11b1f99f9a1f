#include "bench/programs/stream.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int connectTo(const char* path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
    const int error = errno;
    (void)::close(fd); // it was never used
    errno = error;
    return -1;
}

void writeAll(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0) giveUp("send");
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

bool readSome(int fd, std::string& to)
{
    std::array<char, 65536> buffer;
    const ssize_t received = ::recv(fd, buffer.data(), buffer.size(), 0);
    if (received <= 0) return false;
    to.append(buffer.data(), static_cast<std::size_t>(received));
    return true;
}

void giveUp(const std::string& what)
{
    std::perror(what.c_str());
    std::exit(1);
}
