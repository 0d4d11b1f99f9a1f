#pragma once

#include "connections/port_conn.h"

/// A local client of the IPC socket: plain text lines in, plain text out.
/// Owns: its descriptor.
class TSocketIPCConn : public TPortConn {
public:
    TSocketIPCConn(std::uint32_t portType, std::uint32_t id);
    ~TSocketIPCConn() override;

    int readCmd() override;
    int write(TOrbAttachmentMsg* msg) override;
    int hasTimedOut() override { return 0; }
    void setEcho(int on) override { echoFlag = on != 0 ? 1 : 0; }
    int isSerialLine() override { return 0; }
    std::uint32_t getPortId() override { return portId; }

    std::uint8_t echoFlag = 1; ///< cleared by every read, so nothing is ever echoed (deliberate)
};
