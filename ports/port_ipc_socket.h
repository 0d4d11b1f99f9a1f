#pragma once

#include "ports/local_socket_port.h"

/// The port for plain text lines, on IPC_SOCKET_PATH.
class TPortIPCSocket final : public LocalSocketPort {
public:
    /// @throws std::runtime_error "failed binding to IPC socket", "failed setting up IPC socket
    ///         listener"
    TPortIPCSocket();
};
