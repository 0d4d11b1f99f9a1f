#include "ports/local_socket_port.h"

#include <cstdio>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

#include "common/milestone.h"
#include "common/process_copy.h"
#include "framework/fixed_text.h"

TLocalSocketPort::TLocalSocketPort(const LocalSocketKind& kind)
    : TCmdPort(kind.portType, MAX_CONNS, kind.firstConnId), kind_(kind)
{
    setMilestone(Milestone::localConstructorBegun);
    isOpen = TLocalSocketPort::openPort() == 0;
    setMilestone(kind_.constructorExit);
}

TLocalSocketPort::~TLocalSocketPort()
{
    setMilestone(kind_.destructorEntry);
    (void)TLocalSocketPort::closePort(); // always 0
    removeFile();                        // closePort() has done so, unless the port was closed all along
    setMilestone(kind_.destructorExit);
}

void TLocalSocketPort::removeFile() const
{
    if (!g_isCopy) (void)std::remove(kind_.path); // somebody else may have been faster
}

int TLocalSocketPort::openPort()
{
    setMilestone(Milestone::localOpenBegun);
    (void)std::remove(kind_.path);                                         // no such file is the normal case
    fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); // accept() must never block
    if (fd < 0) return 1;
    listenAddr = {};
    listenAddr.sun_family = AF_UNIX;
    putText(listenAddr.sun_path, kind_.path);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&listenAddr), sizeof listenAddr) != 0)
        throw std::runtime_error(kind_.bindFailure);
    if (::listen(fd, BACKLOG) != 0) throw std::runtime_error(kind_.listenFailure);
    setMilestone(Milestone::localOpenDone);
    return 0;
}

int TLocalSocketPort::closePort()
{
    setMilestone(Milestone::localCloseBegun);
    if (isOpen) {
        (void)::close(fd); // nothing is left to do for a descriptor that fails to close
        activeConns = 0;
        isOpen = false;
        logMessage(kind_.portClosed);
        removeFile();
    }
    setMilestone(Milestone::localCloseDone);
    return 0;
}

int TLocalSocketPort::chkNewConn(TPortConn** newConn)
{
    setMilestone(Milestone::localCheckBegun);
    TPortConn* const conn = clientWaits() ? acceptClient() : nullptr;
    if (conn != nullptr) *newConn = conn;
    setMilestone(Milestone::localCheckDone);
    return conn != nullptr ? 1 : 0;
}

TPortConn* TLocalSocketPort::acceptClient()
{
    int client = -1;
    if (!accept(client, nullptr, nullptr)) return nullptr;
    TPortConn* conn = kind_.makeConn(portType, countNewConn());
    conn->fd = client;
    if (!mayStay(*conn)) {
        (void)closeConn(&conn); // always 0
        return nullptr;
    }
    if (kind_.opened != nullptr) logMessage(*kind_.opened, Hex{announcedConnId()});
    return conn;
}

int TLocalSocketPort::closeConn(TPortConn** conn)
{
    setMilestone(Milestone::localCloseConnBegun);
    if (*conn != nullptr) {
        delete *conn;
        *conn = nullptr;
        activeConns -= 1;
        if (kind_.closed != nullptr) logMessage(*kind_.closed, activeConns.load());
    }
    setMilestone(Milestone::localCloseConnDone);
    return 0;
}
