#include "framework/bundled/own_queue.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <type_traits>
#include <unistd.h>

#include "framework/bundled/log_messages.h"
#include "framework/bundled/queue_failure.h"
#include "framework/fd.h"
#include "framework/tess_messages.h"

constinit OwnQueue ownQueue;

namespace {

static_assert(std::is_trivially_destructible_v<OwnQueue>);

/// What a socket has sent and nobody has taken counts against its send buffer: 32 full queues of
/// full-size records take about 5.5 MiB (measured). The kernel doubles the figure.
constexpr int SEND_BUFFER_BYTES = 6 * 1024 * 1024;

/// How many records one drain() takes, so that a sender that never stops cannot hold its caller.
/// Chosen, not measured.
constexpr int DRAIN_AT_ONCE = 64;

/// @return none when it cannot be made
Fd newSocket()
{
    Fd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) return fd;
    timeval oneSecond{};
    oneSecond.tv_sec = 1;
    // With a time-out set, a signal ends the wait even if its handler was installed with SA_RESTART
    // (signal(7)). Without one nothing but a record would end it.
    if (::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &oneSecond, sizeof oneSecond) != 0) return Fd();
    const int bytes = SEND_BUFFER_BYTES;
    if (::setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof bytes) != 0)
        ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes); // cut to net.core.wmem_max
    return fd;
}

/// Puts another socket behind a descriptor that other threads may be using; they find either the
/// old one or the new one. Called directly: the thread sanitizer takes the library's dup3() for a
/// race with a send() on the same number.
bool replaceSocket(int descriptor, int by)
{
    return ::syscall(SYS_dup3, by, descriptor, O_CLOEXEC) >= 0;
}

/// @return true when errno tells of a receive that has found nothing, false when it has failed
bool cameNothing()
{
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

} // namespace

void OwnQueue::useEnvironment()
{
    directory_.store(&QueueDirectory::fromEnvironment());
}

const QueueDirectory& OwnQueue::directory()
{
    if (directory_.load() == nullptr) useEnvironment();
    return *directory_.load();
}

int OwnQueue::socket()
{
    const int present = socket_.load();
    if (present >= 0) return present;
    Fd fresh = newSocket();
    int expected = -1;
    if (fresh.get() < 0 || !socket_.compare_exchange_strong(expected, fresh.get())) return expected;
    return fresh.release();
}

void OwnQueue::open(long address)
{
    const std::scoped_lock lock(openLock_);
    try {
        openLocked(address);
    } catch (const std::runtime_error& error) {
        logMgr.log(framework_log::QUEUE_NOT_OPENED, error.what());
        throw;
    }
}

void OwnQueue::openLocked(long address)
{
    if (address < 1 || address > HIGHEST_QUEUE_ADDRESS)
        throw std::runtime_error("queue address " + std::to_string(address) + " is not between 1 and " +
                                 std::to_string(HIGHEST_QUEUE_ADDRESS));
    if (isOpen()) {
        if (address == file_.address()) failQueueInUse(address);
        throw std::runtime_error("queue address " + std::to_string(address) + ": this process already holds " +
                                 std::to_string(file_.address()));
    }
    const QueueDirectory& in = QueueDirectory::fromEnvironment();
    const int descriptor = socket();
    const Fd bound = newSocket();
    if (descriptor < 0 || bound.get() < 0) failToOpenQueue(address, "socket", std::strerror(errno));
    file_ = QueueFile::bind(bound.get(), address, in);
    owner_.store(::getpid());
    inherited_.store(false);
    directory_.store(&in);
    if (!replaceSocket(descriptor, bound.get())) {
        const int error = errno;
        file_.remove(in);
        failToOpenQueue(address, "socket", std::strerror(error));
    }
    open_.store(true);
}

void OwnQueue::close()
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

/// Without memory the file stays; whoever opens the address next replaces it.
void OwnQueue::removeFile() noexcept
try {
    file_.remove(directory());
} catch (const std::bad_alloc&) {
}

