#pragma once

#include <fstream>
#include <string>
#include <unistd.h>

#include "tests/support/waiting.h"

/// The thread that has made it, as another one sees it.
class WaitingThread {
public:
    WaitingThread() : path_("/proc/" + std::to_string(::getpid()) + "/task/" + std::to_string(::gettid()) + "/stat") {}

    /// Waits until the thread waits for something. Where two processes are concerned, the other one
    /// may ask too.
    /// @return false when the deadline has passed first
    bool untilAsleep() const
    {
        return waitUntil([this] {
            std::ifstream stat(path_);
            std::string line;
            std::getline(stat, line);
            const std::size_t nameEnd = line.rfind(") "); // "NUMBER (NAME) STATE ..."
            return nameEnd != std::string::npos && line.compare(nameEnd + 2, 1, "S") == 0;
        });
    }

private:
    std::string path_;
};
