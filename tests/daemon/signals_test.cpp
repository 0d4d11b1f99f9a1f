#include "daemon/signals.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "common/milestone.h"
#include "common/wake_up.h"
#include "tests/daemon/daemon_test_bench.h"
#include "tests/support/allocation_count.h"
#include "tests/support/pty_line.h"
#include "tests/support/waiting.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const LogLine terminated{250009, "Received SIGTERM, proceeding with orderly shutdown"};
const LogLine quitted{250009, "Received SIGQUIT, proceeding with orderly shutdown"};
const LogLine childSeen{250009, "Signal 'SIGCHLD' received, but no child exists"};

} // namespace

TEST(SignalHandler, OnlyLogsWithoutADaemon)
{
    ASSERT_EQ(g_tess.load(), nullptr);
    const LogCapture log;
    signalHandler(SIGTERM);
    signalHandler(SIGQUIT);
    EXPECT_THAT(log.lines(), ElementsAre(terminated, quitted));
}

TEST(SignalHandler, AsksTheDaemonToStop)
{
    for (const int signo : {SIGTERM, SIGQUIT}) {
        DaemonTestBench bench;
        g_tess = bench.tess.get();
        EXPECT_EQ(bench.peer.stopRequested(), 0);
        signalHandler(signo);
        EXPECT_EQ(bench.peer.stopRequested(), 1);
        EXPECT_TRUE(isReadable(g_wakeUp.fd())) << "the service thread is woken";
        g_wakeUp.clear();
        EXPECT_EQ(g_milestone.load(), 42);
        EXPECT_THAT(bench.log.lines(), ElementsAre(signo == SIGTERM ? terminated : quitted));
    }
    EXPECT_EQ(g_tess.load(), nullptr) << "a daemon that is gone gets no signals";
}

TEST(SignalHandler, LogsEveryChildAndReapsNone)
{
    const DaemonTestBench bench; // has installed it
    std::vector<pid_t> children;
    for (int i = 1; i <= 3; ++i) {
        const pid_t child = ::fork();
        if (child == 0) ::_exit(i);
        ASSERT_GT(child, 0);
        children.push_back(child);
        EXPECT_TRUE(waitUntil([&] { return bench.log.count(childSeen) == i; })) << "child " << i;
    }
    EXPECT_THAT(bench.log.lines(), ElementsAre(childSeen, childSeen, childSeen));
    for (int i = 1; i <= 3; ++i) {
        int status = 0;
        EXPECT_EQ(::waitpid(children[static_cast<std::size_t>(i - 1)], &status, WNOHANG),
                  children[static_cast<std::size_t>(i - 1)])
            << "child " << i << " is still to be reaped";
        EXPECT_EQ(WEXITSTATUS(status), i);
    }
}

TEST(SignalHandler, SaysNothingAboutABrokenPipeOrAnyOtherSignal)
{
    DaemonTestBench bench;
    g_tess = bench.tess.get();
    for (const int signo : {SIGPIPE, SIGUSR1, SIGINT, SIGHUP, 0})
        signalHandler(signo);
    EXPECT_THAT(bench.log.lines(), IsEmpty());
    EXPECT_EQ(bench.peer.stopRequested(), 0);
}

TEST(SignalHandler, KeepsErrno)
{
    const LogCapture log;
    for (const int signo : {SIGTERM, SIGQUIT, SIGCHLD, SIGPIPE}) {
        errno = ENOTTY;
        signalHandler(signo);
        EXPECT_EQ(errno, ENOTTY) << "signal " << signo;
    }
}

TEST(SignalHandler, AllocatesNothing)
{
    const LogCapture log;
    const unsigned before = allocationCount();
    for (const int signo : {SIGTERM, SIGQUIT, SIGCHLD, SIGPIPE})
        signalHandler(signo);
    EXPECT_EQ(allocationCount() - before, 0U);
    EXPECT_EQ(log.lines().size(), 3U);
}

TEST(SignalHandler, EndsTheProgramAfterASegmentationFaultAndSaysHowFarItHadGot)
{
    const auto inChild = [] {
        g_milestone = 4711;
        signalHandler(SIGSEGV);
    };
    EXPECT_EXIT(inChild(), testing::ExitedWithCode(1), "250009 Segmentation fault detected after milestone 4711");
}

TEST(SignalHandler, RunsTheExitHandlersAfterASegmentationFault)
{
    const auto inChild = [] {
        std::atexit([] { (void)::write(STDERR_FILENO, "exit handler\n", 13); });
        signalHandler(SIGSEGV);
    };
    EXPECT_EXIT(inChild(), testing::ExitedWithCode(1), "Segmentation fault detected.*\nexit handler");
}

TEST(SignalHandler, IsInstalledByTheDaemon)
{
    const DaemonTestBench bench;
    for (const int signo : {SIGQUIT, SIGTERM, SIGSEGV, SIGPIPE, SIGCHLD}) {
        SCOPED_TRACE(signo);
        struct sigaction installed {};
        ASSERT_EQ(::sigaction(signo, nullptr, &installed), 0);
        EXPECT_EQ(installed.sa_handler, &signalHandler);
        EXPECT_NE(installed.sa_flags & SA_RESTART, 0);
        EXPECT_EQ((installed.sa_flags & SA_NOCLDSTOP) != 0, signo == SIGCHLD);
        for (const int other : {SIGINT, SIGTERM, SIGUSR1, SIGCHLD})
            EXPECT_EQ(sigismember(&installed.sa_mask, other), 1) << "signal " << other;
    }
}

TEST(SignalHandler, ServesASignalThatReallyComes)
{
    DaemonTestBench bench;
    g_tess = bench.tess.get();
    ASSERT_EQ(::raise(SIGTERM), 0);
    EXPECT_EQ(bench.peer.stopRequested(), 1);
    EXPECT_THAT(bench.log.lines(), ElementsAre(terminated));
}
