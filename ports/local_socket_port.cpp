#include "ports/local_socket_port.h"

#include <cstdio>

#include "common/milestone.h"
#include "common/process_copy.h"
#include "framework/fixed_text.h"

LocalSocketPort::LocalSocketPort(const LocalSocketKind& kind)
    : TCmdPort(kind.portType, MAX_CONNS, kind.firstConnId), kind_(kind)
{
    setMilestone(Milestone::localConstructorBegun);
    isOpen = LocalSocketPort::openPort() == 0;
    setMilestone(kind_.constructorExit);
}

LocalSocketPort::~LocalSocketPort()
{
    setMilestone(kind_.destructorEntry);
    (void)LocalSocketPort::closePort(); // always 0
    removeFile();                       // closePort() has done so, unless the port was closed all along
    setMilestone(kind_.destructorExit);
}

void LocalSocketPort::removeFile() const
{
    if (!g_isCopy) (void)std::remove(kind_.path); // somebody else may have been faster
}

int LocalSocketPort::openPort()
{
    setMilestone(Milestone::localOpenBegun);
    (void)std::remove(kind_.path); // no such file is the normal case
    if (!openSocket(AF_UNIX)) return 1;
    listenAddr = {};
    listenAddr.sun_family = AF_UNIX;
    putText(listenAddr.sun_path, kind_.path);
    listenAt(reinterpret_cast<const sockaddr*>(&listenAddr), sizeof listenAddr, kind_.bindFailure, kind_.listenFailure);
    setMilestone(Milestone::localOpenDone);
    return 0;
}

int LocalSocketPort::closePort()
{
    setMilestone(Milestone::localCloseBegun);
    if (closeEndpoint()) {
        logMessage(kind_.portClosed);
        removeFile();
    }
    setMilestone(Milestone::localCloseDone);
    return 0;
}

int LocalSocketPort::chkNewConn(TPortConn** newConn)
{
    setMilestone(Milestone::localCheckBegun);
    const int result = handOut(clientWaits() ? acceptClient() : nullptr, newConn);
    setMilestone(Milestone::localCheckDone);
    return result;
}

TPortConn* LocalSocketPort::acceptClient()
{
    TPortConn* conn = acceptConn(kind_.makeConn);
    if (conn == nullptr) return nullptr;
    if (!mayStay(*conn)) {
        (void)closeConn(&conn); // always 0
        return nullptr;
    }
    if (kind_.opened != nullptr) logMessage(*kind_.opened, Hex{announcedConnId()});
    return conn;
}

int LocalSocketPort::closeConn(TPortConn** conn)
{
    setMilestone(Milestone::localCloseConnBegun);
    if (dispose(conn) && kind_.closed != nullptr) logMessage(*kind_.closed, activeConns.load());
    setMilestone(Milestone::localCloseConnDone);
    return 0;
}