/// Closes the queue of another process, this one's parent, for this process alone. Waits for no
/// lock: a thread that is not in this process may hold it.
void OwnQueue::forget()
{
    if (!open_.exchange(false)) return;
    const Fd unbound = newSocket();
    if (unbound.get() < 0 || !replaceSocket(socket_.load(), unbound.get())) Fd(socket_.exchange(-1)).reset();
}

void OwnQueue::startInForkedChild()
{
    {
        const std::unique_lock lock(receiveLock_, std::try_to_lock);
        if (lock.owns_lock()) backlog_.clear();
    }
    // The forking thread, the only one here, held none of the locks. Another thread of the parent
    // may have, and may have left the backlog half changed: all three are made anew.
    std::construct_at(&openLock_);
    std::construct_at(&receiveLock_);
    std::construct_at(&backlog_);
    inherited_.store(isOpen());
}

/// Needs receiveLock_.
/// @return false, with errno set: the queue is not open
bool OwnQueue::mayReceive()
{
    if (!isOpen()) {
        errno = EBADF;
        return false;
    }
    if (inherited_.load()) inherited_.store(false);
    return true;
}

long OwnQueue::receive(TOrbAttachmentMsg* msg, bool wait)
{
    const std::scoped_lock lock(receiveLock_);
    if (!mayReceive()) return -1;
    const std::size_t kept = backlog_.take(msg);
    if (kept == 0) return takeFromSocket(msg, wait ? 0 : MSG_DONTWAIT);
    std::memset(reinterpret_cast<char*>(msg) + kept, 0, MSG_RECORD_BYTES - kept);
    return static_cast<long>(kept);
}

long OwnQueue::receive(RecordBatch& batch, bool wait)
{
    const std::scoped_lock lock(receiveLock_);
    if (!mayReceive()) return -1;
    const std::size_t kept = backlog_.take(&batch.record(0));
    if (kept == 0) return takeFromSocket(batch, wait ? MSG_WAITFORONE : MSG_DONTWAIT);
    batch.headers()[0].msg_len = static_cast<unsigned>(kept);
    return 1;
}

OwnQueue::Drained OwnQueue::drain()
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

/// @return bytes of the record, which is zero behind them; 0: none came, or what came was no
///         record; -1 on an error
long OwnQueue::takeFromSocket(TOrbAttachmentMsg* msg, int flags)
{
    sockaddr_un from{};
    iovec into{msg, MSG_RECORD_BYTES};
    msghdr header{}; // no control buffer: descriptors sent along are closed by the kernel
    header.msg_name = &from;
    header.msg_namelen = sizeof from;
    header.msg_iov = &into;
    header.msg_iovlen = 1;
    const ssize_t received = ::recvmsg(socket_.load(), &header, flags | MSG_TRUNC); // MSG_TRUNC: its real length
    if (received < 0) return cameNothing() ? 0 : -1;
    const auto length = static_cast<std::size_t>(received);
    if (!isRecord(length)) {
        std::memset(static_cast<void*>(msg), 0, MSG_RECORD_BYTES);
        logMessage(framework_log::datagramDropped, length);
        return 0;
    }
    std::memset(reinterpret_cast<char*>(msg) + length, 0, MSG_RECORD_BYTES - length);
    msg->sender = static_cast<std::int32_t>(directory().queueOf(from, header.msg_namelen));
    return static_cast<long>(length);
}

/// @return how many records; 0: none came; -1 on an error
long OwnQueue::takeFromSocket(RecordBatch& batch, int flags)
{
    const std::span<mmsghdr> headers = batch.headers();
    // MSG_TRUNC: their real lengths
    const int count =
        ::recvmmsg(socket_.load(), headers.data(), static_cast<unsigned>(headers.size()), flags | MSG_TRUNC, nullptr);
    if (count < 0) return cameNothing() ? 0 : -1;
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i)
        batch.record(i).sender =
            static_cast<std::int32_t>(directory().queueOf(batch.origin(i), headers[i].msg_hdr.msg_namelen));
    return count;
}
