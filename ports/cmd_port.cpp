#include "ports/cmd_port.h"

#include <cerrno>

TCmdPort::TCmdPort(std::uint32_t type, std::int32_t limit, std::uint32_t firstId)
    : portType(type), maxConns(limit), nextConnId(firstId)
{
    FD_ZERO(&readSet);
}

std::uint32_t TCmdPort::countNewConn()
{
    nextConnId += CONN_ID_STEP;
    activeConns += 1;
    return nextConnId;
}

bool TCmdPort::acceptInto(TPortConn& conn, sockaddr* peer, socklen_t* peerSize)
{
    conn.fd = ::accept4(fd, peer, peerSize, SOCK_NONBLOCK | SOCK_CLOEXEC);
    const bool exhausted = conn.fd < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM);
    if (exhausted) restTimer.setTimeOut(REST_TIME);
    return conn.fd >= 0 && conn.fd < FD_SETSIZE;
}

bool TCmdPort::clientWaits()
{
    if (fd < 0 || fd >= FD_SETSIZE) return false;
    FD_SET(fd, &readSet);
    timeval noWait{0, 0};
    return ::select(fd + 1, &readSet, nullptr, nullptr, &noWait) >= 1;
}
