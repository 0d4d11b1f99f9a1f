#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/stat.h>
#include <utility>

#include "tools/tessctl/daemon_client.h"
#include "tools/tessctl/name_claim.h"

/// How a name is kept.
enum class Keep {
    whileFree, ///< refused where another tessctl has it; another process may take it
    takeOver,  ///< taken from another tessctl, which has it back at the end; another process may take it
    renewed,   ///< refused where another tessctl has it; taken back from other processes, every 10 seconds
};

/// Keeps a name registered, also when tessd is started anew: it asks that one until it is
/// registered there.
/// Threads: one.
class Registration {
public:
    /// Registers.
    /// @throws CtlError  the name is taken, or tessd refuses, or does not answer
    Registration(DaemonClient& daemon, std::string name, std::uint32_t ports, Keep keep);

    /// Takes the next record, as DaemonClient::receive(), and looks after the registration.
    std::size_t receive(TOrbAttachmentMsg& record);

    /// Unregisters, for good, without waiting for the answer. When that is not possible, prints
    /// why.
    /// @return whether it was possible
    bool end();

    /// Whether tessd has answered every request to unregister. All that it forwarded before has
    /// been received by then.
    bool unregistered() const { return unregistersDue_ == 0; }

private:
    using Clock = std::chrono::steady_clock;

    /// Tells whether a path leads to another file than the last time, or to one that was changed
    /// since.
    class FileMark {
    public:
        explicit FileMark(std::string path) : path_(std::move(path)) { see(); }

        void see() { (void)::stat(path_.c_str(), &seen_); } // a missing one has changed when it is there again
        bool changed() const;

    private:
        std::string path_;
        struct stat seen_ {};
    };

    /// Why it is not registered, as far as it knows.
    enum class Missing { no, atNewDaemon, takenOver, replaced, notAsked };

    void look(Clock::time_point now);
    void lookForOthers();
    void renew(Clock::time_point now);
    void ask(bool whetherReplaced);
    void unregister();
    void onReply(const TOrbAttachmentMsg& record);
    void onRegistered();
    void complain(const std::string& text);

    DaemonClient& daemon_;
    std::string name_;
    std::uint32_t ports_;
    Keep keep_;
    NameClaim claim_;
    FileMark daemonMark_;    ///< of tessd's socket file: each start makes a new one
    FileMark directoryMark_; ///< of the queue directory: changes when a process comes or goes
    Missing missing_ = Missing::no;
    bool aside_ = false;     ///< while another tessctl has taken the name over
    bool suspicious_ = true; ///< another process may have taken the name
    bool asked_ = false;     ///< to be registered, without an answer so far
    int unregistersDue_ = 0; ///< requests to unregister without an answer so far
    Clock::time_point askedAt_;
    Clock::time_point lastCommand_;
    Clock::time_point nextLook_;
    Clock::time_point nextRenewal_;
    std::string complaint_; ///< the last one: it is said once
};
