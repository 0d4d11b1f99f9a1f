// The second copy of the daemon, which goes on when a restart of the device has failed.
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/wait.h>

#include "common/process_copy.h"
#include "framework/tess_messages.h"
#include "tests/daemon/daemon_test_bench.h"
#include "tests/daemon/fake_restart.h"
#include "tests/daemon/local_client.h"
#include "tests/support/in_background.h"
#include "tests/support/private_mounts.h"

using testing::ElementsAre;
namespace fs = std::filesystem;

namespace {

const std::vector<std::string> restartTried{"fork", "sync", "sleep 5", "reboot 0x1234567"};

/// This process takes itself for the copy.
class Copy : public testing::Test {
protected:
    Copy()
    {
        system.forkResult = 0;
        g_tess = bench.tess.get();
    }
    ~Copy() override
    {
        ::close(wakeUpOfTheOriginal);
        g_wakeUp.clear();
    }

    void expectsCopy()
    {
        EXPECT_EQ(system.calls, restartTried);
        EXPECT_TRUE(g_isCopy);
        EXPECT_EQ(g_serviceThread, static_cast<pthread_t>(-1)) << "there is none to be joined";
        EXPECT_TRUE(LockProbe(bench.peer.connLock()).takenWithin(DEADLINE));
        EXPECT_TRUE(LockProbe(bench.peer.regLock()).takenWithin(DEADLINE));
        g_wakeUp.wake();
        WaitSet waits;
        waits.addInput(g_wakeUp.fd());
        waits.addInput(wakeUpOfTheOriginal);
        waits.wait({});
        EXPECT_TRUE(waits.hasInput(g_wakeUp.fd()));
        EXPECT_FALSE(waits.hasInput(wakeUpOfTheOriginal));
    }

    FakeRestart system;
    DaemonTestBench bench;
    const int wakeUpOfTheOriginal = ::fcntl(g_wakeUp.fd(), F_DUPFD_CLOEXEC, 0);
};

} // namespace

TEST_F(Copy, GoesOnWithTheLinesOfWhoAskedForTheRestart)
{
    FakeConn& conn = bench.addConn(8, 1 << 16);
    conn.willRead({"RESET", "*"});
    bench.peer.serve();
    EXPECT_THAT(conn.written, ElementsAre("Error Processing Reset Command.\r\n\r\n", "0\r\n\r\n"));
    expectsCopy();
}

TEST_F(Copy, GoesOnBehindADelayedReset)
{
    bench.registerProcess(2001, 15, "ENC");
    const QueueProcess encoder(bench.directory, 2001);
    bench.peer.delayQueues().add(0, "RESET");
    bench.peer.serve();
    EXPECT_THAT(encoder.receiveTexts(), ElementsAre("RESET\n")) << "a delayed line that fails is for processes";
    expectsCopy();
}

TEST_F(Copy, AnswersTheProcessThatAskedForTheRestart)
{
    const QueueProcess process(bench.directory, 2001);
    // What came together with the reset message is the original's to handle, a stop message too.
    const Outgoing stop = message(MSG_STOP);
    system.onFork = [&] { EXPECT_TRUE(process.send(TESS_QUEUE_ID, stop.record, stop.length)); };
    bench.serve(process, message(MSG_RESET, "RESET"));
    EXPECT_THAT(process.receiveTexts(), ElementsAre("Error "));
    expectsCopy();
}

TEST(ForkedChild, OfADaemonIsACopyWhoeverForksIt)
{
    const DaemonTestBench bench;
    g_tess = bench.tess.get();
    const pid_t child = ::fork();
    if (child == 0) ::_exit(g_isCopy ? 0 : 1);
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    EXPECT_FALSE(g_isCopy);
}

// --- in a process of its own

namespace {

class RealCopy : public testing::Test {
protected:
    void SetUp() override
    {
        if (!privateMountsProblem().empty()) GTEST_SKIP() << privateMountsProblem();
        system.forksReally = true;
        bench.emplace(DaemonTestBench::WITH_LOCAL_PORTS);
        g_tess = bench->tess.get();
        ipc.emplace(IPC_SOCKET_PATH);
        xcp.emplace(XCP_SOCKET_PATH);
    }

    bool isChild() const { return ::getpid() != parent; }

    /// What the child does that goes on as a copy. Ends it: by SIGALRM when a lock is not free.
    [[noreturn]] void endCopy()
    {
        ::alarm(static_cast<unsigned>(DEADLINE.count()));
        bench->peer.connLock().lock();
        bench->peer.regLock().lock();
        bench->peer.regLock().unlock();
        bench->peer.connLock().unlock();
        const bool isWhole = g_isCopy && bench->peer.conns().size() == 2;
        bench->endDaemon();
        ::_exit(isWhole ? 0 : 1);
    }

    /// Waits for the child, and then finds nothing changed.
    void expectsUndisturbed()
    {
        int status = -1;
        ASSERT_GT(::wait(&status), 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
        for (const std::string& file :
             {std::string(IPC_SOCKET_PATH), std::string(XCP_SOCKET_PATH), bench->directory.path() + "/1001"})
            EXPECT_TRUE(fs::exists(file)) << file;
        EXPECT_TRUE(ipc->send("*\n"));
        std::string answer;
        InBackground receiving([&] {
            answer = ipc->receive(5);
            return 0;
        });
        EXPECT_TRUE(waitUntil([&] {
            if (g_serviceThread == static_cast<pthread_t>(-1)) bench->peer.serve(std::chrono::milliseconds(10));
            return receiving.done();
        }));
        EXPECT_EQ(answer, "0\r\n\r\n");
        EXPECT_FALSE(g_isCopy);
    }

    const pid_t parent = ::getpid();
    FakeRestart system;
    std::optional<DaemonTestBench> bench;
    std::optional<LocalClient> ipc;
    std::optional<LocalClient> xcp;
};

} // namespace

TEST_F(RealCopy, OfTheServiceThreadDisturbsNobodyOfTheOriginal)
{
    ASSERT_TRUE(waitUntil([this] {
        bench->peer.serve(std::chrono::milliseconds(10));
        return bench->peer.conns().size() == 2;
    }));
    std::atomic<bool> ended{false};
    std::thread mainThread([&] { // takes its locks again and again
        const QueueProcess process(bench->directory, 2001);
        while (!ended) {
            bench->peer.inMsg() = registration(8, "ENC").record;
            (void)bench->peer.registerProc();
            (void)bench->peer.unregisterProc();
            const std::scoped_lock lock(bench->peer.connLock());
        }
    });
    bench->peer.delayQueues().add(0, "RESET");
    bench->peer.serve();
    if (isChild()) endCopy();
    ended = true;
    mainThread.join();
    expectsUndisturbed();
}

TEST_F(RealCopy, OfTheMainThreadDisturbsNobodyOfTheOriginal)
{
    ASSERT_EQ(bench->tess->startService(), 0);
    ASSERT_TRUE(waitUntil([this] {
        const std::scoped_lock lock(bench->peer.connLock());
        return bench->peer.conns().size() == 2;
    }));
    bench->peer.inMsg() = message(MSG_RESET, "RESET").record;
    (void)bench->peer.handleReset();
    if (isChild()) endCopy();
    expectsUndisturbed();
    bench->tess->requestStop();
}
