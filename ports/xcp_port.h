#pragma once

#include "ports/local_socket_port.h"

/// The port for text in frames, on XCP_SOCKET_PATH.
class TXCPPort final : public LocalSocketPort {
public:
    /// @throws std::runtime_error "failed binding to xcp socket", "failed setting up xcp socket
    ///         listener"
    TXCPPort();
};
