#include "connections/port_conn.h"

#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

TPortConn::TPortConn(std::uint32_t portType, std::uint32_t id) : connId(id), portId(portType)
{
    FD_ZERO(&readSet);
}

std::size_t TPortConn::textLength(const TOrbAttachmentMsg& msg)
{
    return ::strnlen(msg.text, MSG_TEXT_BYTES - 1);
}

void TPortConn::closeSocket() const
{
    if (fd <= 0) return;
    // The service loop may be waiting for the socket, or the child of a reset may have it: close() alone would tell nobody.
    (void)::shutdown(fd, SHUT_RDWR); // a peer that has gone needs to be told nothing
    (void)::close(fd);               // nothing is left to do for a descriptor that fails to close
}
