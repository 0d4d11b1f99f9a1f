#include "ports/cmd_port.h"

TCmdPort::TCmdPort(std::uint32_t type, std::int32_t limit, std::uint32_t firstId)
    : portType(type), maxConns(limit), nextConnId(firstId)
{
    FD_ZERO(&readSet);
}

bool TCmdPort::clientWaits()
{
    if (fd < 0 || fd >= FD_SETSIZE) return false;
    FD_SET(fd, &readSet);
    timeval noWait{0, 0};
    return ::select(fd + 1, &readSet, nullptr, nullptr, &noWait) >= 1;
}
