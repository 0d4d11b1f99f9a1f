#include "ports/cmd_port.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <stdexcept>
#include <unistd.h>

TCmdPort::TCmdPort(std::uint32_t type, std::int32_t limit, std::uint32_t firstId)
    : portType(type), maxConns(limit), nextConnId(firstId)
{
    FD_ZERO(&readSet);
}

bool TCmdPort::openSocket(int family)
{
    fd = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    return fd >= 0;
}

void TCmdPort::listenAt(const sockaddr* address, socklen_t size, const char* bindFailure,
                        const char* listenFailure) const
{
    if (::bind(fd, address, size) != 0) throw std::runtime_error(bindFailure);
    if (::listen(fd, BACKLOG) != 0) throw std::runtime_error(listenFailure);
}

bool TCmdPort::closeEndpoint()
{
    if (!isOpen) return false;
    (void)::close(fd); // nothing is left to do for a descriptor that fails to close
    activeConns = 0;
    isOpen = false;
    return true;
}

void TCmdPort::countNewConn()
{
    nextConnId += CONN_ID_STEP;
    activeConns += 1;
}

bool TCmdPort::accept(int& client, sockaddr* peer, socklen_t* peerSize)
{
    client = ::accept4(fd, peer, peerSize, SOCK_NONBLOCK | SOCK_CLOEXEC);
    const bool exhausted = client < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM);
    if (exhausted) rest();
    return !exhausted;
}

void TCmdPort::rest()
{
    wantsInput = false;
    due = instantNow() + REST_TIME;
}

TPortConn* TCmdPort::addConn(MakeConn make, int connFd)
{
    TPortConn* const conn = make(portType, nextConnId + CONN_ID_STEP);
    countNewConn();
    conn->fd = connFd;
    return conn;
}

// The connection is made first, so that a client for which there is no memory still waits.
TPortConn* TCmdPort::acceptConn(MakeConn make, sockaddr* peer, socklen_t* peerSize)
try {
    std::unique_ptr<TPortConn> conn(make(portType, nextConnId + CONN_ID_STEP));
    int client = -1;
    if (!accept(client, peer, peerSize)) return nullptr;
    countNewConn();
    conn->fd = client;
    return conn.release();
} catch (const std::bad_alloc&) {
    rest();
    return nullptr;
}

bool TCmdPort::dispose(TPortConn** conn)
{
    if (*conn == nullptr) return false;
    delete *conn;
    *conn = nullptr;
    activeConns -= 1;
    return true;
}

int TCmdPort::handOut(TPortConn* conn, TPortConn** newConn)
{
    if (conn == nullptr) return 0;
    *newConn = conn;
    return 1;
}

bool TCmdPort::mayStay(const TPortConn& conn) const
{
    return conn.fd >= 0 && conn.fd < FD_SETSIZE && activeConns <= maxConns;
}

void TCmdPort::addTo(WaitSet& waits) const
{
    waits.count(fd);
    if (wantsInput) waits.addInput(fd);
    waits.addDue(due);
    for (TPortConn* conn : arriving)
        conn->addTo(waits);
}

bool TCmdPort::isDue(const WaitSet& waits) const
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
