#include "framework/bundled/write_at_once.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include "framework/fd.h"
#include "framework/fixed_text.h"

namespace {

/// Keeps this thread from a SIGPIPE and, where it is in the background of its terminal, from a
/// SIGTTOU, while one lives.
class HeldSignals {
public:
    HeldSignals()
    {
        sigset_t held{};
        ::sigemptyset(&held);
        ::sigaddset(&held, SIGPIPE);
        ::sigaddset(&held, SIGTTOU); // while it is blocked, the terminal takes the write
        ::pthread_sigmask(SIG_BLOCK, &held, &before_);
        hadOne_ = isPending();
    }
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;
    ~HeldSignals()
    {
        if (!hadOne_ && isPending()) takeOne();
        ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }

private:
    static bool isPending()
    {
        sigset_t pending{};
        ::sigpending(&pending);
        return ::sigismember(&pending, SIGPIPE) == 1;
    }

    static void takeOne()
    {
        sigset_t pipeSignal{};
        ::sigemptyset(&pipeSignal);
        ::sigaddset(&pipeSignal, SIGPIPE);
        const timespec now{};
        ::sigtimedwait(&pipeSignal, nullptr, &now);
    }

    sigset_t before_{};
    bool hadOne_ = false;
};

/// Asks the kernel for a write that does not wait. For pipes it has one since Linux 6.4.
/// @return false: it has none for this descriptor, and nothing was written
bool writeWithoutWaiting(int fd, std::string_view bytes, ssize_t& written)
{
    const iovec from{const_cast<char*>(bytes.data()), bytes.size()}; // it is only read
    written = ::pwritev2(fd, &from, 1, -1, RWF_NOWAIT);
    return written >= 0 || (errno != EOPNOTSUPP && errno != ENOSYS);
}

/// Opens the same pipe or terminal again, for this process alone, so that its writes need not wait.
/// Anew for each line: what stands behind the descriptor may change at any time, and kept open it
/// would keep a pipe's reader from its end.
/// @return none: not possible, because it is another user's, or there is no descriptor to spare
Fd openedAgain(int fd)
{
    FixedText<40> path;
    path << "/proc/self/fd/" << fd;
    const int flags = ::fcntl(fd, F_GETFL);
    Fd own(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (own.get() >= 0 && (flags & O_DIRECT) != 0)
        ::fcntl(own.get(), F_SETFL, O_NONBLOCK | O_DIRECT); // pipe2(2): one packet a write
    return own;
}

/// Looks for room, then writes. The last resort, because it may wait after all: when somebody else
/// has taken the room between the two calls.
ssize_t writeIfRoom(int fd, std::string_view bytes)
{
    pollfd room{fd, POLLOUT, 0};
    if (::poll(&room, 1, 0) != 1 || room.revents != POLLOUT) return -1;
    return ::write(fd, bytes.data(), bytes.size());
}

ssize_t writeToPipeOrTerminal(int fd, std::string_view bytes)
{
    const HeldSignals held;
    ssize_t written = 0;
    if (writeWithoutWaiting(fd, bytes, written)) return written;
    const Fd own = openedAgain(fd);
    if (own.get() >= 0) return ::write(own.get(), bytes.data(), bytes.size());
    return errno == ENXIO ? -1 : writeIfRoom(fd, bytes); // ENXIO: a pipe that nobody reads any more
}

/// A file interrupts nobody (signal(7)), but what stands behind it may be a program (FUSE): nobody
/// waits for that one either.
ssize_t writeToFile(int fd, std::string_view bytes)
{
    constexpr int tries = 3;
    ssize_t written = -1;
    for (int i = 0; i < tries && written < 0; ++i) {
        written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) break;
    }
    return written;
}

} // namespace

std::size_t writeAtOnce(int fd, std::string_view bytes)
{
    struct stat found {};
    ssize_t written = -1;
    if (::fstat(fd, &found) == 0) {
        if (S_ISSOCK(found.st_mode))
            written = ::send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        else if (S_ISFIFO(found.st_mode) || S_ISCHR(found.st_mode))
            written = writeToPipeOrTerminal(fd, bytes);
        else
            written = writeToFile(fd, bytes);
    }
    return written > 0 ? static_cast<std::size_t>(written) : 0;
}
