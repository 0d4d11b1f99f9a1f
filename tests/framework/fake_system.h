#pragma once

#include <cstddef>
#include <functional>
#include <string>

/// The system as the framework finds it: its own calls come here first, those of the libraries do not.
namespace fake_system {

/// setsockopt(2) of that option at SOL_SOCKET fails with EPERM, for as long as this lives.
class TRefusedOption {
public:
    explicit TRefusedOption(int option);
    TRefusedOption(const TRefusedOption&) = delete;
    TRefusedOption& operator=(const TRefusedOption&) = delete;
    ~TRefusedOption();
};

/// A kernel that cannot be asked not to wait for a pipe (pwritev2(2), RWF_NOWAIT), for as long as this lives.
class TNoNowait {
public:
    TNoNowait();
    TNoNowait(const TNoNowait&) = delete;
    TNoNowait& operator=(const TNoNowait&) = delete;
    ~TNoNowait();
};

/// send(2) takes no more than so many bytes of each message, for as long as this lives.
class TShortSend {
public:
    explicit TShortSend(std::size_t bytes);
    TShortSend(const TShortSend&) = delete;
    TShortSend& operator=(const TShortSend&) = delete;
    ~TShortSend();
};

/// Somebody acts each time mkdir(2) has made a directory, for as long as this lives.
class TAfterMkdir {
public:
    explicit TAfterMkdir(std::function<void(const char* path)> act);
    TAfterMkdir(const TAfterMkdir&) = delete;
    TAfterMkdir& operator=(const TAfterMkdir&) = delete;
    ~TAfterMkdir();
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
