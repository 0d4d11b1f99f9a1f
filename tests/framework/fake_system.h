#pragma once

#include <cstddef>
#include <functional>
#include <string>

/// The system as the framework finds it: its own calls come here first, those of the libraries do
/// not.
namespace fake_system {

/// setsockopt(2) of that option at SOL_SOCKET fails with EPERM, for as long as this lives.
class RefusedOption {
public:
    explicit RefusedOption(int option);
    RefusedOption(const RefusedOption&) = delete;
    RefusedOption& operator=(const RefusedOption&) = delete;
    ~RefusedOption();
};

/// A kernel that cannot be asked not to wait for a pipe (pwritev2(2), RWF_NOWAIT), for as long as
/// this lives.
class NoNowait {
public:
    NoNowait();
    NoNowait(const NoNowait&) = delete;
    NoNowait& operator=(const NoNowait&) = delete;
    ~NoNowait();
};

/// send(2) takes no more than so many bytes of each message, for as long as this lives.
class ShortSend {
public:
    explicit ShortSend(std::size_t bytes);
    ShortSend(const ShortSend&) = delete;
    ShortSend& operator=(const ShortSend&) = delete;
    ~ShortSend();
};

/// Somebody acts each time mkdir(2) has made a directory, for as long as this lives.
class AfterMkdir {
public:
    explicit AfterMkdir(std::function<void(const char* path)> act);
    AfterMkdir(const AfterMkdir&) = delete;
    AfterMkdir& operator=(const AfterMkdir&) = delete;
    ~AfterMkdir();
};

/// How often poll(2) has been called, by any thread, and what the last call gave.
unsigned pollCount();
int lastPoll();

/// The last call of recvmsg(2), by any thread.
struct Receive {
    unsigned number = 0; ///< counts the calls
    int flags = 0;       ///< as they were passed
    int error = 0;       ///< errno; 0 when something came
};
Receive lastReceive();

/// The program that posix_spawn(3) was last asked for.
std::string spawnedProgram();

/// How often malloc(3) has been called, by any thread.
unsigned mallocCount();

} // namespace fake_system
