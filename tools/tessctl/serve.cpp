#include "tools/tessctl/serve.h"

#include <condition_variable>
#include <csignal>
#include <cstring>
#include <deque>
#include <mutex>
#include <string_view>
#include <sys/stat.h>
#include <thread>
#include <utility>

#include "framework/tess_messages.h"
#include "tools/tessctl/daemon_client.h"
#include "tools/tessctl/program.h"
#include "tools/tessctl/reply_text.h"
#include "tools/tessctl/say.h"

namespace {

struct Command {
    std::uint32_t tag = 0;
    std::string line;
};

/// Answers commands one after the other, in a thread of its own.
class Answerer {
public:
    Answerer(TDaemonClient& daemon, const ServeOptions& options)
        : daemon_(daemon), options_(options), thread_([this] { work(); })
    {
    }
    Answerer(const Answerer&) = delete;
    Answerer& operator=(const Answerer&) = delete;

    /// Answers what it has been given, and ends.
    ~Answerer()
    {
        {
            const std::scoped_lock lock(lock_);
            ending_ = true;
        }
        changed_.notify_one();
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
        reply(command.tag, replyText("", "too many commands wait for " + options_.name));
    }

private:
    void work()
    {
        std::unique_lock lock(lock_);
        for (;;) {
            changed_.wait(lock, [this] { return ending_ || !waiting_.empty(); });
            if (waiting_.empty()) return;
            const Command command = std::move(waiting_.front());
            waiting_.pop_front();
            lock.unlock();
            const ProgramResult result =
                runProgram(options_.program, command.line + '\n', options_.timeLimit, MOST_OUTPUT_BYTES);
            reply(command.tag, replyText(result.output, result.failure));
            lock.lock();
        }
    }

    void reply(std::uint32_t tag, const std::string& text)
    try {
        for (const std::string_view message : replyMessages(text))
            daemon_.send(MSG_REPLY, tag, 0, std::string(message) + '\0');
    } catch (const TCtlError& error) {
        say(std::string("an answer is lost: ") + error.what());
    }

    TDaemonClient& daemon_;
    const ServeOptions& options_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::deque<Command> waiting_;
    bool ending_ = false;
    std::thread thread_; // the last: it uses all the others
};

/// Tells one tessd from the next by the socket file of its queue.
class DaemonMark {
public:
    DaemonMark() { (void)::stat(queuePath(TESS_QUEUE_ID).c_str(), &seen_); }

    /// @return true when there is another tessd than the last time
    bool changed()
    {
        struct stat now {};
        if (::stat(queuePath(TESS_QUEUE_ID).c_str(), &now) != 0) return false;
        const bool same = now.st_ino == seen_.st_ino && now.st_ctim.tv_sec == seen_.st_ctim.tv_sec &&
                          now.st_ctim.tv_nsec == seen_.st_ctim.tv_nsec;
        if (!same && queueError(TESS_QUEUE_ID) != 0) return false; // not ready yet
        seen_ = now;
        return !same;
    }

private:
    struct stat seen_ {};
};

/// A command without the LF and the NUL that it travels with.
std::string lineOf(const TOrbAttachmentMsg& record)
{
    std::string line(record.text, ::strnlen(record.text, sizeof record.text));
    if (line.ends_with('\n')) line.pop_back();
    return line;
}

class Server {
public:
    explicit Server(const ServeOptions& options)
        : options_(options), daemon_(options.address), answerer_(daemon_, options)
    {
        daemon_.registerAs(options_.name, options_.ports);
        say(options_.name + " is served at address " + std::to_string(daemon_.queueId()));
    }

    void serve()
    {
        auto look = std::chrono::steady_clock::now();
        while (!stopAsked()) {
            (void)takeOne();
            if (std::chrono::steady_clock::now() < look) continue;
            look += std::chrono::seconds(1);
            if (mark_.changed()) registerAgain();
        }
        leave();
    }

private:
    /// @return the kind of what came from tessd, 0 when nothing did within a second
    std::uint32_t takeOne()
    {
        TOrbAttachmentMsg record;
        if (daemon_.receive(record) == 0 || record.sender != TESS_QUEUE_ID) return 0; // nobody else gives orders here
        if (record.kind == MSG_TEXT) answerer_.give({record.tag, lineOf(record)});
        if (record.kind == MSG_REPLY) onReply(record);
        return record.kind;
    }

    void onReply(const TOrbAttachmentMsg& record)
    {
        if (record.tag != 0)
            say(std::string("tessd refuses: ") + record.text);
        else if (askedAgain_)
            say("tessd was started anew, " + options_.name + " has registered again");
        askedAgain_ = false;
    }

    void registerAgain()
    try {
        daemon_.askToRegister(options_.name, options_.ports);
        askedAgain_ = true;
    } catch (const TCtlError& error) {
        say(std::string("not registered again: ") + error.what());
    }

    /// What tessd has forwarded before it reads this still wants its answer; its reply comes behind it.
    void leave()
    try {
        daemon_.send(MSG_UNREGISTER, 0, 0, "");
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (takeOne() != MSG_REPLY && std::chrono::steady_clock::now() < deadline) {
        }
    } catch (const TCtlError& error) {
        say(std::string("not unregistered: ") + error.what());
    }

    const ServeOptions& options_;
    DaemonMark mark_;
    bool askedAgain_ = false;
    TDaemonClient daemon_;
    Answerer answerer_;
};

} // namespace

ExitStatus runServe(const ServeOptions& options)
{
    (void)std::signal(SIGPIPE, SIG_IGN); // a program need not read its input
    Server(options).serve();
    return STATUS_DONE;
}
