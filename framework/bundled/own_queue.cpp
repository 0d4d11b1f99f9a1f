#include "framework/bundled/own_queue.h"

#include "framework/bundled/log_messages.h"
#include "framework/fd.h"
#include "framework/fixed_text.h"
#include "framework/hr_time_out.h"
#include "framework/sleep.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <type_traits>
#include <unistd.h>

constinit TOwnQueue ownQueue;

namespace {

static_assert(std::is_trivially_destructible_v<TOwnQueue>);

constexpr mode_t SOCKET_MODE = 0660;
constexpr int LOCK_PATIENCE_S = 2;
constexpr int LOCK_TRY_MS = 10;

/// What a socket has sent and nobody has taken counts against its send buffer: 32 full queues of full-size records take
/// about 5.5 MiB (measured). The kernel doubles the figure.
constexpr int SEND_BUFFER_BYTES = 6 * 1024 * 1024;

/// How many records one drain() takes, so that a sender that never stops cannot hold its caller. Chosen, not measured.
constexpr int DRAIN_AT_ONCE = 64;

[[noreturn]] void fail(long address, const std::string& what, const std::string& why)
{
    throw std::runtime_error("queue address " + std::to_string(address) + ": " + what + ": " + why);
}

[[noreturn]] void failInUse(long address)
{
    throw std::runtime_error("queue address " + std::to_string(address) + " is in use");
}

/// @param error  as lockDirectory() leaves it
[[noreturn]] void failLock(long address, const std::string& path, int error)
{
    std::string why = std::strerror(error);
    if (error == EWOULDBLOCK)
        why += ": another process has kept the directory locked for " + std::to_string(LOCK_PATIENCE_S) + " seconds";
    fail(address, path, why);
}

/// @return none when it cannot be made
Fd newSocket()
{
    Fd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) return fd;
    timeval oneSecond{};
    oneSecond.tv_sec = 1;
    // With a time-out set, a signal ends the wait even if its handler was installed with SA_RESTART (signal(7)). Without one
    // nothing but a record would end it.
    if (::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &oneSecond, sizeof oneSecond) != 0) return Fd();
    const int bytes = SEND_BUFFER_BYTES;
    if (::setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof bytes) != 0)
        ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes); // cut to net.core.wmem_max
    return fd;
}

/// Puts another socket behind a descriptor that other threads may be using; they find either the old one or the new one.
/// Called directly: the thread sanitizer takes the library's dup3() for a race with a send() on the same number.
bool replaceSocket(int descriptor, int by)
{
    return ::syscall(SYS_dup3, by, descriptor, O_CLOEXEC) >= 0;
}

/// Holds the queue directory locked (flock(2)), against others that open or close a queue in it. They are done at once;
/// whoever keeps the lock all the same holds nobody up for long.
/// @return none, with errno set, when that is not possible
Fd lockDirectory(const TQueueDirectory& directory)
{
    Fd fd(::open(directory.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.get() < 0) return fd;
    timeval patience{};
    patience.tv_sec = LOCK_PATIENCE_S;
    const TOrbHRTimeOut end(patience);
    while (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK || end.hasTimedOut()) return Fd();
        Sleep(LOCK_TRY_MS);
    }
    return fd;
}

/// Removes the socket file that a dead process has left; leaves everything else alone. Called with the directory locked.
/// @throws std::runtime_error  the address is in use, or its path is something else than a queue
void removeStaleFile(long address, const std::string& path, const sockaddr_un& name)
{
    struct stat found {};
    if (::lstat(path.c_str(), &found) != 0) {
        if (errno == ENOENT) return;
        fail(address, path, std::strerror(errno));
    }
    if (!S_ISSOCK(found.st_mode)) fail(address, path, "is not a socket");
    const Fd probe(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (probe.get() < 0) fail(address, path, std::strerror(errno));
    if (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0) failInUse(address);
    // EPROTOTYPE: a live socket of another kind. EPERM: a live one that talks to one peer only.
    if (errno == EPROTOTYPE || errno == EPERM) failInUse(address);
    if (errno != ECONNREFUSED) fail(address, path, std::strerror(errno));
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) fail(address, path, std::strerror(errno));
}

} // namespace

