#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::size_t MSG_HEADER_BYTES = 16;
inline constexpr std::size_t MSG_RECORD_BYTES = 8192;
inline constexpr std::size_t MSG_TEXT_BYTES = MSG_RECORD_BYTES - MSG_HEADER_BYTES;

/// One message record, as it lies in a queue: four 32-bit words in host byte order, then text. Only
/// as many bytes travel as the sender's length says; the receiver's record is zero behind them.
struct TOrbAttachmentMsg {
    std::uint32_t kind;        ///< message kind, agreed between the two processes (tessd's: tess_messages.h)
    std::int32_t sender;       ///< on a received record the sender's queue address, 0 when it has none
    std::uint32_t tag;         ///< kind-specific; tessd: connection in the upper, client's tag in the lower 16 bits
    std::int32_t len;          ///< kind-specific count of bytes or status
    char text[MSG_TEXT_BYTES]; ///< NUL-terminated text or raw bytes
};

static_assert(sizeof(TOrbAttachmentMsg) == MSG_RECORD_BYTES);
static_assert(offsetof(TOrbAttachmentMsg, tag) == 8 && offsetof(TOrbAttachmentMsg, len) == 12);
static_assert(offsetof(TOrbAttachmentMsg, text) == MSG_HEADER_BYTES);
