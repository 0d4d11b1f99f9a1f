// A library to be preloaded: stands in front of the calls by which the daemon asks something of the
// system, has them fail as fault_plan.h says, and pauses around them as pauses.h says.
#include <cerrno>
#include <crypt.h>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "call_kind.h"
#include "fault_plan.h"
#include "next_call.h"
#include "pauses.h"

namespace {

constinit NextCall<long (*)(long, ...)> nextSyscall("syscall");

/// How a call tells that it has failed.
enum class Tells { byErrno, byResult, byNull };

template <class Result> Result failure(Tells how, int error)
{
    if constexpr (std::is_pointer_v<Result>) {
        errno = error;
        return nullptr;
    } else {
        if (how == Tells::byResult) return static_cast<Result>(error);
        errno = error;
        return static_cast<Result>(-1);
    }
}

template <class Call> auto withPauses(Call call)
{
    pauseAtRandom();
    const auto result = call();
    pauseAtRandom();
    return result;
}

/// A call that fails before it has done anything.
/// @param kind  gives what it is about, which is asked only where somebody wants to know
template <class Kind, class Call> auto intercepted(const char* name, Kind kind, Call call, Tells how = Tells::byErrno)
{
    return withPauses([&] {
        const Fault fault = faultsAreArmed() ? faultFor(name, kind()) : Fault{};
        using Result = decltype(call());
        return fault.error != 0 ? failure<Result>(how, fault.error) : call();
    });
}

/// A transfer, of which only the first byte may be done.
/// @param call  is given how many bytes are to be transferred at most
template <class Call> ssize_t transferred(const char* name, int fd, std::size_t size, Call call)
{
    return withPauses([&]() -> ssize_t {
        const Fault fault = faultsAreArmed() ? faultFor(name, kindOfDescriptor(fd)) : Fault{};
        if (fault.error != 0) return failure<ssize_t>(Tells::byErrno, fault.error);
        return call(fault.isShort && size > 1 ? 1 : size);
    });
}

constexpr auto nothing = [] { return ""; };

} // namespace

long rawCall(long number, long first, long second, long third, long fourth, long fifth)
{
    return nextSyscall.get()(number, first, second, third, fourth, fifth);
}

bool isTheDaemon()
{
    return std::strcmp(program_invocation_short_name, "tessd") == 0;
}

// NEXT_OF(name) declares what would be called without this library.
#define NEXT_OF(name) static constinit NextCall<decltype(&::name)> next(#name)

