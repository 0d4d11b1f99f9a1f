#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <sys/socket.h>
#include <sys/un.h>

#include "framework/orb_attachment_msg.h"

/// Room for the records of one recvmmsg(2), and what it takes to ask for them; that is prepared
/// once, because most calls get one record. The first record goes where the owner wants it.
class RecordBatch {
public:
    /// A queue holds eleven datagrams where nobody has changed net.unix.max_dgram_qlen.
    static constexpr std::size_t MOST = 12;

    explicit RecordBatch(TOrbAttachmentMsg& first);
    RecordBatch(const RecordBatch&) = delete;
    RecordBatch& operator=(const RecordBatch&) = delete;

    /// To be received into. Afterwards `msg_len` is the real length of each datagram.
    std::span<mmsghdr> headers() { return std::span(headers_).first(wanted_); }

    /// How many are to be received, 1 to MOST.
    void want(std::size_t count) { wanted_ = count; }

    TOrbAttachmentMsg& record(std::size_t index) { return index == 0 ? first_ : others_[index - 1]; }
    const sockaddr_un& origin(std::size_t index) const { return origins_[index]; }

    /// Prepares those for the next call that the last one has received into.
    void reuse(std::size_t count);

private:
    TOrbAttachmentMsg& first_;
    std::size_t wanted_ = MOST;
    std::array<mmsghdr, MOST> headers_{};
    std::array<iovec, MOST> places_{};
    std::array<sockaddr_un, MOST> origins_{};
    std::array<TOrbAttachmentMsg, MOST - 1> others_; // left as they are: pages that are never used cost nothing
};
