#include "ports/local_socket_port.h"

#include <cstdio>

#include "common/milestone.h"
#include "common/process_copy.h"
#include "framework/fixed_text.h"

namespace {

// The same numbers for both kinds (deliberate).
enum : std::int32_t {
    OPEN_ENTRY = 1024,
    OPEN_EXIT = 1025,
    CLOSE_ENTRY = 1026,
    CLOSE_EXIT = 1027,
    CHECK_ENTRY = 1028,
    CHECK_EXIT = 1029,
    CLOSE_CONN_ENTRY = 1030,
    CLOSE_CONN_EXIT = 1031,
};

} // namespace

TLocalSocketPort::TLocalSocketPort(const LocalSocketKind& kind)
    : TCmdPort(kind.portType, MAX_CONNS, kind.firstConnId), kind_(kind)
{
    setMilestone(kind_.milestones.constructorEntry);
    isOpen = TLocalSocketPort::openPort() == 0;
    setMilestone(kind_.milestones.constructorExit);
}

TLocalSocketPort::~TLocalSocketPort()
{
    setMilestone(kind_.milestones.destructorEntry);
    (void)TLocalSocketPort::closePort(); // always 0
    removeFile();                        // closePort() has done so, unless the port was closed all along
    setMilestone(kind_.milestones.destructorExit);
}

void TLocalSocketPort::removeFile() const
{
    if (!g_isCopy) (void)std::remove(kind_.path); // somebody else may have been faster
}

int TLocalSocketPort::openPort()
{
    setMilestone(OPEN_ENTRY);
    (void)std::remove(kind_.path); // no such file is the normal case
    if (!openSocket(AF_UNIX)) return 1;
    listenAddr = {};
    listenAddr.sun_family = AF_UNIX;
    putText(listenAddr.sun_path, kind_.path);
    listenAt(reinterpret_cast<const sockaddr*>(&listenAddr), sizeof listenAddr, kind_.bindFailure, kind_.listenFailure);
    setMilestone(OPEN_EXIT);
    return 0;
}

int TLocalSocketPort::closePort()
{
    setMilestone(CLOSE_ENTRY);
    if (closeEndpoint()) {
        logMessage(kind_.portClosed);
        removeFile();
    }
    setMilestone(CLOSE_EXIT);
    return 0;
}

int TLocalSocketPort::chkNewConn(TPortConn** newConn)
{
    setMilestone(CHECK_ENTRY);
    const int result = handOut(clientWaits() ? acceptClient() : nullptr, newConn);
    setMilestone(CHECK_EXIT);
    return result;
}

TPortConn* TLocalSocketPort::acceptClient()
{
    TPortConn* conn = acceptConn(kind_.makeConn);
    if (conn == nullptr) return nullptr;
    if (!mayStay(*conn)) {
        (void)closeConn(&conn); // always 0
        return nullptr;
    }
    if (kind_.opened != nullptr)
        logMgr.log(kind_.opened->id, (FixedText<96>() << kind_.opened->text).hex(announcedConnId()).c_str());
    return conn;
}

int TLocalSocketPort::closeConn(TPortConn** conn)
{
    setMilestone(CLOSE_CONN_ENTRY);
    if (dispose(conn) && kind_.closed != nullptr)
        logMgr.log(kind_.closed->id, (FixedText<96>() << kind_.closed->text << activeConns.load()).c_str());
    setMilestone(CLOSE_CONN_EXIT);
    return 0;
}