extern "C" {

// Descriptors

int socket(int family, int type, int protocol) noexcept
{
    NEXT_OF(socket);
    return intercepted(
        "socket", [&] { return kindOfFamily(family, type); }, [&] { return next.get()(family, type, protocol); });
}

int bind(int fd, const sockaddr* address, socklen_t size) noexcept
{
    NEXT_OF(bind);
    return intercepted(
        "bind", [&] { return kindOfAddress(address); }, [&] { return next.get()(fd, address, size); });
}

int listen(int fd, int backlog) noexcept
{
    NEXT_OF(listen);
    return intercepted(
        "listen", [&] { return kindOfDescriptor(fd); }, [&] { return next.get()(fd, backlog); });
}

int accept4(int fd, sockaddr* address, socklen_t* size, int flags)
{
    NEXT_OF(accept4);
    return intercepted(
        "accept4", [&] { return kindOfDescriptor(fd); }, [&] { return next.get()(fd, address, size, flags); });
}

int connect(int fd, const sockaddr* address, socklen_t size)
{
    NEXT_OF(connect);
    return intercepted(
        "connect", [&] { return kindOfAddress(address); }, [&] { return next.get()(fd, address, size); });
}

int shutdown(int fd, int how) noexcept
{
    NEXT_OF(shutdown);
    return intercepted(
        "shutdown", [&] { return kindOfDescriptor(fd); }, [&] { return next.get()(fd, how); });
}

int setsockopt(int fd, int level, int option, const void* value, socklen_t size) noexcept
{
    NEXT_OF(setsockopt);
    return intercepted(
        "setsockopt", [&] { return kindOfDescriptor(fd); }, [&] { return next.get()(fd, level, option, value, size); });
}

int getsockopt(int fd, int level, int option, void* value, socklen_t* size) noexcept
{
    NEXT_OF(getsockopt);
    return intercepted(
        "getsockopt", [&] { return kindOfDescriptor(fd); }, [&] { return next.get()(fd, level, option, value, size); });
}

int getpeername(int fd, sockaddr* address, socklen_t* size) noexcept
{
    NEXT_OF(getpeername);
    return intercepted(
        "getpeername", [&] { return kindOfDescriptor(fd); }, [&] { return next.get()(fd, address, size); });
}

int eventfd(unsigned count, int flags) noexcept
{
    NEXT_OF(eventfd);
    return intercepted("eventfd", nothing, [&] { return next.get()(count, flags); });
}

int open64(const char* path, int flags, ...)
{
    NEXT_OF(open64);
    std::va_list rest;
    va_start(rest, flags);
    const auto mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : mode_t{0};
    va_end(rest);
    return intercepted(
        "open", [&] { return kindOfPath(path); }, [&] { return next.get()(path, flags, mode); });
}

/// The descriptor is closed all the same, as Linux has it.
int close(int fd)
{
    NEXT_OF(close);
    return withPauses([&] {
        const Fault fault = faultsAreArmed() ? faultFor("close", kindOfDescriptor(fd)) : Fault{};
        const int result = next.get()(fd);
        return fault.error != 0 ? failure<int>(Tells::byErrno, fault.error) : result;
    });
}

int fcntl64(int fd, int command, ...)
{
    NEXT_OF(fcntl64);
    std::va_list rest;
    va_start(rest, command);
    const long argument = va_arg(rest, long);
    va_end(rest);
    return intercepted(
        "fcntl", [&] { return kindOfDescriptor(fd); }, [&] { return next.get()(fd, command, argument); });
}

/// Of all that comes this way, only dup3(2) is meant.
long syscall(long number, ...) noexcept
{
    std::va_list rest;
    va_start(rest, number);
    long arguments[5];
    for (long& argument : arguments)
        argument = va_arg(rest, long);
    va_end(rest);
    const auto call = [&] {
        return nextSyscall.get()(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4]);
    };
    if (number == SYS_dup3) return intercepted("dup3", nothing, call);
    return withPauses(call);
}

// Waiting

int select(int count, fd_set* input, fd_set* output, fd_set* urgent, timeval* longest)
{
    NEXT_OF(select);
    return intercepted(
        "select", [&] { return kindOfWait(longest); },
        [&] { return next.get()(count, input, output, urgent, longest); });
}

int poll(pollfd* wanted, nfds_t count, int longest)
{
    NEXT_OF(poll);
    return intercepted("poll", nothing, [&] { return next.get()(wanted, count, longest); });
}

// Bytes

ssize_t recv(int fd, void* buffer, std::size_t size, int flags)
{
    NEXT_OF(recv);
    return transferred((flags & MSG_PEEK) != 0 ? "recv-peek" : "recv", fd, size,
                       [&](std::size_t most) { return next.get()(fd, buffer, most, flags); });
}

ssize_t recvmsg(int fd, msghdr* message, int flags)
{
    NEXT_OF(recvmsg);
    return intercepted(
        "recvmsg", [&] { return kindOfDescriptor(fd); }, [&] { return next.get()(fd, message, flags); });
}

int recvmmsg(int fd, mmsghdr* messages, unsigned count, int flags, timespec* longest)
{
    NEXT_OF(recvmmsg);
    return intercepted(
        "recvmmsg", [&] { return kindOfDescriptor(fd); },
        [&] { return next.get()(fd, messages, count, flags, longest); });
}

