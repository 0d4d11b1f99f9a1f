#include "tests/framework/fake_system.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <mutex>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <utility>

#include "framework/fixed_text.h"

namespace {

std::atomic<int> refusedOption{-1};
std::atomic<unsigned> mallocs{0};
std::array<char, 256> program{}; // a string would be destroyed while a thread that outlives main() uses it
std::atomic<unsigned> polls{0};
std::atomic<int> pollResult{-1};
std::atomic<bool> nowait{true};
std::atomic<std::size_t> mostSent{SIZE_MAX};
std::function<void(const char*)> afterMkdir;
std::mutex receiveLock;
fake_system::Receive receive;

} // namespace

namespace fake_system {

RefusedOption::RefusedOption(int option)
{
    refusedOption = option;
}

RefusedOption::~RefusedOption()
{
    refusedOption = -1;
}

NoNowait::NoNowait()
{
    nowait = false;
}

NoNowait::~NoNowait()
{
    nowait = true;
}

ShortSend::ShortSend(std::size_t bytes)
{
    mostSent = bytes;
}

ShortSend::~ShortSend()
{
    mostSent = SIZE_MAX;
}

AfterMkdir::AfterMkdir(std::function<void(const char*)> act)
{
    afterMkdir = std::move(act);
}

AfterMkdir::~AfterMkdir()
{
    afterMkdir = nullptr;
}

unsigned pollCount()
{
    return polls;
}

int lastPoll()
{
    return pollResult;
}

Receive lastReceive()
{
    const std::scoped_lock lock(receiveLock);
    return receive;
}

std::string spawnedProgram()
{
    return program.data();
}

unsigned mallocCount()
{
    return mallocs;
}

} // namespace fake_system

// Where 64-bit times are a choice, these calls have other names.
#ifdef __USE_TIME_BITS64
#define WRAPPED_SETSOCKOPT __wrap___setsockopt64
#define REAL_SETSOCKOPT __real___setsockopt64
#define WRAPPED_RECVMSG __wrap___recvmsg64
#define REAL_RECVMSG __real___recvmsg64
#else
#define WRAPPED_SETSOCKOPT __wrap_setsockopt
#define REAL_SETSOCKOPT __real_setsockopt
#define WRAPPED_RECVMSG __wrap_recvmsg
#define REAL_RECVMSG __real_recvmsg
#endif

// The same where offsets are.
#ifdef __USE_FILE_OFFSET64
#define WRAPPED_PWRITEV2 __wrap_pwritev64v2
#define REAL_PWRITEV2 __real_pwritev64v2
#else
#define WRAPPED_PWRITEV2 __wrap_pwritev2
#define REAL_PWRITEV2 __real_pwritev2
#endif

extern "C" {

int REAL_SETSOCKOPT(int fd, int level, int option, const void* value, socklen_t length);
int __real_posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                       const posix_spawnattr_t* attributes, char* const argv[], char* const envp[]);
void* __real_malloc(std::size_t bytes);
ssize_t REAL_PWRITEV2(int fd, const iovec* from, int count, off_t offset, int flags);
ssize_t __real_send(int fd, const void* from, std::size_t bytes, int flags);
ssize_t REAL_RECVMSG(int fd, msghdr* into, int flags);
int __real_poll(pollfd* fds, nfds_t count, int timeOut);
int __real_mkdir(const char* path, mode_t mode);

int WRAPPED_SETSOCKOPT(int fd, int level, int option, const void* value, socklen_t length)
{
    if (level != SOL_SOCKET || option != refusedOption) return REAL_SETSOCKOPT(fd, level, option, value, length);
    errno = EPERM;
    return -1;
}

int __wrap_posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                       const posix_spawnattr_t* attributes, char* const argv[], char* const envp[])
{
    putText(program, path);
    return __real_posix_spawn(pid, path, actions, attributes, argv, envp);
}

void* __wrap_malloc(std::size_t bytes)
{
    ++mallocs;
    return __real_malloc(bytes);
}

ssize_t WRAPPED_PWRITEV2(int fd, const iovec* from, int count, off_t offset, int flags)
{
    if (nowait) return REAL_PWRITEV2(fd, from, count, offset, flags);
    errno = EOPNOTSUPP;
    return -1;
}

ssize_t __wrap_send(int fd, const void* from, std::size_t bytes, int flags)
{
    return __real_send(fd, from, std::min(bytes, mostSent.load()), flags);
}

ssize_t WRAPPED_RECVMSG(int fd, msghdr* into, int flags)
{
    const ssize_t result = REAL_RECVMSG(fd, into, flags);
    const int error = result < 0 ? errno : 0;
    {
        const std::scoped_lock lock(receiveLock);
        receive = {receive.number + 1, flags, error};
    }
    if (result < 0) errno = error;
    return result;
}

int __wrap_poll(pollfd* fds, nfds_t count, int timeOut)
{
    const int result = __real_poll(fds, count, timeOut);
    ++polls;
    pollResult = result;
    return result;
}

int __wrap_mkdir(const char* path, mode_t mode)
{
    const int result = __real_mkdir(path, mode);
    if (result == 0 && afterMkdir) afterMkdir(path);
    return result;
}
}
