#pragma once

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

/// The program that posix_spawn(3) was last asked for.
std::string spawnedProgram();

/// How often malloc(3) has been called, by any thread.
unsigned mallocCount();

} // namespace fake_system
