#include "tests/daemon/fake_restart.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "common/process_copy.h"

namespace {

FakeRestart* fake = nullptr;

/// What pthread_atfork(3) was told to call in children. Filled before main().
std::vector<void (*)()>& childHandlers()
{
    static std::vector<void (*)()> handlers;
    return handlers;
}

} // namespace

FakeRestart::FakeRestart()
{
    fake = this;
}

FakeRestart::~FakeRestart()
{
    fake = nullptr;
    g_isCopy = false; // a fork() that has returned 0 makes one of this process
}

// The linker's option --wrap leads the calls here, and __real_ to the system's own.
extern "C" {

pid_t __real_fork();
pid_t __wrap_fork();
int __real_pthread_atfork(void (*prepare)(), void (*parent)(), void (*child)());
int __wrap_pthread_atfork(void (*prepare)(), void (*parent)(), void (*child)());
void __wrap_sync();
unsigned __wrap_sleep(unsigned seconds);
int __wrap_reboot(int command);

pid_t __wrap_fork()
{
    if (fake == nullptr) return __real_fork(); // a test's own child
    fake->calls.emplace_back("fork");
    if (fake->onFork) fake->onFork();
    if (fake->forksReally) return __real_fork();
    if (fake->forkResult < 0) errno = EAGAIN;
    if (fake->forkResult == 0)
        for (void (*const handler)() : childHandlers())
            handler();
    return fake->forkResult;
}

int __wrap_pthread_atfork(void (*prepare)(), void (*parent)(), void (*child)())
{
    if (child != nullptr) childHandlers().push_back(child);
    return __real_pthread_atfork(prepare, parent, child);
}

void __wrap_sync()
{
    if (fake != nullptr) fake->calls.emplace_back("sync");
}

unsigned __wrap_sleep(unsigned seconds)
{
    if (fake != nullptr) fake->calls.push_back("sleep " + std::to_string(seconds));
    return 0;
}

int __wrap_reboot(int command)
{
    if (fake == nullptr) std::abort(); // no test means to get here
    char call[32];
    std::snprintf(call, sizeof call, "reboot 0x%x", static_cast<unsigned>(command));
    fake->calls.emplace_back(call);
    if (fake->rebootResult != 0) errno = EPERM;
    return fake->rebootResult;
}
}
