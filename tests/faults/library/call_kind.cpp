#include "call_kind.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include "next_call.h"

namespace {

class ErrnoKept {
public:
    ErrnoKept() : kept_(errno) {}
    ErrnoKept(const ErrnoKept&) = delete;
    ErrnoKept& operator=(const ErrnoKept&) = delete;
    ~ErrnoKept() { errno = kept_; }

private:
    int kept_;
};

const char* kindOfSocket(int fd)
{
    sockaddr_storage name{};
    socklen_t size = sizeof name;
    int type = 0;
    socklen_t typeSize = sizeof type;
    if (rawCall(SYS_getsockname, fd, asWord(&name), asWord(&size)) != 0) return "other";
    (void)rawCall(SYS_getsockopt, fd, SOL_SOCKET, SO_TYPE, asWord(&type), asWord(&typeSize));
    if (name.ss_family == AF_INET) return "telnet";
    const bool hasName = size > sizeof(sa_family_t);
    if (type == SOCK_DGRAM) return hasName ? "queue" : "room";
    return hasName ? kindOfAddress(reinterpret_cast<const sockaddr*>(&name)) : "local";
}

const char* kindByLink(int fd)
{
    char path[32] = "/proc/self/fd/";
    char target[64]{};
    (void)std::to_chars(path + std::strlen(path), path + sizeof path - 1, fd);
    if (rawCall(SYS_readlinkat, AT_FDCWD, asWord(path), asWord(target), sizeof target - 1) < 0) return "other";
    return std::strstr(target, "eventfd") != nullptr ? "wake" : "other";
}

} // namespace

const char* kindOfDescriptor(int fd)
{
    const ErrnoKept kept;
    if (fd == STDERR_FILENO) return "log";
    struct stat found {};
    if (::fstatat(fd, "", &found, AT_EMPTY_PATH) != 0) return "other";
    if (S_ISSOCK(found.st_mode)) return kindOfSocket(fd);
    if (S_ISDIR(found.st_mode)) return "directory";
    if (S_ISCHR(found.st_mode) && fd > STDERR_FILENO) return "com2";
    return kindByLink(fd);
}

const char* kindOfPath(const char* path)
{
    if (std::strcmp(path, "/tmp/socket") == 0) return "ipc";
    if (std::strcmp(path, "/tmp/xcp") == 0) return "xcp";
    if (std::strcmp(path, "/dev/ttyS1") == 0) return "com2";
    if (std::strncmp(path, "/proc/self/fd/", 14) == 0) return "log";
    return std::strstr(path, "/queue") != nullptr ? "queue" : "other";
}

const char* kindOfAddress(const sockaddr* address)
{
    if (address->sa_family == AF_INET) return "telnet";
    if (address->sa_family != AF_UNIX) return "other";
    return kindOfPath(reinterpret_cast<const sockaddr_un*>(address)->sun_path);
}

const char* kindOfFamily(int family, int type)
{
    if (family == AF_INET) return "telnet";
    return (type & 0xF) == SOCK_DGRAM ? "queue" : "local";
}

const char* kindOfWait(const timeval* longest)
{
    return longest != nullptr && longest->tv_sec == 0 && longest->tv_usec == 0 ? "look" : "wait";
}
