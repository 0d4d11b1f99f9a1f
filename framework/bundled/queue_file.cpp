#include "framework/bundled/queue_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>

#include "framework/bundled/queue_failure.h"
#include "framework/fd.h"
#include "framework/hr_time_out.h"
#include "framework/sleep.h"

namespace {

constexpr mode_t SOCKET_MODE = 0660;
constexpr int LOCK_PATIENCE_S = 2;
constexpr int LOCK_TRY_MS = 10;

/// @param error  as lockDirectory() leaves it
[[noreturn]] void failLock(long address, const std::string& path, int error)
{
    std::string why = std::strerror(error);
    if (error == EWOULDBLOCK)
        why += ": another process has kept the directory locked for " + std::to_string(LOCK_PATIENCE_S) + " seconds";
    failToOpenQueue(address, path, why);
}

/// Locks the queue directory (flock(2)) against others that open or close a queue in it. Those take
/// no time; should somebody keep the lock, it gives up after LOCK_PATIENCE_S seconds.
/// @return no descriptor, with errno set, when it cannot be locked
Fd lockDirectory(const QueueDirectory& directory)
{
    Fd fd(::open(directory.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.get() < 0) return fd;
    timeval patience{};
    patience.tv_sec = LOCK_PATIENCE_S;
    const TOrbHRTimeOut end(patience);
    while (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        if ((errno != EWOULDBLOCK && errno != EINTR) || end.hasTimedOut()) return Fd();
        Sleep(LOCK_TRY_MS);
    }
    return fd;
}

/// Removes the socket file that a dead process has left; leaves everything else alone. Called with
/// the directory locked.
/// @throws std::runtime_error  the address is in use, or its path is something else than a queue
void removeStaleFile(long address, const std::string& path, const sockaddr_un& name)
{
    struct stat found {};
    if (::lstat(path.c_str(), &found) != 0) {
        if (errno == ENOENT) return;
        failToOpenQueue(address, path, std::strerror(errno));
    }
    if (!S_ISSOCK(found.st_mode)) failToOpenQueue(address, path, "is not a socket");
    const Fd probe(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (probe.get() < 0) failToOpenQueue(address, path, std::strerror(errno));
    if (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0) failQueueInUse(address);
    // EPROTOTYPE: a live socket of another kind. EPERM: a live one that talks to one peer only.
    if (errno == EPROTOTYPE || errno == EPERM) failQueueInUse(address);
    if (errno != ECONNREFUSED) failToOpenQueue(address, path, std::strerror(errno));
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) failToOpenQueue(address, path, std::strerror(errno));
}

/// Binds a socket to a path where nothing is any more. Called with the directory locked.
void bindToFile(int socket, long address, const std::string& path, const sockaddr_un& name)
{
    // The file's mode is the descriptor's less the umask: never wider than wanted, not even for a
    // moment.
    if (::fchmod(socket, SOCKET_MODE) != 0) failToOpenQueue(address, path, std::strerror(errno));
    if (::bind(socket, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0) {
        if (errno == EADDRINUSE) failQueueInUse(address); // somebody bound it without asking for the lock
        failToOpenQueue(address, path, std::strerror(errno));
    }
}

} // namespace

QueueFile QueueFile::bind(int socket, long address, const QueueDirectory& in)
{
    const std::string path = in.socketPath(address);
    sockaddr_un name{};
    if (!in.socketAddress(address, name)) failToOpenQueue(address, path, "path too long for a socket address");
    in.create();
    const Fd lock = lockDirectory(in);
    if (lock.get() < 0) failLock(address, in.path(), errno);
    removeStaleFile(address, path, name);
    bindToFile(socket, address, path, name);
    struct stat made {};
    if (::chmod(path.c_str(), SOCKET_MODE) != 0 || ::lstat(path.c_str(), &made) != 0) {
        const int error = errno;
        ::unlink(path.c_str());
        failToOpenQueue(address, path, std::strerror(error));
    }
    return {address, made.st_dev, made.st_ino};
}

void QueueFile::remove(const QueueDirectory& in) const
{
    const std::string path = in.socketPath(address_);
    const Fd lock = lockDirectory(in);
    struct stat found {};
    if (lock.get() < 0 || ::lstat(path.c_str(), &found) != 0) return;
    if (found.st_dev == device_ && found.st_ino == inode_) ::unlink(path.c_str());
}
