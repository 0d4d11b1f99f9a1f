#pragma once

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

/// Stands between the daemon's code and the calls that would copy the process and restart the
/// machine. sync(), sleep() and reboot() never reach the system from this program, and while an
/// object of this lives, fork() does not either.
class FakeRestart {
public:
    FakeRestart();
    FakeRestart(const FakeRestart&) = delete;
    FakeRestart& operator=(const FakeRestart&) = delete;
    ~FakeRestart();

    pid_t forkResult = 4711;  ///< what fork() returns; negative: with errno EAGAIN; 0: as in a child, repairs included
    bool forksReally = false; ///< fork() forks: what follows is done by a child too
    int rebootResult = -1;    ///< what reboot() returns; -1: with errno EPERM
    std::function<void()> onFork; ///< called at every fork()

    std::vector<std::string> calls; ///< what was called, in order
};
