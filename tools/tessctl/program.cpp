#include "tools/tessctl/program.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "framework/fd.h"
#include "tools/tessctl/argument_list.h"
#include "tools/tessctl/seconds_text.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Pipe {
    std::array<int, 2> ends{-1, -1};
    int error = ::pipe2(ends.data(), O_CLOEXEC) == 0 ? 0 : errno;
    Fd reading{ends[0]};
    Fd writing{ends[1]};
};

std::string reason(int error)
{
    return std::generic_category().message(error);
}

/// @return 0 and the child's process number, else as errno has it
int spawn(const std::vector<std::string>& words, int input, int output, pid_t& child)
{
    const std::vector<char*> arguments = argumentList(words);
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    sigset_t none{};
    sigset_t all{};
    ::sigemptyset(&none);
    ::sigfillset(&all);
    ::posix_spawnattr_init(&attributes);
    ::posix_spawnattr_setsigmask(&attributes, &none);
    ::posix_spawnattr_setsigdefault(&attributes, &all);
    ::posix_spawnattr_setpgroup(&attributes, 0);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    const int error = ::posix_spawnp(&child, arguments[0], &actions, &attributes, arguments.data(), environ);
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
    return error;
}

enum class End { itsOwn, timeOver, givenUp };

constexpr int LOOK_FOR_END_MS = 10; // where the kernel has no descriptor that tells
constexpr int PIECES_AT_ONCE = 4;
constexpr int PIECES_LEFT = 64; // times 16384 bytes: more than a pipe holds

/// Talks to a child until it has ended or its time is over.
class Dialogue {
public:
    Dialogue(pid_t child, Fd& toChild, const Fd& fromChild, std::string_view input, std::size_t outputLimit, int giveUp)
        : child_(child), giveUp_(giveUp), toChild_(toChild), fromChild_(fromChild),
          ended_(static_cast<int>(::syscall(SYS_pidfd_open, child, 0U))), input_(input), outputLimit_(outputLimit)
    {
        (void)::fcntl(toChild.get(), F_SETFL, O_NONBLOCK);
        (void)::fcntl(fromChild.get(), F_SETFL, O_NONBLOCK);
    }

    End run(std::chrono::milliseconds timeLimit)
    {
        const auto deadline = Clock::now() + timeLimit;
        for (;;) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (left <= 0) return End::timeOver;
            const std::int64_t atMost = ended_.get() >= 0 ? 1'000'000 : LOOK_FOR_END_MS;
            std::array<pollfd, 4> each{{{ended_.get(), POLLIN, 0},
                                        {reading_ ? fromChild_.get() : -1, POLLIN, 0},
                                        {toChild_.get(), POLLOUT, 0},
                                        {giveUp_, POLLIN, 0}}};
            (void)::poll(each.data(), each.size(), static_cast<int>(std::min<std::int64_t>(left, atMost)));
            if (each[2].revents != 0) write();
            if (each[1].revents != 0) read(PIECES_AT_ONCE);
            if (each[0].revents != 0 || (ended_.get() < 0 && hasEnded())) {
                read(PIECES_LEFT); // what is in the pipe; children of the child may write more, unread
                return End::itsOwn;
            }
            if (each[3].revents != 0) return End::givenUp;
        }
    }

    std::string& output() { return output_; }
    bool overflow() const { return overflow_; }

private:
    void write()
    {
        const ssize_t count = ::write(toChild_.get(), input_.data(), input_.size());
        if (count > 0) input_.remove_prefix(static_cast<std::size_t>(count));
        const bool refused = count < 0 && errno != EAGAIN && errno != EINTR; // the child has closed its standard input
        if (input_.empty() || refused) toChild_.reset();
    }

    /// For kernels before 5.3, which have no descriptors for processes. Only looks: waitpid()
    /// collects the child later.
    bool hasEnded() const
    {
        siginfo_t info{};
        return ::waitid(P_PID, static_cast<id_t>(child_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0;
    }

    /// @param pieces  to read at most: a child that prints without end must not keep the loop from
    ///                everything else
    void read(int pieces)
    {
        std::array<char, 16384> bytes; // NOLINT(cppcoreguidelines-pro-type-member-init): read fills it
        for (; pieces > 0; --pieces) {
            const ssize_t count = ::read(fromChild_.get(), bytes.data(), bytes.size());
            if (count < 0) return;
            if (count == 0) {
                reading_ = false;
                return;
            }
            const std::size_t fits = std::min(static_cast<std::size_t>(count), outputLimit_ - output_.size());
            output_.append(bytes.data(), fits);
            if (fits < static_cast<std::size_t>(count)) overflow_ = true;
        }
    }

    pid_t child_;
    int giveUp_;
    Fd& toChild_;
    const Fd& fromChild_;
    Fd ended_;
    std::string_view input_;
    std::size_t outputLimit_;
    std::string output_;
    bool reading_ = true;
    bool overflow_ = false;
};

} // namespace

ProgramResult runProgram(const std::vector<std::string>& words, std::string_view input,
                         std::chrono::milliseconds timeLimit, std::size_t outputLimit, int giveUp)
{
    const std::string& name = words.front();
    Pipe in;
    Pipe out;
    pid_t child = 0;
    int error = in.error != 0 ? in.error : out.error;
    if (error == 0) error = spawn(words, in.reading.get(), out.writing.get(), child);
    if (error != 0) return {{}, name + ": " + reason(error)};
    in.reading.reset();
    out.writing.reset();

    Dialogue dialogue(child, in.writing, out.reading, input, outputLimit, giveUp);
    const End end = dialogue.run(timeLimit);
    if (end != End::itsOwn) (void)::kill(-child, SIGKILL);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    ProgramResult result{std::move(dialogue.output()), {}};
    if (end == End::givenUp)
        result.failure = name + " was not waited for any longer";
    else if (end == End::timeOver)
        result.failure = name + " did not end within " + secondsText(timeLimit);
    else if (WIFSIGNALED(status))
        result.failure = name + " was ended by signal " + std::to_string(WTERMSIG(status));
    else if (WEXITSTATUS(status) != 0)
        result.failure = name + " ended with status " + std::to_string(WEXITSTATUS(status));
    else if (dialogue.overflow())
        result.failure = name + " printed more than " + std::to_string(outputLimit) + " bytes";
    return result;
}
