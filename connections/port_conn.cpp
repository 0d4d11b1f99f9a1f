#include "connections/port_conn.h"

#include <cstring>

TPortConn::TPortConn(std::uint32_t portType, std::uint32_t id) : connId(id), portId(portType)
{
    FD_ZERO(&readSet);
}

std::size_t TPortConn::textLength(const TOrbAttachmentMsg& msg)
{
    return ::strnlen(msg.text, MSG_TEXT_BYTES - 1);
}
