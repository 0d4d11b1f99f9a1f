#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/stat.h>

#include "tools/tessctl/daemon_client.h"

/// Keeps a name registered, also when tessd is started anew: it asks that one until it is registered there.
/// Threads: one.
class TRegistration {
public:
    /// Registers.
    /// @throws TCtlError  tessd refuses, or does not answer
    TRegistration(TDaemonClient& daemon, std::string name, std::uint32_t ports);

    /// Takes the next record, as TDaemonClient::receive(), and looks after the registration.
    std::size_t receive(TOrbAttachmentMsg& record);

    /// Unregisters, for good, without waiting for the answer. Says why where it is not possible.
    /// @return false when it was not
    bool end();

private:
    using Clock = std::chrono::steady_clock;

    /// Tells one tessd from the next by the socket file of its queue.
    class DaemonMark {
    public:
        DaemonMark();

        /// @return true when there is another tessd than the last time
        bool changed();

    private:
        struct stat seen_ {};
    };

    void look();
    void onReply(const TOrbAttachmentMsg& record);
    void complain(const std::string& text);

    TDaemonClient& daemon_;
    std::string name_;
    std::uint32_t ports_;
    DaemonMark mark_;
    bool missing_ = false; ///< at this tessd
    bool asked_ = false;   ///< for it, without an answer so far
    Clock::time_point askedAt_;
    Clock::time_point nextLook_;
    std::string complaint_; ///< the last one: it is said once
};