void TOwnQueue::useEnvironment()
{
    directory_.store(&TQueueDirectory::fromEnvironment());
}

const TQueueDirectory& TOwnQueue::directory()
{
    if (directory_.load() == nullptr) useEnvironment();
    return *directory_.load();
}

int TOwnQueue::socket()
{
    const int present = socket_.load();
    if (present >= 0) return present;
    Fd fresh = newSocket();
    int expected = -1;
    if (fresh.get() < 0 || !socket_.compare_exchange_strong(expected, fresh.get())) return expected;
    return fresh.release();
}

void TOwnQueue::open(long address)
{
    const std::scoped_lock lock(openLock_);
    try {
        openLocked(address);
    } catch (const std::runtime_error& error) {
        logMgr.log(LOG_QUEUE_NOT_OPENED, error.what());
        throw;
    }
}

void TOwnQueue::openLocked(long address)
{
    if (address < 1 || address > TQueueDirectory::HIGHEST_ADDRESS)
        throw std::runtime_error("queue address " + std::to_string(address) + " is not between 1 and " +
                                 std::to_string(TQueueDirectory::HIGHEST_ADDRESS));
    if (isOpen()) {
        if (address == address_) failInUse(address);
        throw std::runtime_error("queue address " + std::to_string(address) + ": this process already holds " +
                                 std::to_string(address_));
    }
    const TQueueDirectory& in = TQueueDirectory::fromEnvironment();
    const int descriptor = socket();
    const Fd bound = newSocket();
    if (descriptor < 0 || bound.get() < 0) fail(address, "socket", std::strerror(errno));
    file_ = bindSocket(bound.get(), address, in);
    address_ = address;
    owner_.store(::getpid());
    inherited_.store(false);
    directory_.store(&in);
    if (!replaceSocket(descriptor, bound.get())) {
        const int error = errno;
        removeFile();
        fail(address, "socket", std::strerror(error));
    }
    open_.store(true);
}

/// @return the identity of the socket file, which has its final mode
TOwnQueue::FileId TOwnQueue::bindSocket(int fd, long address, const TQueueDirectory& in)
{
    const std::string path = in.socketPath(address);
    sockaddr_un name{};
    if (!in.socketAddress(address, name)) fail(address, path, "path too long for a socket address");
    in.create();
    const Fd lock = lockDirectory(in);
    if (lock.get() < 0) failLock(address, in.path(), errno);
    removeStaleFile(address, path, name);
    // The file's mode is the descriptor's less the umask: never wider than wanted, not even for a moment.
    if (::fchmod(fd, SOCKET_MODE) != 0) fail(address, path, std::strerror(errno));
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0) {
        if (errno == EADDRINUSE) failInUse(address); // somebody bound it without asking for the lock
        fail(address, path, std::strerror(errno));
    }
    struct stat made {};
    if (::chmod(path.c_str(), SOCKET_MODE) != 0 || ::lstat(path.c_str(), &made) != 0) {
        const int error = errno;
        ::unlink(path.c_str());
        fail(address, path, std::strerror(error));
    }
    return {made.st_dev, made.st_ino};
}

/// Removes the socket file, if the one at the path is still this queue's.
void TOwnQueue::removeFile()
{
    const TQueueDirectory& in = directory();
    const std::string path = in.socketPath(address_);
    const Fd lock = lockDirectory(in);
    struct stat found {};
    if (lock.get() < 0 || ::lstat(path.c_str(), &found) != 0) return;
    if (found.st_dev == file_.device && found.st_ino == file_.inode) ::unlink(path.c_str());
}

