#pragma once

#include <cstddef>
#include <cstdint>

/// What travels between tessd and the processes of the device: message kinds, port bits, addresses, limits.

/// Queue address of tessd.
inline constexpr long TESS_QUEUE_ID = 1001;

/// Kinds of a TOrbAttachmentMsg. "to tessd" and "from tessd" say who sends it.
enum TessMessageKind : std::uint32_t {
    MSG_STOP = 100,       ///< to tessd: end
    MSG_TEXT = 101,       ///< from tessd: a command; text is the command, a LF and a NUL; tag goes back in MSG_REPLY
    MSG_REPLY = 102,      ///< to tessd: answer to a command, tag as received, text NUL-terminated;
                          ///< from tessd: its answer to kinds 200, 201, 203 and 205
    MSG_REGISTER = 200,   ///< to tessd: text bytes 0-3 port mask (unsigned 32-bit, host order), then the name with NUL
    MSG_UNREGISTER = 201, ///< to tessd: the sender wants no more commands
    MSG_CLOSE_ALL = 202,  ///< to tessd: close all connections
    MSG_COM2_WRITE = 203, ///< to tessd: write len bytes of text to the COM2 line
    MSG_CLOSE_TELNET = 204, ///< to tessd: close all telnet connections
    MSG_RESET = 205,        ///< to tessd: text is a RESET command line
};

/// Kinds of command port, as bits: a process registers for a mask of them.
enum TessPortType : std::uint32_t {
    PORT_COM2 = 1,
    PORT_TELNET = 2,
    PORT_XCP = 4,
    PORT_IPC = 8,
    PORT_DELAYED = 16, ///< commands run from the delay queue; they reach every process, whatever its mask
};

/// How many processes can be registered at a time.
inline constexpr std::size_t MAX_REGISTERED_PROCS = 32;
