#pragma once

#include "connections/local_conn.h"

/// A local client of the XCP socket: text lines in frames, answers in frames. A frame is a header
/// of four 32-bit words in host byte order (two that are ignored, tag, payload length in bytes) and
/// the payload. Answers: the two words as the daemon's record has them, the low 16 bits of the tag,
/// the text's length with its NUL, the text with its NUL.
class TXCPCon : public LocalConn {
public:
    static constexpr std::int32_t HEADER_BYTES = 16;
    static constexpr std::int32_t MAX_PAYLOAD_BYTES = RX_BYTES - HEADER_BYTES;
    static constexpr std::chrono::milliseconds FRAME_TIME{100};

    using LocalConn::LocalConn;

    /// As TPortConn::readCmd(), one frame a call. Takes the header, and of the payload what has
    /// arrived by then; the rest is taken for the next header. A header of which only a part has
    /// arrived is waited for, until `due`: after FRAME_TIME, whole or not, the result is -1.
    int readCmd() override;

protected:
    std::string_view toBeSent(TOrbAttachmentMsg& msg) const override;
    int send(TOrbAttachmentMsg& msg) override;

private:
    void dropFrame();
    bool takeIn(std::int32_t bytes);
    int cutFrame();

    std::int32_t frameLen_ = 0;                ///< bytes in rxBuf that are done with when the next frame is read
    std::int32_t lastFrameLen_ = HEADER_BYTES; ///< as its header says; clients that send alike frames need one call
    Instant frameEnd_ = NEVER;                 ///< when a header that has begun must be whole; NEVER: none has
};
