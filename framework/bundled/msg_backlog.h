#pragma once

#include <cstddef>

#include "framework/orb_attachment_msg.h"

/// Records that arrived while their receiver was waiting to send, in order of arrival.
/// Threads: no lock of its own; the caller's lock guards it.
class MsgBacklog {
public:
    /// Chosen, not measured: 2000 full records, or some 200000 short ones.
    static constexpr std::size_t LIMIT_BYTES = 16U * 1024 * 1024;

    constexpr MsgBacklog() = default;

    /// Room for one more record of full size, behind the last one.
    /// @return where to write it, the backlog's own; null: the backlog is full, or there is no
    ///         memory
    TOrbAttachmentMsg* reserve();

    /// Keeps what was written into the reserved room.
    /// @param length  bytes written, MSG_HEADER_BYTES to MSG_RECORD_BYTES; only so many are stored
    void keep(std::size_t length);

    /// Takes the oldest record out.
    /// @param to  only its first bytes are written
    /// @return its length; 0: there is none
    std::size_t take(TOrbAttachmentMsg* to);

    /// Forgets all records and frees all memory.
    void clear();

private:
    struct Node;

    Node* first_ = nullptr;
    Node* last_ = nullptr;
    Node* reserved_ = nullptr; ///< room given out by reserve(), or left over from it
    std::size_t bytes_ = 0;    ///< memory that the kept records take
};
