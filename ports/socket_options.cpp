#include "ports/socket_options.h"

#include <array>
#include <cstring>
#include <sys/socket.h>

namespace {

struct SockOptRow {
    int level;
    int option;
    std::array<int, 2> value;
    socklen_t length;
    bool apply;
};

// Rows by option number, as Linux on PowerPC numbers them; numbers, because a 64-bit time_t gives
// the names of two rows (18, 19) other values. The rows that are applied have the same number
// everywhere.
constexpr std::array sockOptTable{
    SockOptRow{0, 0, {}, 0, false},
    SockOptRow{SOL_SOCKET, 1, {0}, 4, true},     // SO_DEBUG
    SockOptRow{SOL_SOCKET, 2, {1}, 4, true},     // SO_REUSEADDR
    SockOptRow{SOL_SOCKET, 3, {0}, 1, false},    // SO_TYPE
    SockOptRow{SOL_SOCKET, 4, {0}, 4, false},    // SO_ERROR
    SockOptRow{SOL_SOCKET, 5, {0}, 4, false},    // SO_DONTROUTE
    SockOptRow{SOL_SOCKET, 6, {0}, 4, false},    // SO_BROADCAST
    SockOptRow{SOL_SOCKET, 7, {16384}, 4, true}, // SO_SNDBUF
    SockOptRow{SOL_SOCKET, 8, {65536}, 4, true}, // SO_RCVBUF
    SockOptRow{SOL_SOCKET, 9, {1}, 4, true},     // SO_KEEPALIVE
    SockOptRow{SOL_SOCKET, 10, {0}, 4, false},   // SO_OOBINLINE
    SockOptRow{SOL_SOCKET, 11, {0}, 4, false},   // SO_NO_CHECK
    SockOptRow{SOL_SOCKET, 12, {0}, 4, false},   // SO_PRIORITY
    SockOptRow{SOL_SOCKET, 13, {0}, 8, false},   // SO_LINGER
    SockOptRow{SOL_SOCKET, 14, {0}, 4, false},   // SO_BSDCOMPAT
    SockOptRow{0, 0, {}, 0, false},
    SockOptRow{SOL_SOCKET, 16, {1}, 4, false}, // SO_RCVLOWAT
    SockOptRow{SOL_SOCKET, 17, {1}, 4, false}, // SO_SNDLOWAT
    SockOptRow{SOL_SOCKET, 18, {0}, 1, false}, // SO_RCVTIMEO
    SockOptRow{SOL_SOCKET, 19, {0}, 1, false}, // SO_SNDTIMEO
    SockOptRow{SOL_SOCKET, 20, {0}, 1, false}, // SO_PASSCRED
};

static_assert(sockOptTable.size() == 21);
static_assert(SO_DEBUG == 1 && SO_REUSEADDR == 2 && SO_SNDBUF == 7 && SO_RCVBUF == 8 && SO_KEEPALIVE == 9);

} // namespace

void applySocketOptions(int fd)
{
    for (const SockOptRow& row : sockOptTable)
        if (row.apply) (void)::setsockopt(fd, row.level, row.option, row.value.data(), row.length);
}
