#include "framework/bundled/syslog_socket.h"

#include <sys/socket.h>
#include <sys/un.h>

#include "framework/fixed_text.h"

constinit const char* SyslogSocket::path = "/dev/log";

void SyslogSocket::open()
{
    if (fd_.load() < 0) fd_.store(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

bool SyslogSocket::send(std::string_view message) const
{
    const int fd = fd_.load();
    if (fd < 0) return false;
    sockaddr_un to{};
    to.sun_family = AF_UNIX;
    putText(to.sun_path, path);
    return ::sendto(fd, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                    reinterpret_cast<const sockaddr*>(&to), sizeof to) >= 0;
}
