#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "framework/msg_proc.h"
#include "framework/orb_attachment_msg.h"

/// The queue directory, as every process of the device finds it.
std::string queueDirectory();

/// The socket file of a queue.
std::string queuePath(long address);

/// Finds out whether a live process owns a queue, by connecting a socket to it.
/// @return 0: one does; else why the socket could not be connected (errno(3)), for example ENOENT
///         where there is no such queue and ECONNREFUSED where the owner has died
int queueError(long address);

/// Whether SIGINT, SIGTERM or SIGHUP has come since a DaemonClient was made. What takes long asks
/// this, and ends early.
bool stopAsked();

/// Whether another of these has come after the first: nothing is waited for any more.
bool stopAskedAgain();

/// A queue of tessctl's own, and what it says to tessd over it. One a process. SIGPIPE is ignored
/// from then on.
/// Threads: send() any, the others one.
class DaemonClient : public TMsgProc {
public:
    static constexpr std::chrono::seconds REPLY_PATIENCE{5};

    /// @param address  of its queue; a free one is taken when none is given
    /// @throws CtlError  no queue directory, no tessd, no right, or the address is in use
    explicit DaemonClient(std::optional<long> address = std::nullopt);

    int run() override { return 0; }

    /// Puts a record into tessd's queue.
    /// @param len   the record's len word
    /// @param text  the record's text, as it stands; cut to what a record holds
    /// @throws CtlError  tessd is gone, or does not take it for 5 seconds
    void send(std::uint32_t kind, std::uint32_t tag, std::int32_t len, std::string_view text);

    /// Waits for a record, for a second at most.
    /// @return its size in bytes; 0: none came
    /// @throws CtlError  the queue cannot be read
    std::size_t receive(TOrbAttachmentMsg& record);

    /// Waits for tessd's answer to what was sent. Other records that arrive meanwhile are kept for
    /// receive(), 1000 at most; further ones are lost.
    /// @throws CtlError  none within `patience`, stopAsked(), or the queue cannot be read
    TOrbAttachmentMsg reply(std::chrono::seconds patience = REPLY_PATIENCE);

    /// Registers a name, and waits up to REPLY_PATIENCE for tessd's answer; without one it asks
    /// tessd to undo it.
    /// @param ports  the kinds of port, as bits (TessPortType)
    /// @throws CtlError  tessd refuses, or does not answer
    void registerAs(std::string_view name, std::uint32_t ports);

    /// Asks to be registered without waiting for the answer.
    void askToRegister(std::string_view name, std::uint32_t ports);

private:
    std::size_t take(TOrbAttachmentMsg& record);
    TOrbAttachmentMsg replyToRegister();

    std::deque<std::pair<std::unique_ptr<TOrbAttachmentMsg>, std::size_t>>
        kept_; ///< arrived before a reply, and their sizes
};
