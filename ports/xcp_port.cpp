#include "ports/xcp_port.h"

#include "connections/xcp_con.h"
#include "framework/tess_messages.h"
#include "ports/port_log.h"

namespace {

TPortConn* makeXcpConn(std::uint32_t portType, std::uint32_t connId)
{
    return new TXCPCon(portType, connId);
}

constexpr LocalSocketKind xcpKind{
    .portType = PORT_XCP,
    .firstConnId = 0x0056'0000, // the second COM2 connection gets the same first ID (deliberate)
    .path = XCP_SOCKET_PATH,
    .bindFailure = "failed binding to xcp socket",
    .listenFailure = "failed setting up xcp socket listener",
    .opened = &port_log::xcpOpened,
    .closed = &port_log::xcpClosed,
    .portClosed = port_log::xcpPortClosed,
    .milestones = {1020, 1111, 1112, 1113},
    .makeConn = makeXcpConn,
};

} // namespace

TXCPPort::TXCPPort() : TLocalSocketPort(xcpKind) {}
