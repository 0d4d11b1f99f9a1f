#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "framework/fd.h"

/// tessd's sockets for programs on the same device.
enum class LocalPort { ipc, xcp };

const char* pathOf(LocalPort port);

/// A connection to one of them. Lines go out, texts come in; on /tmp/xcp both travel in frames.
/// Threads: one.
class LocalClient {
public:
    /// @param tag       goes along with every line of /tmp/xcp, and comes back with answers
    /// @param patience  for a tessd that takes no connections
    /// @throws CtlError  nobody listens there, or not for us, or takes no connections
    LocalClient(LocalPort port, std::uint16_t tag, std::chrono::milliseconds patience);

    int fd() const { return fd_.get(); }
    const char* path() const { return path_; }

    /// What to say when receive() finds the connection closed.
    std::string closedText() const;

    /// Sends one command line. Before that it waits until tessd has read most of what was sent
    /// earlier: input of 1024 bytes or more that it finds at once tessd throws away.
    /// @param line  without an end, MAX_LINE_BYTES at most
    /// @throws CtlError  tessd has closed the connection, or has read nothing for `patience`
    void sendLine(std::string_view line, std::chrono::milliseconds patience);

    enum class Received { text, nothing, closed };

    /// Waits for text.
    /// @param text  receives it; on /tmp/xcp what the frames carried, without their NUL
    Received receive(std::chrono::milliseconds patience, std::string& text);

private:
    bool roomFor(std::size_t bytes);
    void takeFrames(std::string& text);

    LocalPort port_;
    std::uint16_t tag_;
    const char* path_;
    Fd fd_;
    std::size_t unread_ = 0; ///< bytes sent that tessd may not have read yet
    std::string frames_;     ///< received, not yet whole
};
