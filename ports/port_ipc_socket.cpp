#include "ports/port_ipc_socket.h"

#include "connections/socket_ipc_conn.h"
#include "framework/tess_messages.h"
#include "ports/port_log.h"

namespace {

constexpr LocalSocketKind ipcKind{
    .portType = PORT_IPC,
    .firstConnId = 0xBB00'0000,
    .path = IPC_SOCKET_PATH,
    .bindFailure = "failed binding to IPC socket",
    .listenFailure = "failed setting up IPC socket listener",
    .opened = nullptr, // this port logs neither (deliberate)
    .closed = nullptr,
    .portClosed = port_log::ipcPortClosed,
    .constructorExit = Milestone::ipcConstructorDone,
    .destructorEntry = Milestone::ipcDestructorBegun,
    .destructorExit = Milestone::ipcDestructorDone,
    .makeConn = makeConn<TSocketIPCConn>,
};

} // namespace

TPortIPCSocket::TPortIPCSocket() : LocalSocketPort(ipcKind) {}