ssize_t read(int fd, void* buffer, std::size_t size)
{
    NEXT_OF(read);
    return transferred("read", fd, size, [&](std::size_t most) { return next.get()(fd, buffer, most); });
}

ssize_t send(int fd, const void* bytes, std::size_t size, int flags)
{
    NEXT_OF(send);
    return transferred("send", fd, size, [&](std::size_t most) { return next.get()(fd, bytes, most, flags); });
}

/// A short one sends a byte of the first piece.
ssize_t sendmsg(int fd, const msghdr* message, int flags)
{
    NEXT_OF(sendmsg);
    return transferred("sendmsg", fd, message->msg_iov->iov_len, [&](std::size_t most) {
        if (most == message->msg_iov->iov_len) return next.get()(fd, message, flags);
        iovec piece{message->msg_iov->iov_base, most};
        msghdr shortened = *message;
        shortened.msg_iov = &piece;
        shortened.msg_iovlen = 1;
        return next.get()(fd, &shortened, flags);
    });
}

/// Datagrams only: there are no short ones.
ssize_t sendto(int fd, const void* bytes, std::size_t size, int flags, const sockaddr* to, socklen_t toSize)
{
    NEXT_OF(sendto);
    return intercepted(
        "sendto", [&] { return to != nullptr ? kindOfAddress(to) : "other"; },
        [&] { return next.get()(fd, bytes, size, flags, to, toSize); });
}

ssize_t write(int fd, const void* bytes, std::size_t size)
{
    NEXT_OF(write);
    return transferred("write", fd, size, [&](std::size_t most) { return next.get()(fd, bytes, most); });
}

/// Of one piece, as the daemon writes it.
ssize_t pwritev64v2(int fd, const iovec* pieces, int count, off64_t offset, int flags)
{
    NEXT_OF(pwritev64v2);
    return transferred("pwritev2", fd, pieces->iov_len, [&](std::size_t most) {
        const iovec first{pieces->iov_base, most};
        return next.get()(fd, count == 1 ? &first : pieces, count, offset, flags);
    });
}

// The serial line

int tcgetattr(int fd, termios* line) noexcept
{
    NEXT_OF(tcgetattr);
    return intercepted("tcgetattr", nothing, [&] { return next.get()(fd, line); });
}

int tcsetattr(int fd, int when, const termios* line) noexcept
{
    NEXT_OF(tcsetattr);
    return intercepted("tcsetattr", nothing, [&] { return next.get()(fd, when, line); });
}

int tcflush(int fd, int what) noexcept
{
    NEXT_OF(tcflush);
    return intercepted("tcflush", nothing, [&] { return next.get()(fd, what); });
}

// Files

int remove(const char* path) noexcept
{
    NEXT_OF(remove);
    return intercepted(
        "remove", [&] { return kindOfPath(path); }, [&] { return next.get()(path); });
}

int unlink(const char* path) noexcept
{
    NEXT_OF(unlink);
    return intercepted(
        "unlink", [&] { return kindOfPath(path); }, [&] { return next.get()(path); });
}

int chmod(const char* path, mode_t mode) noexcept
{
    NEXT_OF(chmod);
    return intercepted("chmod", nothing, [&] { return next.get()(path, mode); });
}

int fchmod(int fd, mode_t mode) noexcept
{
    NEXT_OF(fchmod);
    return intercepted("fchmod", nothing, [&] { return next.get()(fd, mode); });
}

int fchmodat(int folder, const char* path, mode_t mode, int flags) noexcept
{
    NEXT_OF(fchmodat);
    return intercepted("fchmodat", nothing, [&] { return next.get()(folder, path, mode, flags); });
}

int mkdir(const char* path, mode_t mode) noexcept
{
    NEXT_OF(mkdir);
    return intercepted("mkdir", nothing, [&] { return next.get()(path, mode); });
}

