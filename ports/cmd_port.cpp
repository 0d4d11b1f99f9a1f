#include "ports/cmd_port.h"

#include <algorithm>
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

bool TCmdPort::accept(int& client, sockaddr* peer, socklen_t* peerSize)
{
    client = ::accept4(fd, peer, peerSize, SOCK_NONBLOCK | SOCK_CLOEXEC);
    const bool exhausted = client < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM);
    if (!exhausted) return true;
    wantsInput = false;
    due = instantNow() + REST_TIME;
    return false;
}

bool TCmdPort::mayStay(const TPortConn& conn) const
{
    return conn.fd >= 0 && conn.fd < FD_SETSIZE && activeConns <= maxConns;
}

void TCmdPort::addTo(TWaitSet& waits) const
{
    waits.count(fd);
    if (wantsInput) waits.addInput(fd);
    waits.addDue(due);
    for (TPortConn* conn : arriving)
        conn->addTo(waits);
}

bool TCmdPort::isDue(const TWaitSet& waits) const
{
    const auto isDueConn = [&waits](const TPortConn* conn) { return conn->isDue(waits); };
    return waits.isDue(due) || (wantsInput && waits.hasInput(fd)) || (standing && activeConns < maxConns) ||
           std::ranges::any_of(arriving, isDueConn);
}

bool TCmdPort::clientWaits()
{
    wantsInput = true;
    due = NEVER;
    if (fd < 0 || fd >= FD_SETSIZE) return false;
    FD_SET(fd, &readSet);
    timeval noWait{0, 0};
    return ::select(fd + 1, &readSet, nullptr, nullptr, &noWait) >= 1;
}
