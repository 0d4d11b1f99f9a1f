#pragma once

#include <functional>
#include <string>

#include "framework/fd.h"
#include "tools/tess-mqtt/xcp_frame.h"

/// A connection to /tmp/xcp that waits for nothing.
/// Threads: one.
class XcpLink {
public:
    /// Connects, which on a local socket takes no time.
    /// @return false: nobody listens, or not for us, or more wait than may; errno says why
    bool open();

    void close();

    bool isOpen() const { return fd_.get() >= 0; }
    int fd() const { return fd_.get(); }
    bool wantsWrite() const { return !out_.empty(); }

    /// Sends, now or when there is room.
    void send(const std::string& bytes);

    /// Sends what has waited for room.
    void flush();

    /// Takes what has arrived.
    /// @return false: tessd has closed, or sends what is no frame
    bool receive(const std::function<void(const XcpFrame&)>& take);

private:
    Fd fd_;
    std::string out_;
    std::string in_;
};
