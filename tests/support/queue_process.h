#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "framework/orb_attachment_msg.h"
#include "tests/support/raw_socket.h"
#include "tests/support/temp_dir.h"

/// A new directory for queues, which TESS_QUEUE_DIR names while it lives.
class TempQueueDir : public TempDir {
public:
    TempQueueDir();
    TempQueueDir(const TempQueueDir&) = delete;
    TempQueueDir& operator=(const TempQueueDir&) = delete;
    ~TempQueueDir();

    /// The path of a queue's socket.
    std::string pathOf(long address) const;
};

/// A record as it came, with the length it had.
struct Received {
    TOrbAttachmentMsg record;
    std::size_t length;

    std::string_view text() const { return record.text; }
    /// Exactly what came behind the header.
    std::string_view textBytes() const { return {record.text, length - MSG_HEADER_BYTES}; }
};

/// Another process of the device: a queue of its own, in plain system calls. The directory outlives
/// it.
class QueueProcess {
public:
    QueueProcess(const TempQueueDir& directory, long address);
    QueueProcess(const QueueProcess&) = delete;
    QueueProcess& operator=(const QueueProcess&) = delete;
    ~QueueProcess();

    long address() const { return address_; }

    /// The next record, waited for.
    std::optional<Received> receive() const;
    /// Whatever is there now.
    std::vector<Received> receiveAll() const;
    /// The texts of what is there now.
    std::vector<std::string> receiveTexts() const;

    /// @return false when the record could not be sent
    bool send(long to, const TOrbAttachmentMsg& record, std::size_t length) const;

    /// Ends like a process that dies: the socket file stays.
    void die() { socket_.reset(); }

private:
    std::optional<Received> take() const;

    const TempQueueDir& directory_;
    long address_;
    std::optional<RawSocket> socket_;
};

/// A record with a text and its NUL, and the length of both.
struct Outgoing {
    TOrbAttachmentMsg record{};
    std::size_t length = MSG_HEADER_BYTES;
};

Outgoing message(std::uint32_t kind, std::string_view text = {}, std::uint32_t tag = 0, std::int32_t len = 0);

/// A register message; the name is sent without a NUL when `nul` is false.
Outgoing registration(std::uint32_t portMask, std::string_view name, bool nul = true);
