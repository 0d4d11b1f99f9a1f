#include "ports/local_socket_port.h"

#include <cstdio>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

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
    (void)std::remove(kind_.path);                                         // no such file is the normal case
    fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); // accept() must never block
    if (fd < 0) return 1;
    listenAddr = {};
    listenAddr.sun_family = AF_UNIX;
    putText(listenAddr.sun_path, kind_.path);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&listenAddr), sizeof listenAddr) != 0)
        throw std::runtime_error(kind_.bindFailure);
    if (::listen(fd, BACKLOG) != 0) throw std::runtime_error(kind_.listenFailure);
    setMilestone(OPEN_EXIT);
    return 0;
}

int TLocalSocketPort::closePort()
{
    setMilestone(CLOSE_ENTRY);
    if (isOpen) {
        (void)::close(fd); // nothing is left to do for a descriptor that fails to close
        activeConns = 0;
        isOpen = false;
        logMessage(kind_.portClosed);
        removeFile();
    }
    setMilestone(CLOSE_EXIT);
    return 0;
}

int TLocalSocketPort::chkNewConn(TPortConn** newConn)
{
    setMilestone(CHECK_ENTRY);
    TPortConn* const conn = clientWaits() ? acceptClient() : nullptr;
    if (conn != nullptr) *newConn = conn;
    setMilestone(CHECK_EXIT);
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
    setMilestone(CLOSE_CONN_ENTRY);
    if (*conn != nullptr) {
        delete *conn;
        *conn = nullptr;
        activeConns -= 1;
        if (kind_.closed != nullptr) logMessage(*kind_.closed, activeConns.load());
    }
    setMilestone(CLOSE_CONN_EXIT);
    return 0;
}
