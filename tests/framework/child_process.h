#pragma once

#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

/// There only in the build that counts what the tests reach: a process that ends by _exit() has to
/// write its counts by itself.
extern "C" void __gcov_dump() __attribute__((weak));

/// A forked process that runs one function and ends with what it returns. Killed when it is still
/// there at the end. Fork before the test starts threads.
class ChildProcess {
public:
    template <class Body> explicit ChildProcess(Body body) : pid_(::fork())
    {
        if (pid_ < 0) throw std::runtime_error("fork failed");
        if (pid_ > 0) return;
        int status = 99;
        try {
            status = body();
        } catch (const std::exception& error) {
            std::fprintf(stderr, "child: %s\n", error.what());
        }
        if (__gcov_dump != nullptr) __gcov_dump();
        ::_exit(status);
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess() { kill(); }

    /// Sends it a signal, if it still runs.
    void signal(int number) const
    {
        if (pid_ > 0) ::kill(pid_, number);
    }

    /// Ends it without giving it a chance to clean up.
    void kill()
    {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

    /// Waits for its end.
    /// @return what its function returned; -1 when it was ended by a signal or is not done in time
    int result(std::chrono::seconds patience = std::chrono::seconds(60))
    {
        const auto due = std::chrono::steady_clock::now() + patience;
        while (std::chrono::steady_clock::now() < due) {
            int status = 0;
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return -1;
    }

private:
    pid_t pid_;
};

/// A pipe with which processes tell each other that they have come to a point.
class Signpost {
public:
    Signpost()
    {
        if (::pipe(ends_) != 0) throw std::runtime_error("pipe failed");
    }
    Signpost(const Signpost&) = delete;
    Signpost& operator=(const Signpost&) = delete;
    ~Signpost()
    {
        close(ends_[0]);
        close(ends_[1]);
    }

    /// Passes one more waiter on.
    void pass() { (void)!::write(ends_[1], "x", 1); }

    /// Waits until passed on.
    /// @return false: everybody who could pass is gone
    bool await()
    {
        close(ends_[1]);
        char byte = 0;
        return ::read(ends_[0], &byte, 1) == 1;
    }

private:
    static void close(int& end)
    {
        if (end >= 0) ::close(end);
        end = -1;
    }

    int ends_[2];
};
