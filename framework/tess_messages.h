#pragma once

#include <cstddef>
#include <cstdint>

/// What travels between tessd and the processes of the device, and where: message kinds, port bits,
/// addresses, limits.

/// Queue address of tessd.
inline constexpr long TESS_QUEUE_ID = 1001;

/// Queue addresses are 1 to this one.
inline constexpr long HIGHEST_QUEUE_ADDRESS = 2147483647;

/// Where the queues are unless the environment names another directory (TESS_QUEUE_DIR).
inline constexpr const char* DEFAULT_QUEUE_DIRECTORY = "/run/tess/queue";

/// Where people and programs reach tessd's ports.
inline constexpr const char* IPC_SOCKET_PATH = "/tmp/socket";
inline constexpr const char* XCP_SOCKET_PATH = "/tmp/xcp";
inline constexpr std::uint16_t TELNET_TCP_PORT = 23;
inline constexpr const char* COM2_DEVICE = "/dev/ttyS1";

/// Kinds of a TOrbAttachmentMsg. "to tessd" and "from tessd" say who sends it. docs/processes.md
/// has the texts.
enum TessMessageKind : std::uint32_t {
    /// To tessd: end. No answer.
    MSG_STOP = 100,
    /// From tessd: a command; text is the command, a LF and a NUL; tag goes back in MSG_REPLY.
    MSG_TEXT = 101,
    /// To tessd: answer to a command, tag as received, text NUL-terminated. From tessd: its answer
    /// to kinds 200, 201, 203 and 205.
    MSG_REPLY = 102,
    /// To tessd: text bytes 0-3 port mask (unsigned 32-bit, host order), then the name with NUL.
    /// Answer: tag 0 done, 0xFFFFFFFF refused; text says why.
    MSG_REGISTER = 200,
    /// To tessd: the sender wants no more commands. Answer: as to MSG_REGISTER.
    MSG_UNREGISTER = 201,
    /// To tessd: close all connections. No answer.
    MSG_CLOSE_ALL = 202,
    /// To tessd: write len bytes of text, 0 to 8176, to the COM2 line.
    /// Answer: tag as received; len 0 written, 1 not, and then its kind may be an earlier answer's.
    MSG_COM2_WRITE = 203,
    /// To tessd: close all telnet connections. No answer.
    MSG_CLOSE_TELNET = 204,
    /// To tessd: restart the device; text, NUL-terminated, is "RESET", or "RESET REINIT" and the
    /// host name, with blanks between. Answer: text "OK" or an error, cut to the request's length;
    /// tag and len say nothing.
    MSG_RESET = 205,
    /// To tessd: what is the daemon's state? Answered with MSG_STATUS_TEXT.
    MSG_STATUS = 300,
    /// From tessd: lines of text, NUL-terminated, in as many records as they take; tag as asked,
    /// len the number of records that follow.
    MSG_STATUS_TEXT = 301,
    /// To tessd: text byte 0 is 1: the sender wants to watch what happens; 0, or none: no longer.
    /// Answered with MSG_WATCH_TEXT, tag as asked.
    MSG_WATCH = 302,
    /// From tessd: whole lines of text, NUL-terminated: what has happened, in order.
    MSG_WATCH_TEXT = 303,
};

/// Kinds of command port, as bits: a process registers for a mask of them.
enum TessPortType : std::uint32_t {
    PORT_COM2 = 1,
    PORT_TELNET = 2,
    PORT_XCP = 4,
    PORT_IPC = 8,
    PORT_DELAYED = 16, ///< commands run from the delay queue; they reach every process, whatever its mask
};

/// Every kind that a process can register for.
inline constexpr std::uint32_t PORTS_ALL = PORT_COM2 | PORT_TELNET | PORT_XCP | PORT_IPC;

/// How many processes can be registered at a time.
inline constexpr std::size_t MAX_REGISTERED_PROCS = 32;
