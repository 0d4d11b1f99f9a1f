#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/tessctl/exit_status.h"
#include "tools/tessctl/local_client.h"

struct SendOptions {
    LocalPort port = LocalPort::ipc;
    std::uint16_t tag = 0;
    std::chrono::milliseconds wait{5000}; ///< for each answer, and for the connection
    std::chrono::milliseconds linger{0};  ///< after the answers to a line
    bool each = false;                    ///< command by command instead of line by line
    bool json = false;                    ///< one object for each line instead of the answers
    bool timestamps = false;              ///< tell when lines came, or with `json` when they were sent
    std::vector<std::string> lines;       ///< standard input's when there are none
};

/// Sends lines one after the other and prints their answers as they come.
/// @throws CtlError  also when what is printed is lost: no further line is sent then
ExitStatus runSend(const SendOptions& options);
