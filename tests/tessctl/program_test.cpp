#include "tools/tessctl/program.h"

#include <csignal>
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/waiting.h"
#include "tests/support/waiting_thread.h"

namespace {

using std::chrono::milliseconds;

constexpr milliseconds LONG{60'000};

ProgramResult shell(const std::string& script, std::string_view input = "", milliseconds timeLimit = LONG,
                    std::size_t outputLimit = 1000)
{
    (void)std::signal(SIGPIPE, SIG_IGN);
    return runProgram({"sh", "-c", script}, input, timeLimit, outputLimit);
}

} // namespace

TEST(Program, GetsItsInputAndGivesItsOutput)
{
    const ProgramResult result = shell("read line; echo \"<$line>\"; cat", "one\ntwo\n");
    EXPECT_EQ(result.output, "<one>\ntwo\n");
    EXPECT_EQ(result.failure, "");
}

TEST(Program, NeedNotReadItsInput)
{
    const ProgramResult result = shell("exec <&-; echo done", std::string(1'000'000, 'x'));
    EXPECT_EQ(result.output, "done\n");
    EXPECT_EQ(result.failure, "");
}

TEST(Program, ReportsHowItHasFailed)
{
    EXPECT_EQ(shell("echo half; exit 3").failure, "sh ended with status 3");
    EXPECT_EQ(shell("echo half; exit 3").output, "half\n");
    EXPECT_EQ(shell("kill -9 $$").failure, "sh was ended by signal 9");
    EXPECT_EQ(runProgram({"/nowhere/at-all"}, "", LONG, 10).failure, "/nowhere/at-all: No such file or directory");
    EXPECT_EQ(runProgram({"/etc/passwd"}, "", LONG, 10).failure, "/etc/passwd: Permission denied");
}

TEST(Program, IsKilledWithItsChildrenWhenItsTimeIsOver)
{
    const Stopwatch watch;
    const ProgramResult result = shell("sleep 1000 & echo $!; wait", "", milliseconds(300));
    EXPECT_GE(watch.ms(), 300);
    EXPECT_LT(watch.ms(), atMost(3000));
    EXPECT_EQ(result.failure, "sh did not end within 0.3 s");
    const pid_t child = std::stoi(result.output);
    ASSERT_GT(child, 0);
    EXPECT_TRUE(waitUntil([&] {
        std::ifstream stat("/proc/" + std::to_string(child) + "/stat"); // a zombie that nobody collects is dead too
        std::string word;
        stat >> word >> word >> word;
        return !stat || word == "Z";
    })) << "process "
        << child;
}

TEST(Program, IsNotWaitedForBeyondItsEnd)
{
    const Stopwatch watch;
    const ProgramResult result = shell("sleep 20 2>/dev/null & echo done"); // the child keeps the pipe open
    EXPECT_EQ(result.output, "done\n");
    EXPECT_EQ(result.failure, "");
    EXPECT_LT(watch.ms(), 10'000);
}

TEST(Program, IsReadUpToALimit)
{
    const ProgramResult result = shell("head -c 1000000 /dev/zero | tr '\\0' x", "", LONG, 500);
    EXPECT_EQ(result.output, std::string(500, 'x'));
    EXPECT_EQ(result.failure, "sh printed more than 500 bytes");
    EXPECT_EQ(shell("printf %500s", "", LONG, 500).failure, "") << "the limit itself is allowed";
}

TEST(Program, IsStoppedAtItsTimeLimitAlsoWhenItPrintsWithoutEnd)
{
    const Stopwatch watch;
    const ProgramResult result = shell("exec yes", "", milliseconds(300), 500);
    EXPECT_EQ(result.failure, "sh did not end within 0.3 s");
    EXPECT_EQ(result.output.size(), 500U);
    EXPECT_LT(watch.ms(), atMost(3000));
}

TEST(Program, IsKilledWhenItIsGivenUp)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    const WaitingThread waiting;
    std::jthread other([&] {
        EXPECT_TRUE(waiting.untilAsleep());
        EXPECT_EQ(::write(ends[1], "x", 1), 1);
    });
    const ProgramResult result = runProgram({"sleep", "1000"}, "", LONG, 10, ends[0]);
    EXPECT_EQ(result.failure, "sleep was not waited for any longer");
    ::close(ends[0]);
    other.join();
    ::close(ends[1]);
}
