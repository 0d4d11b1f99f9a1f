#pragma once

#include <map>
#include <set>
#include <string>

/// A process that has a socket open.
struct SocketOwner {
    long pid = 0;
    std::string program; ///< its name; bytes as they are
};

/// Finds out who has the Unix sockets at these paths open, from /proc: root sees every process, a
/// user his own.
/// @return by path, of those that were found; of several processes with the same socket, the oldest
///         number
std::map<std::string, SocketOwner> socketOwners(const std::set<std::string>& paths);
