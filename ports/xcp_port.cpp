#include "ports/xcp_port.h"

#include "connections/xcp_con.h"
#include "framework/tess_messages.h"
#include "ports/port_log.h"

namespace {

constexpr LocalSocketKind xcpKind{
    .portType = PORT_XCP,
    // The first XCP connection gets ID 0x00570000, as the second COM2 connection does (deliberate).
    .firstConnId = 0x0056'0000,
    .path = XCP_SOCKET_PATH,
    .bindFailure = "failed binding to xcp socket",
    .listenFailure = "failed setting up xcp socket listener",
    .opened = &port_log::xcpOpened,
    .closed = &port_log::xcpClosed,
    .portClosed = port_log::xcpPortClosed,
    .constructorExit = Milestone::xcpConstructorDone,
    .destructorEntry = Milestone::xcpDestructorBegun,
    .destructorExit = Milestone::xcpDestructorDone,
    .makeConn = makeConn<TXCPCon>,
};

} // namespace

TXCPPort::TXCPPort() : LocalSocketPort(xcpKind) {}
