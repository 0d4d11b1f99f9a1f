#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "framework/msg_proc.h"
#include "framework/orb_attachment_msg.h"

/// The queue directory, as every process of the device finds it.
std::string queueDirectory();

/// The socket file of a queue.
std::string queuePath(long address);

/// Finds out whether a live process owns a queue.
/// @return 0, else as errno has it
int queueError(long address);

/// Set by SIGINT and SIGTERM once TDaemonClient exists: whoever waits gives up.
bool stopAsked();

/// A queue of tessctl's own, and what it says to tessd over it. One a process.
/// Threads: send() any, the others one.
class TDaemonClient : public TMsgProc {
public:
    static constexpr std::chrono::seconds REPLY_PATIENCE{5};

    /// @param address  of its queue; a free one is taken when none is given
    /// @throws TCtlError  no queue directory, no tessd, no right, or the address is in use
    explicit TDaemonClient(std::optional<long> address = std::nullopt);

    int run() override { return 0; }

    /// Puts a record into tessd's queue.
    /// @param len   the record's len word
    /// @param text  the record's text, as it stands; cut to what a record holds
    /// @throws TCtlError  tessd is gone, or does not take it for 5 seconds
    void send(std::uint32_t kind, std::uint32_t tag, std::int32_t len, std::string_view text);

    /// Waits for a record, for a second at most.
    /// @return its size in bytes, 0 when there is none
    std::size_t receive(TOrbAttachmentMsg& record);

    /// Waits for tessd's answer to what was sent; other records are lost.
    /// @throws TCtlError  none within `patience`, or the user has stopped waiting
    TOrbAttachmentMsg reply(std::chrono::seconds patience = REPLY_PATIENCE);

    /// Registers, or registers again.
    /// @throws TCtlError  tessd refuses, or does not answer
    void registerAs(std::string_view name, std::uint32_t ports);

    /// Asks to be registered without waiting for the answer.
    void askToRegister(std::string_view name, std::uint32_t ports);
};
