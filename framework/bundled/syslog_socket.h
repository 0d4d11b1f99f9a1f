#pragma once

#include <atomic>
#include <string_view>

/// The way to the system log: a datagram socket that sends by path, so that a log daemon may come
/// and go.
/// Threads: any, send() also from a signal handler; except open(), which runs before other threads.
class SyslogSocket {
public:
    constexpr SyslogSocket() = default;

    /// Where the system log listens. A test puts its own path here before open().
    static const char* path;

    /// Makes the socket. One that cannot be made is noticed in send().
    void open();

    /// Hands one message over, without waiting and without SIGPIPE.
    /// @return false: the system log did not take it
    bool send(std::string_view message) const;

private:
    std::atomic<int> fd_{-1};
};
