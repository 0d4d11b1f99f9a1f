#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <sys/socket.h>

#include "connections/port_conn.h"
#include "framework/fixed_text.h"

/// Who is at the other end of a connection, as the kernel knows it.
struct ConnPeer {
    FixedText<64> address;            ///< of a telnet client, with its port; the serial line's device; else empty
    std::optional<ucred> credentials; ///< of the process that has connected, on the local sockets
};

/// Asks the kernel: one system call, none for the serial line.
ConnPeer peerOf(const TPortConn& conn);

/// The name of the program that a process runs now, from /proc; empty when there is no such process
/// any more.
FixedText<64> programOf(pid_t pid);

/// @param program  of the process, where it is one; empty: not told
/// @return "127.0.0.1:40000", "pid 812 python3 uid 0"; empty when it is not known
FixedText<128> peerText(const ConnPeer& peer, std::string_view program);
