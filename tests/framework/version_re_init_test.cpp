#include "framework/version_re_init.h"

#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sys/stat.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

#include "tests/framework/child_process.h"
#include "tests/framework/fake_system.h"
#include "tests/framework/signal_counter.h"
#include "tests/support/temp_dir.h"
#include "tests/support/waiting.h"

namespace {

class VersionReInit : public testing::Test {
protected:
    ~VersionReInit() override { ::unsetenv("TESS_REINIT"); }

    /// Makes a program of the given content and has it chosen.
    void choose(const std::string& content)
    {
        const std::string path = dir_ / "program";
        std::ofstream(path) << content;
        ASSERT_EQ(::chmod(path.c_str(), 0755), 0);
        ASSERT_EQ(::setenv("TESS_REINIT", path.c_str(), 1), 0);
    }

    std::string contentOf(const std::string& name) const
    {
        std::ifstream file(dir_ / name);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    TempDir dir_;
};

TEST_F(VersionReInit, IsDoneWhenTheProgramExitsWithZero)
{
    choose("#!/bin/sh\nexit 0\n");
    EXPECT_EQ(versionReInit(), 0);
}

TEST_F(VersionReInit, FailsWhenTheProgramFails)
{
    choose("#!/bin/sh\nexit 3\n");
    EXPECT_NE(versionReInit(), 0);
}

TEST_F(VersionReInit, FailsWhenTheProgramIsKilled)
{
    choose("#!/bin/sh\nkill -9 $$\n");
    EXPECT_NE(versionReInit(), 0);
}

TEST_F(VersionReInit, FailsWhenThereIsNoSuchProgram)
{
    ::setenv("TESS_REINIT", (dir_ / "missing").c_str(), 1);
    EXPECT_NE(versionReInit(), 0);
}

TEST_F(VersionReInit, FailsForADirectory)
{
    ::setenv("TESS_REINIT", dir_.path().c_str(), 1);
    EXPECT_NE(versionReInit(), 0);
}

TEST_F(VersionReInit, FailsForAScriptThatNamesNoInterpreter)
{
    choose("exit 0\n");
    EXPECT_NE(versionReInit(), 0);
}

TEST_F(VersionReInit, FailsForAFileThatMayNotBeExecuted)
{
    choose("#!/bin/sh\nexit 0\n");
    ASSERT_EQ(::chmod((dir_ / "program").c_str(), 0644), 0);
    EXPECT_NE(versionReInit(), 0);
}

TEST_F(VersionReInit, AnEmptyVariableMeansTheUsualProgram)
{
    if (::access("/usr/lib/tess/version-reinit", F_OK) == 0) GTEST_SKIP() << "this machine has the usual program";
    choose("#!/bin/sh\nexit 0\n");
    ASSERT_EQ(versionReInit(), 0);
    ASSERT_EQ(fake_system::spawnedProgram(), dir_ / "program");
    ::setenv("TESS_REINIT", "", 1);
    EXPECT_NE(versionReInit(), 0);
    EXPECT_EQ(fake_system::spawnedProgram(), "/usr/lib/tess/version-reinit");
    choose("#!/bin/sh\nexit 0\n");
    ASSERT_EQ(versionReInit(), 0);
    ::unsetenv("TESS_REINIT");
    EXPECT_NE(versionReInit(), 0);
    EXPECT_EQ(fake_system::spawnedProgram(), "/usr/lib/tess/version-reinit");
}

TEST_F(VersionReInit, FailsWhenTheEndOfChildrenIsIgnored)
{
    choose("#!/bin/sh\nexit 0\n");
    const auto before = std::signal(SIGCHLD, SIG_IGN);
    EXPECT_NE(versionReInit(), 0);
    std::signal(SIGCHLD, before);
    EXPECT_EQ(versionReInit(), 0);
}

TEST_F(VersionReInit, GivesNoArgumentsAndWaitsForTheEnd)
{
    choose("#!/bin/sh\nsleep 0.2\necho \"$#\" > \"" + dir_ / "seen" + "\"\n");
    EXPECT_EQ(versionReInit(), 0);
    EXPECT_EQ(contentOf("seen"), "0\n");
}

TEST_F(VersionReInit, TheProgramStartsWithPlainSignals)
{
    choose("#!/bin/sh\ngrep -E '^Sig(Blk|Ign):' /proc/self/status > \"" + dir_ / "seen" + "\"\n");
    sigset_t blocked{};
    sigset_t before{};
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGTERM);
    ::sigprocmask(SIG_BLOCK, &blocked, &before);
    const auto pipeBefore = std::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(versionReInit(), 0);
    std::signal(SIGPIPE, pipeBefore);
    ::sigprocmask(SIG_SETMASK, &before, nullptr);
    std::uint64_t blockedThere = 1;
    std::uint64_t ignoredThere = 1;
    const std::string seen = contentOf("seen");
    ASSERT_EQ(std::sscanf(seen.c_str(), "SigBlk: %" SCNx64 " SigIgn: %" SCNx64, &blockedThere, &ignoredThere), 2)
        << seen;
    constexpr std::uint64_t standardSignals = 0x7FFFFFFF; // 1 to 31; the C library keeps some of the others for itself
    EXPECT_EQ(blockedThere & standardSignals, 0U) << seen;
    EXPECT_EQ(ignoredThere & standardSignals, 0U) << seen;
}

TEST_F(VersionReInit, AThreadWithItsSignalsBlockedMayWaitForIt)
{
    choose("#!/bin/sh\ngrep -E '^Sig(Blk|Ign):' /proc/self/status > \"" + dir_ / "seen" + "\"\nexit 0\n");
    int result = -1;
    std::thread waiting([&] {
        sigset_t all{};
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
        result = versionReInit();
    });
    waiting.join();
    EXPECT_EQ(result, 0);
    std::uint64_t blockedThere = 1;
    ASSERT_EQ(std::sscanf(contentOf("seen").c_str(), "SigBlk: %" SCNx64, &blockedThere), 1);
    EXPECT_EQ(blockedThere & 0x7FFFFFFFU, 0U) << "the program's are not";
}

TEST_F(VersionReInit, TheProcessMayEndWhileAThreadWaitsForIt)
{
    choose("#!/bin/sh\ncd '" + dir_.path() +
           "'\n: > begun\ni=0\nwhile [ ! -e go ] && [ $i -lt 400 ]; do sleep 0.05; i=$((i+1)); done\n: > done\n");
    const auto exists = [&](const char* name) { return ::access((dir_ / name).c_str(), F_OK) == 0; };
    ChildProcess process([&] {
        std::thread([] { (void)versionReInit(); }).detach();
        if (waitUntil([&] { return exists("begun"); })) std::exit(7);
        return 8;
    });
    EXPECT_EQ(process.result(), 7);
    EXPECT_FALSE(exists("done"));
    std::ofstream(dir_ / "go") << "";
    EXPECT_TRUE(waitUntil([&] { return exists("done"); })) << "it runs on";
}

TEST_F(VersionReInit, SignalsMeanwhileDoNotDisturbTheWait)
{
    choose("#!/bin/sh\nsleep 0.3\nexit 0\n");
    const SignalCounter alarms(SIGALRM);
    itimerval every20ms{};
    every20ms.it_interval.tv_usec = every20ms.it_value.tv_usec = 20'000;
    ASSERT_EQ(::setitimer(ITIMER_REAL, &every20ms, nullptr), 0);
    EXPECT_EQ(versionReInit(), 0);
    const itimerval off{};
    ::setitimer(ITIMER_REAL, &off, nullptr);
}

} // namespace
