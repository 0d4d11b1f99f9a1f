#include "common/own_thread.h"

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <memory>
#include <pthread.h>
#include <vector>

#include "tests/support/no_threads.h"
#include "tests/support/waiting.h"

namespace {

sigset_t blockedHere()
{
    sigset_t blocked{};
    ::pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    return blocked;
}

std::vector<int> membersOf(const sigset_t& set)
{
    std::vector<int> members;
    for (int signal = 1; signal < NSIG; ++signal)
        if (::sigismember(&set, signal) == 1) members.push_back(signal);
    return members;
}

} // namespace

TEST(OwnThread, RunsTheWorkWhileTheCallerGoesOn)
{
    std::atomic<bool> mayEnd{false};
    std::atomic<bool> done{false};
    ASSERT_TRUE(startOwnThread([&] {
        (void)waitUntil([&] { return mayEnd.load(); });
        done = true;
    }));
    EXPECT_FALSE(done);
    mayEnd = true;
    EXPECT_TRUE(waitUntil([&] { return done.load(); }));
}

TEST(OwnThread, LeavesSignalsThatAskForSomethingToTheOthers)
{
    sigset_t blocked{};
    std::atomic<bool> done{false};
    ASSERT_TRUE(startOwnThread([&] {
        blocked = blockedHere();
        done = true;
    }));
    ASSERT_TRUE(waitUntil([&] { return done.load(); }));
    for (const int signal : {SIGTERM, SIGQUIT, SIGHUP, SIGINT, SIGPIPE, SIGCHLD, SIGUSR1, SIGUSR2, SIGALRM})
        EXPECT_EQ(::sigismember(&blocked, signal), 1) << "signal " << signal;
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP})
        EXPECT_EQ(::sigismember(&blocked, fault), 0) << "signal " << fault;
}

TEST(OwnThread, LeavesTheCallersSignalsAlone)
{
    const std::vector<int> before = membersOf(blockedHere());
    std::atomic<bool> done{false};
    ASSERT_TRUE(startOwnThread([&] { done = true; }));
    EXPECT_EQ(membersOf(blockedHere()), before);
    EXPECT_TRUE(waitUntil([&] { return done.load(); }));
    const NoThreads none;
    EXPECT_FALSE(startOwnThread([] {}));
    EXPECT_EQ(membersOf(blockedHere()), before) << "also when there is none";
}

TEST(OwnThread, TellsThatThereIsNoneToBeHad)
{
    const auto owned = std::make_shared<int>(1);
    const NoThreads none;
    ASSERT_TRUE(none.isSet());
    EXPECT_FALSE(startOwnThread([owned] { ++*owned; }));
    EXPECT_EQ(*owned, 1) << "nothing runs";
    EXPECT_EQ(owned.use_count(), 1) << "and nothing is kept";
}

TEST(OwnThread, GivesBackWhatTheWorkOwns)
{
    const auto owned = std::make_shared<std::atomic<int>>(1);
    ASSERT_TRUE(startOwnThread([owned] { ++*owned; }));
    EXPECT_TRUE(waitUntil([&] { return owned.use_count() == 1; }));
    EXPECT_EQ(*owned, 2);
}
