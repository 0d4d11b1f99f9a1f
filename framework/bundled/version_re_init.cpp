#include "framework/version_re_init.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char* DEFAULT_PROGRAM = "/usr/lib/tess/version-reinit";

/// Has the program start with no signal blocked and every signal at its default, whatever this
/// process has set up for itself.
class PlainSignals {
public:
    PlainSignals()
    {
        sigset_t none{};
        sigset_t all{};
        ::sigemptyset(&none);
        ::sigfillset(&all);
        ::posix_spawnattr_init(&attributes_);
        ::posix_spawnattr_setsigmask(&attributes_, &none);
        ::posix_spawnattr_setsigdefault(&attributes_, &all);
        ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    PlainSignals(const PlainSignals&) = delete;
    PlainSignals& operator=(const PlainSignals&) = delete;
    ~PlainSignals() { ::posix_spawnattr_destroy(&attributes_); }

    const posix_spawnattr_t* get() const { return &attributes_; }

private:
    posix_spawnattr_t attributes_{};
};

/// @return 0 when the child ended by itself with status 0
int waitFor(pid_t child)
{
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return 1;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}

} // namespace

int versionReInit()
{
    const char* program = std::getenv("TESS_REINIT");
    if (program == nullptr || *program == '\0') program = DEFAULT_PROGRAM;
    char* const arguments[] = {const_cast<char*>(program), nullptr}; // posix_spawn does not write to them
    const PlainSignals signals;
    pid_t child = 0;
    if (::posix_spawn(&child, program, nullptr, signals.get(), arguments, environ) != 0) return 1;
    return waitFor(child);
}
