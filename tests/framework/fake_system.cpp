#include "fake_system.h"

#include <atomic>
#include <cerrno>
#include <spawn.h>
#include <sys/socket.h>

namespace {

std::atomic<int> refusedOption{-1};
std::atomic<unsigned> mallocs{0};
std::string program;

} // namespace

namespace fake_system {

TRefusedOption::TRefusedOption(int option)
{
    refusedOption = option;
}

TRefusedOption::~TRefusedOption()
{
    refusedOption = -1;
}

std::string spawnedProgram()
{
    return program;
}

unsigned mallocCount()
{
    return mallocs;
}

} // namespace fake_system

// Where 64-bit times are a choice, the call has another name.
#ifdef __USE_TIME_BITS64
#define WRAPPED_SETSOCKOPT __wrap___setsockopt64
#define REAL_SETSOCKOPT __real___setsockopt64
#else
#define WRAPPED_SETSOCKOPT __wrap_setsockopt
#define REAL_SETSOCKOPT __real_setsockopt
#endif

extern "C" {

int REAL_SETSOCKOPT(int fd, int level, int option, const void* value, socklen_t length);
int __real_posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                       const posix_spawnattr_t* attributes, char* const argv[], char* const envp[]);
void* __real_malloc(std::size_t bytes);

int WRAPPED_SETSOCKOPT(int fd, int level, int option, const void* value, socklen_t length)
{
    if (level != SOL_SOCKET || option != refusedOption) return REAL_SETSOCKOPT(fd, level, option, value, length);
    errno = EPERM;
    return -1;
}

int __wrap_posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                       const posix_spawnattr_t* attributes, char* const argv[], char* const envp[])
{
    program = path;
    return __real_posix_spawn(pid, path, actions, attributes, argv, envp);
}

void* __wrap_malloc(std::size_t bytes)
{
    ++mallocs;
    return __real_malloc(bytes);
}
}
