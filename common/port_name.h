#pragma once

#include <cstdint>

#include "framework/tess_messages.h"

/// @param port  one bit (TessPortType)
/// @return the port's name, as tessctl has it; "delay" for delayed lines
constexpr const char* portName(std::uint32_t port)
{
    switch (port) {
    case PORT_COM2:
        return "com2";
    case PORT_TELNET:
        return "telnet";
    case PORT_XCP:
        return "xcp";
    case PORT_IPC:
        return "ipc";
    case PORT_DELAYED:
        return "delay";
    default:
        return "unknown";
    }
}