int stat64(const char* path, struct stat64* found) noexcept
{
    NEXT_OF(stat64);
    return intercepted("stat", nothing, [&] { return next.get()(path, found); });
}

int lstat64(const char* path, struct stat64* found) noexcept
{
    NEXT_OF(lstat64);
    return intercepted("lstat", nothing, [&] { return next.get()(path, found); });
}

int fstat64(int fd, struct stat64* found) noexcept
{
    NEXT_OF(fstat64);
    return intercepted(
        "fstat", [&] { return kindOfDescriptor(fd); }, [&] { return next.get()(fd, found); });
}

int flock(int fd, int operation) noexcept
{
    NEXT_OF(flock);
    return intercepted("flock", nothing, [&] { return next.get()(fd, operation); });
}

// Processes and threads

pid_t fork() noexcept
{
    NEXT_OF(fork);
    return intercepted("fork", nothing, [&] { return next.get()(); });
}

int posix_spawn(pid_t* child, const char* program, const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const arguments[], char* const environment[])
{
    NEXT_OF(posix_spawn);
    return intercepted(
        "posix_spawn", nothing, [&] { return next.get()(child, program, actions, attributes, arguments, environment); },
        Tells::byResult);
}

pid_t waitpid(pid_t child, int* status, int options)
{
    NEXT_OF(waitpid);
    return intercepted("waitpid", nothing, [&] { return next.get()(child, status, options); });
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*work)(void*), void* argument) noexcept
{
    NEXT_OF(pthread_create);
    return intercepted(
        "pthread_create", nothing, [&] { return next.get()(thread, attributes, work, argument); }, Tells::byResult);
}

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    NEXT_OF(pthread_mutex_lock);
    return withPauses([&] { return next.get()(mutex); });
}

int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept
{
    NEXT_OF(pthread_mutex_trylock);
    return withPauses([&] { return next.get()(mutex); });
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept
{
    NEXT_OF(pthread_mutex_unlock);
    return withPauses([&] { return next.get()(mutex); });
}

// What else there is to ask for

/// Fails without having written the time, as the kernel does.
int clock_gettime(clockid_t clock, timespec* now) noexcept
{
    NEXT_OF(clock_gettime);
    return intercepted(
        "clock_gettime", [&] { return clock == CLOCK_REALTIME ? "date" : "monotonic"; },
        [&] { return next.get()(clock, now); });
}

int gethostname(char* name, std::size_t size) noexcept
{
    NEXT_OF(gethostname);
    return intercepted("gethostname", nothing, [&] { return next.get()(name, size); });
}

int getpwnam_r(const char* name, passwd* entry, char* buffer, std::size_t size, passwd** found)
{
    NEXT_OF(getpwnam_r);
    return intercepted(
        "getpwnam_r", nothing,
        [&] {
            *found = nullptr;
            return next.get()(name, entry, buffer, size, found);
        },
        Tells::byResult);
}

char* crypt_r(const char* phrase, const char* setting, crypt_data* data) noexcept
{
    NEXT_OF(crypt_r);
    return intercepted("crypt_r", nothing, [&] { return next.get()(phrase, setting, data); });
}

char* strdup(const char* text) noexcept
{
    NEXT_OF(strdup);
    return intercepted("strdup", nothing, [&] { return next.get()(text); });
}

} // extern "C"

// Memory. A sanitizer's operators stand behind these, when this library comes before it.

void* operator new(std::size_t size)
{
    static constinit NextCall<void* (*)(std::size_t)> next("_Znwm");
    if (faultsAreArmed() && faultFor("new", "").error != 0) throw std::bad_alloc();
    return next.get()(size);
}

void* operator new(std::size_t size, const std::nothrow_t& nothrow) noexcept
{
    static constinit NextCall<void* (*)(std::size_t, const std::nothrow_t&)> next("_ZnwmRKSt9nothrow_t");
    if (faultsAreArmed() && faultFor("new", "").error != 0) return nullptr;
    return next.get()(size, nothrow);
}
