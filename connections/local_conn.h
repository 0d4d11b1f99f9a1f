#pragma once

#include "connections/port_conn.h"

/// What the clients of both local sockets have in common: they need not log in and may be silent
/// for as long as they like. Owns: its descriptor.
class LocalConn : public TPortConn {
public:
    LocalConn(std::uint32_t portType, std::uint32_t id);
    ~LocalConn() override;

    int hasTimedOut() override { return 0; }
    void setEcho(int on) override { echoFlag = on != 0 ? 1 : 0; }
    int isSerialLine() override { return 0; }
    std::uint32_t getPortId() override { return portId; }

    std::uint8_t echoFlag = 1; ///< set and cleared by reads; nothing is ever echoed (deliberate)
};
