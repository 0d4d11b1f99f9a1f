#include "ports/port_ipc_socket.h"

#include "connections/socket_ipc_conn.h"
#include "framework/tess_messages.h"
#include "ports/port_log.h"

namespace {

TPortConn* makeIpcConn(std::uint32_t portType, std::uint32_t connId)
{
    return new TSocketIPCConn(portType, connId);
}

constexpr LocalSocketKind ipcKind{
    .portType = PORT_IPC,
    .firstConnId = 0xBB00'0000,
    .path = IPC_SOCKET_PATH,
    .bindFailure = "failed binding to IPC socket",
    .listenFailure = "failed setting up IPC socket listener",
    .opened = nullptr, // this port logs neither (deliberate)
    .closed = nullptr,
    .portClosed = port_log::ipcPortClosed,
    .milestones = {1020, 1021, 1022, 1023},
    .makeConn = makeIpcConn,
};

} // namespace

TPortIPCSocket::TPortIPCSocket() : TLocalSocketPort(ipcKind) {}