void TOwnQueue::close()
{
    if (::getpid() != owner_.load()) return forget();
    const std::scoped_lock lock(openLock_);
    if (!isOpen()) return;
    removeFile();
    open_.store(false);
    const std::scoped_lock receiving(receiveLock_);
    const Fd unbound = newSocket();
    // Without a descriptor to spare the old socket stays, but nothing goes through it any more.
    if (unbound.get() < 0 || !replaceSocket(socket_.load(), unbound.get())) ::shutdown(socket_.load(), SHUT_RDWR);
    backlog_.clear();
}

/// Closes the queue of another process, this one's parent, for this process alone. Waits for no lock: a thread that is not
/// in this process may hold it.
void TOwnQueue::forget()
{
    if (!open_.exchange(false)) return;
    const Fd unbound = newSocket();
    if (unbound.get() < 0 || !replaceSocket(socket_.load(), unbound.get())) Fd(socket_.exchange(-1)).reset();
}

void TOwnQueue::startInForkedChild()
{
    {
        const std::unique_lock lock(receiveLock_, std::try_to_lock);
        if (lock.owns_lock()) backlog_.clear();
    }
    // The one thread here was in no section that they guard. What another one was changing there may be half done.
    std::construct_at(&openLock_);
    std::construct_at(&receiveLock_);
    std::construct_at(&backlog_);
    inherited_.store(isOpen());
}

long TOwnQueue::receive(TOrbAttachmentMsg* msg, bool wait)
{
    const std::scoped_lock lock(receiveLock_);
    if (!isOpen()) {
        errno = EBADF;
        return -1;
    }
    if (inherited_.load()) inherited_.store(false);
    const std::size_t kept = backlog_.take(msg);
    if (kept == 0) return takeFromSocket(msg, wait ? 0 : MSG_DONTWAIT);
    std::memset(reinterpret_cast<char*>(msg) + kept, 0, MSG_RECORD_BYTES - kept);
    return static_cast<long>(kept);
}

TOwnQueue::Drained TOwnQueue::drain()
{
    const std::unique_lock lock(receiveLock_, std::try_to_lock);
    if (!lock.owns_lock()) return Drained::busy;
    if (!isOpen()) return Drained::nothing;
    if (inherited_.load()) return Drained::busy;
    Drained found = Drained::nothing;
    for (int i = 0; i < DRAIN_AT_ONCE; ++i) {
        TOrbAttachmentMsg* const room = backlog_.reserve();
        if (room == nullptr) return found == Drained::records ? found : Drained::full;
        const long length = takeFromSocket(room, MSG_DONTWAIT);
        if (length <= 0) break;
        backlog_.keep(static_cast<std::size_t>(length));
        found = Drained::records;
    }
    return found;
}

/// @return bytes of the record, which is zero behind them; 0: none came, or what came was no record; -1 on an error
long TOwnQueue::takeFromSocket(TOrbAttachmentMsg* msg, int flags)
{
    sockaddr_un from{};
    iovec into{msg, MSG_RECORD_BYTES};
    msghdr header{}; // no control buffer: descriptors sent along are closed by the kernel
    header.msg_name = &from;
    header.msg_namelen = sizeof from;
    header.msg_iov = &into;
    header.msg_iovlen = 1;
    const ssize_t received = ::recvmsg(socket_.load(), &header, flags | MSG_TRUNC); // MSG_TRUNC: its real length
    if (received < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? 0 : -1;
    const auto length = static_cast<std::size_t>(received);
    if (length < MSG_HEADER_BYTES || length > MSG_RECORD_BYTES) {
        std::memset(static_cast<void*>(msg), 0, MSG_RECORD_BYTES);
        FixedText<128> text;
        text << "dropped a datagram of " << length << " bytes: a record has " << MSG_HEADER_BYTES << " to "
             << MSG_RECORD_BYTES;
        logMgr.log(LOG_DATAGRAM_DROPPED, text.c_str());
        return 0;
    }
    std::memset(reinterpret_cast<char*>(msg) + length, 0, MSG_RECORD_BYTES - length);
    msg->sender = static_cast<std::int32_t>(directory().queueOf(from, header.msg_namelen));
    return static_cast<long>(length);
}
