// Resets that wait for a program: a client's and a process's.
#include <gmock/gmock.h>
#include <poll.h>

#include "tests/daemon/daemon_test_bench.h"
#include "tests/daemon/fake_restart.h"
#include "tests/daemon/reinit_program.h"
#include "tests/support/waiting.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::chrono::milliseconds SHORT{10};

/// As much of it as the answer to reinitLine() holds.
std::string refused()
{
    return std::string("Error Processing RESET Command\r\n\r\n").substr(0, reinitLine().size() + 1);
}

class LongResets : public testing::Test {
protected:
    void awaitProgram()
    {
        ASSERT_TRUE(waitUntil([this] { return program.hasRun(); }));
    }

    /// Ends the program, and waits until both threads of a daemon would have been woken.
    void endProgram() { end(program); }

    static void end(const ReinitProgram& which)
    {
        g_wakeUp.clear();
        which.letEnd();
        ASSERT_TRUE(waitUntil([] { // not in select(2): the signal of the program's end interrupts it
            pollfd woken{g_wakeUp.fd(), POLLIN, 0};
            return ::poll(&woken, 1, 0) == 1;
        }));
        g_wakeUp.clear();
    }

    /// Serves connections and messages until a fact holds.
    template <class Fact> bool serveUntil(Fact fact)
    {
        return waitUntil([&] {
            bench.peer.serve(SHORT);
            bench.serveQueue();
            return fact();
        });
    }

    /// What a process is answered at once.
    std::vector<std::string> answersTo(const Outgoing& request)
    {
        bench.serve(process, request);
        return process.receiveTexts();
    }

    DaemonTestBench bench;
    FakeRestart system;
    QueueProcess process{bench.directory, 2001};
    QueueProcess other{bench.directory, 2002};
    const ReinitProgram program{0, ReinitProgram::UNTIL_TOLD};
};

} // namespace

TEST_F(LongResets, OfAClientHoldItAndNobodyElse)
{
    FakeConn& a = bench.addConn(8, 1 << 16, "a");
    FakeConn& b = bench.addConn(8, 2 << 16, "b");
    a.willRead({reinitLine(), "*"});
    a.willRead({"*"});
    bench.peer.serve();
    awaitProgram();
    b.willRead({"*", reinitLine(), "RESET"});
    bench.peer.serve();
    bench.peer.serve();
    EXPECT_EQ(a.reads, 1);
    EXPECT_THAT(a.written, IsEmpty());
    EXPECT_THAT(b.written, ElementsAre("0\r\n\r\n", "Error Processing Reset Command.\r\n\r\n"));
    EXPECT_THAT(system.calls, ElementsAre("fork")) << "for whoever asks for nothing else";
    EXPECT_THAT(answersTo(message(MSG_RESET, reinitLine())), ElementsAre(refused()));
    program.letEnd();
    ASSERT_TRUE(serveUntil([&] { return a.written.size() == 2; }));
    EXPECT_THAT(system.calls, ElementsAre("fork", "fork"));
    EXPECT_THAT(a.written, ElementsAre("0\r\n\r\n", "0\r\n\r\n")) << "its lines go on; a reset is not answered";
}

TEST_F(LongResets, WakeTheServiceThreadWhenTheirProgramEnds)
{
    bench.addConn(8, 1 << 16).willRead({reinitLine()});
    bench.peer.serve();
    awaitProgram();
    endProgram();
    ASSERT_TRUE(serveUntil([&] { return !system.calls.empty(); }));
}

TEST_F(LongResets, GoOnWithoutTheClientThatAsked)
{
    bench.addConn(8, 1 << 16).willRead({reinitLine()});
    bench.addConn(8, 2 << 16).willRead({"*"});
    bench.peer.serve();
    awaitProgram();
    bench.serve(process, message(MSG_CLOSE_ALL));
    bench.peer.serve();
    EXPECT_THAT(system.calls, IsEmpty());
    program.letEnd();
    EXPECT_TRUE(serveUntil([&] { return !system.calls.empty(); }));
    EXPECT_THAT(system.calls, ElementsAre("fork"));
}

TEST_F(LongResets, RestartNothingWhenTheClientHasGoneAndItsProgramFails)
{
    const ReinitProgram failing{3, ReinitProgram::UNTIL_TOLD};
    bench.addConn(8, 1 << 16).willRead({reinitLine()});
    bench.peer.serve();
    ASSERT_TRUE(waitUntil([&failing] { return failing.hasRun(); }));
    bench.serve(process, message(MSG_CLOSE_ALL));
    end(failing);
    bench.peer.serve();
    EXPECT_THAT(system.calls, IsEmpty());
}

TEST_F(LongResets, OfAProcessLetOthersBeServed)
{
    FakeConn& conn = bench.addConn(8, 1 << 16);
    conn.willRead({"*"});
    EXPECT_THAT(answersTo(message(MSG_RESET, reinitLine(), 7)), IsEmpty());
    awaitProgram();
    bench.peer.serve();
    EXPECT_THAT(conn.written, ElementsAre("0\r\n\r\n"));
    EXPECT_EQ(answersTo(registration(8, "ENC")).size(), 1U);
    bench.serve(other, message(MSG_RESET, reinitLine()));
    EXPECT_THAT(other.receiveTexts(), ElementsAre(refused()));
    bench.serve(other, message(MSG_RESET, "RESET"));
    EXPECT_THAT(other.receiveTexts(), ElementsAre("OK\r\n\r\n")) << "no second program is asked for";
    EXPECT_THAT(system.calls, ElementsAre("fork"));
    program.letEnd();
    std::vector<Received> answers;
    ASSERT_TRUE(serveUntil([&] {
        answers = process.receiveAll();
        return !answers.empty();
    }));
    EXPECT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].text(), "OK\r\n\r\n");
    EXPECT_EQ(answers[0].record.kind, 102U);
    EXPECT_EQ(answers[0].length, 16 + reinitLine().size() + 1) << "the length of the request";
    EXPECT_THAT(system.calls, ElementsAre("fork", "fork"));
    EXPECT_THAT(other.receiveAll(), IsEmpty());
}

TEST_F(LongResets, OfAProcessRestartNothingAfterAStopMessage)
{
    bench.serve(process, message(MSG_RESET, reinitLine()));
    awaitProgram();
    bench.endDaemon();
    endProgram();
    EXPECT_THAT(system.calls, IsEmpty());
    EXPECT_THAT(process.receiveAll(), IsEmpty());
}

TEST_F(LongResets, OfAProcessRestartNothingAfterASignal)
{
    bench.serve(process, message(MSG_RESET, reinitLine()));
    awaitProgram();
    bench.tess->requestStop();
    endProgram();
    (void)bench.tess->run(); // which ends at once
    bench.endDaemon();
    EXPECT_THAT(system.calls, IsEmpty());
    EXPECT_THAT(process.receiveAll(), IsEmpty());
}

TEST_F(LongResets, OfAClientRestartNothingAfterASignal)
{
    bench.addConn(8, 1 << 16).willRead({reinitLine()});
    bench.addConn(8, 2 << 16).willRead({reinitLine()});
    bench.peer.serve();
    awaitProgram();
    bench.tess->requestStop();
    endProgram();
    bench.peer.serve();
    (void)bench.peer.removeConn(0);
    bench.peer.serve();
    bench.endDaemon();
    EXPECT_THAT(system.calls, IsEmpty());
}
