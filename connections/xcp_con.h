#pragma once

#include <sys/types.h>

#include "connections/port_conn.h"

/// A local client of the XCP socket: text lines in frames, answers in frames.
/// A frame is a header of four 32-bit words in host byte order (two that are ignored, tag, payload length in bytes) and the
/// payload. Answers: the two words as the daemon's record has them, the low 16 bits of the tag, the text's length with its
/// NUL, the text with its NUL.
/// Owns: its descriptor.
class TXCPCon : public TPortConn {
public:
    static constexpr std::int32_t HEADER_BYTES = 16;
    static constexpr std::int32_t MAX_PAYLOAD_BYTES = RX_BYTES - HEADER_BYTES;
    static constexpr timeval FRAME_TIME{0, 100'000};

    TXCPCon(std::uint32_t portType, std::uint32_t id);
    ~TXCPCon() override;

    /// As TPortConn::readCmd(), one frame a call, but waits for a header of which only a part has arrived: within 100 ms it
    /// can become whole; after that the wait ends, with -1, only when the daemon is asked to stop (built with
    /// TESS_BOUNDED_WAITS: when the 100 ms are over).
    int readCmd() override;
    int write(TOrbAttachmentMsg* msg) override;
    int hasTimedOut() override { return 0; }
    void setEcho(int on) override { echoFlag = on != 0 ? 1 : 0; }
    int isSerialLine() override { return 0; }
    std::uint32_t getPortId() override { return portId; }

    std::uint8_t echoFlag = 1; ///< set and cleared by reads, without effect (deliberate)

private:
    ssize_t peek();
    bool waitForHeader();
};
