#pragma once

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
    static constexpr std::chrono::milliseconds FRAME_TIME{100};

    TXCPCon(std::uint32_t portType, std::uint32_t id);
    ~TXCPCon() override;

    /// As TPortConn::readCmd(), one frame a call. Takes the header, and of the payload what has arrived by then; the rest is
    /// taken for the next header. A header of which only a part has arrived is waited for, until `due`: after FRAME_TIME,
    /// whole or not, the result is -1.
    int readCmd() override;
    int write(TOrbAttachmentMsg* msg) override;
    int hasTimedOut() override { return 0; }
    void setEcho(int on) override { echoFlag = on != 0 ? 1 : 0; }
    int isSerialLine() override { return 0; }
    std::uint32_t getPortId() override { return portId; }

    std::uint8_t echoFlag = 1; ///< set and cleared by reads, without effect (deliberate)

private:
    bool takeIn(std::int32_t bytes);
    int cutPayload();

    Instant frameEnd_ = NEVER; ///< when a header that has begun must be whole
};
