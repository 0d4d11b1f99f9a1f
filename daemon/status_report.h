#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "connections/conn_peer.h"

/// The daemon's state at one moment, to be told.
struct StatusReport {
    struct Port {
        std::uint32_t type; ///< TessPortType
        bool isOpen;
        std::int32_t connections; ///< those that are arriving among them
        std::int32_t limit;
    };

    struct Connection {
        std::uint32_t id;
        std::uint32_t port; ///< TessPortType
        ConnPeer peer;
        std::string user; ///< empty: nobody has logged in
        std::chrono::seconds connected;
        std::chrono::seconds idle;
        std::string waits; ///< for what; empty: for its next line
    };

    struct Process {
        std::string name;
        long address;
        std::uint32_t ports; ///< TessPortType bits
        std::uint32_t sent;
        std::uint32_t answered;
        bool isFull;
    };

    std::chrono::seconds uptime;
    std::size_t watchers;
    std::vector<Port> ports;
    std::vector<Connection> connections;
    std::vector<Process> processes;
};

/// The report, and the daemon's counters, as lines of items (ItemLine); docs/processes.md has all
/// words and keys. Asks /proc for the programs of local clients.
std::string statusText(const StatusReport& report);

/// Cuts a text behind ends of lines.
/// @param most  bytes of a piece; a longer line is a piece by itself, and cut
/// @return views into `text`, one at least
std::vector<std::string_view> piecesOf(std::string_view text, std::size_t most);
