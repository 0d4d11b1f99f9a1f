#include "tools/tessctl/serve.h"

#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <mutex>
#include <poll.h>
#include <string_view>
#include <sys/eventfd.h>
#include <system_error>
#include <thread>
#include <utility>

#include "framework/fd.h"
#include "framework/log_mgr.h"
#include "framework/reply_text.h"
#include "framework/tess_messages.h"
#include "tools/tessctl/daemon_client.h"
#include "tools/tessctl/program.h"
#include "tools/tessctl/record_text.h"
#include "tools/tessctl/registration.h"
#include "tools/tessctl/say.h"
#include "tools/tessctl/standard_output.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds END_PATIENCE{10};
constexpr std::chrono::milliseconds BETWEEN_LOOKS{50};

struct Command {
    std::uint32_t tag = 0;
    std::string line;
};

/// Something that happens once, and that poll(2) can wait for.
class EventFd {
public:
    EventFd() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    {
        if (fd_.get() < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    }

    int fd() const { return fd_.get(); }
    void set() const { (void)::eventfd_write(fd(), 1); } // fails only when the count is full
    bool isSet() const
    {
        pollfd event{fd(), POLLIN, 0};
        return ::poll(&event, 1, 0) > 0;
    }

private:
    Fd fd_;
};

/// Answers commands one after the other, in a thread of its own.
class Answerer {
public:
    Answerer(DaemonClient& daemon, const ServeOptions& options) : daemon_(daemon), options_(options)
    {
        sigset_t all{};
        sigset_t before{};
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before); // the new thread inherits that: signals go to this one
        thread_ = std::thread([this] { work(); });
        ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    Answerer(const Answerer&) = delete;
    Answerer& operator=(const Answerer&) = delete;

    /// Answers what it has been given, and ends. What is not done after END_PATIENCE, or when the
    /// user asks again, is answered with an error.
    ~Answerer()
    {
        const auto deadline = Clock::now() + END_PATIENCE;
        std::unique_lock lock(lock_);
        ending_ = true;
        changed_.notify_one();
        while (!ended_.wait_for(lock, BETWEEN_LOOKS, [this] { return done_; }))
            if (stopAskedAgain() || Clock::now() > deadline) giveUp_.set();
        lock.unlock();
        thread_.join();
    }

    void give(Command command)
    {
        {
            const std::scoped_lock lock(lock_);
            if (waiting_.size() < MOST_WAITING) {
                waiting_.push_back(std::move(command));
                changed_.notify_one();
                return;
            }
        }
        (void)reply(command.tag, replyText("", "too many commands wait for " + options_.name));
    }

private:
    void work()
    {
        std::unique_lock lock(lock_);
        for (;;) {
            changed_.wait(lock, [this] { return ending_ || !waiting_.empty(); });
            if (waiting_.empty()) break;
            const Command command = std::move(waiting_.front());
            waiting_.pop_front();
            lock.unlock();
            const bool answered = reply(command.tag, answerTo(command));
            lock.lock();
            if (!answered && giveUp_.isSet()) waiting_.clear(); // they could not be sent either
        }
        done_ = true;
        ended_.notify_one();
    }

    std::string answerTo(const Command& command)
    {
        if (giveUp_.isSet()) return replyText("", options_.name + " is no longer served");
        const ProgramResult result =
            runProgram(options_.program, command.line + '\n', options_.timeLimit, MOST_OUTPUT_BYTES, giveUp_.fd());
        return replyText(result.output, result.failure);
    }

    bool reply(std::uint32_t tag, const std::string& text)
    try {
        for (const std::string_view message : replyMessages(text))
            daemon_.send(MSG_REPLY, tag, 0, std::string(message) + '\0');
        return true;
    } catch (const CtlError& error) {
        say(std::string("an answer is lost: ") + error.what());
        return false;
    }

    DaemonClient& daemon_;
    const ServeOptions& options_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::condition_variable ended_;
    std::deque<Command> waiting_;
    bool ending_ = false;
    bool done_ = false;
    EventFd giveUp_;
    std::thread thread_;
};

/// A command without the LF and the NUL that it travels with.
std::string lineOf(const TOrbAttachmentMsg& record)
{
    std::string line(textOf(record));
    if (line.ends_with('\n')) line.pop_back();
    return line;
}

class Server {
public:
    explicit Server(const ServeOptions& options)
        : options_(options), daemon_(options.address),
          registration_(daemon_, options.name, options.ports, Keep::renewed), answerer_(daemon_, options)
    {
        say(options.name + " is served at address " + std::to_string(daemon_.queueId()));
        logMgr.initAfterDaemonize(); // for the service manager, if one has started it
    }

    void serve()
    {
        while (!stopAsked() && !(options_.untilUnread && outputIsUnread()))
            takeOne();
        leave();
    }

private:
    /// Waits for a second at most.
    void takeOne()
    {
        TOrbAttachmentMsg record;
        if (registration_.receive(record) == 0 || record.sender != TESS_QUEUE_ID)
            return; // commands come from tessd alone
        if (record.kind == MSG_TEXT) answerer_.give({record.tag, lineOf(record)});
    }

    /// Unregisters. Commands that tessd forwarded before it read this request still want an answer.
    /// They arrive before tessd's reply to the request, which therefore ends the wait.
    void leave()
    {
        if (!registration_.end()) return;
        const auto deadline = Clock::now() + DaemonClient::REPLY_PATIENCE;
        while (!registration_.unregistered() && Clock::now() < deadline && !stopAskedAgain())
            takeOne();
    }

    const ServeOptions& options_;
    DaemonClient daemon_;
    Registration registration_;
    Answerer answerer_; // the last member, and so destroyed first: it answers through daemon_
};

} // namespace

ExitStatus runServe(const ServeOptions& options)
{
    Server(options).serve();
    return STATUS_DONE;
}
