#include "daemon/reset.h"

#include <atomic>
#include <cctype>
#include <gmock/gmock.h>

#include "tests/daemon/fake_restart.h"
#include "tests/daemon/reinit_program.h"
#include "tests/support/log_capture.h"
#include "tests/support/waiting.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::string swappedCase(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(std::islower(static_cast<unsigned char>(c)) != 0 ? std::toupper(c) : std::tolower(c));
    return text;
}

int forkOnly()
{
    return ::fork();
}

void tellNobody() {}

/// What becomes of a line, once the program has ended that it may start.
int ask(const char* line)
{
    const char asker = 0;
    ReInit reInit(tellNobody);
    Reset reset(reInit, forkOnly);
    ResetResult result = reset.ask(line, &asker);
    while (result == RESET_WAITS) {
        EXPECT_TRUE(waitUntil([&] { return reInit.isOver(&asker); }));
        result = reset.ask(line, &asker);
    }
    return result;
}

} // namespace

TEST(Reset, StartsForALineOfOneWord)
{
    for (const char* line : {"RESET", "reset", "Resetting", "RESET|X", " RESET ", "X", "RESET\tA"}) {
        FakeRestart system;
        EXPECT_EQ(ask(line), 0) << '"' << line << '"';
        EXPECT_THAT(system.calls, ElementsAre("fork")) << '"' << line << '"';
    }
}

TEST(Reset, IsRefusedForLinesOfOtherForms)
{
    const std::string host = hostName();
    ASSERT_GT(host.size(), 1U);
    const std::string other(host.size() + 1, '#');
    const std::string lines[] = {
        "",
        " ",
        "RESET A",
        "RESET REINIT",
        "RESET " + host,
        "RESET REINIT " + host + " now",
        "RESET A B C",
        "RESET A " + host,
        "RESET REINI " + host,
        "RESET REINITX " + host,
        "RESET REBOOT " + host,
        "RESET " + host + " REINIT",
        "RESET REINIT " + other,
        "RESET REINIT " + host.substr(0, host.size() - 1),
        "RESET REINIT X" + host,
        "RESET REINIT\t" + host,
        "RESET|REINIT " + host,
    };
    const ReinitProgram program(0);
    FakeRestart system;
    const LogCapture log;
    for (const std::string& line : lines)
        EXPECT_EQ(ask(line.c_str()), 1) << '"' << line << '"';
    EXPECT_THAT(system.calls, IsEmpty());
    EXPECT_FALSE(program.hasRun());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(Reset, ComparesTheHostNameWithRegardToCase)
{
    const std::string host = hostName();
    const std::string swapped = swappedCase(host);
    if (swapped == host) GTEST_SKIP() << "the host name \"" << host << "\" has no letters";
    FakeRestart system;
    EXPECT_EQ(ask(("RESET REINIT " + swapped).c_str()), 1);
    EXPECT_THAT(system.calls, IsEmpty());
}

TEST(Reset, ReinitialisesFirstWhenAskedByThisHostsName)
{
    const std::string host = hostName();
    for (const std::string& line : {"RESET REINIT " + host, "reset reinit " + host, "Resetting ReInit " + host + "x",
                                    "  RESET   REINIT  " + host + "  ", "X REINIT " + host + ".example.org"}) {
        const ReinitProgram program(0);
        FakeRestart system;
        EXPECT_EQ(ask(line.c_str()), 0) << '"' << line << '"';
        EXPECT_TRUE(program.hasRun()) << '"' << line << '"';
        EXPECT_THAT(system.calls, ElementsAre("fork")) << '"' << line << '"';
    }
}

TEST(Reset, DoesNotReinitialiseForALineOfOneWord)
{
    const ReinitProgram program(0);
    FakeRestart system;
    EXPECT_EQ(ask("RESET"), 0);
    EXPECT_FALSE(program.hasRun());
}

TEST(Reset, IsRefusedWhenTheReinitialisationFails)
{
    FakeRestart system;
    const std::string line = "RESET REINIT " + hostName();
    {
        const ReinitProgram failing(3);
        EXPECT_EQ(ask(line.c_str()), 1);
        EXPECT_TRUE(failing.hasRun());
    }
    ::setenv("TESS_REINIT", "/nonexistent/program", 1);
    EXPECT_EQ(ask(line.c_str()), 1);
    ::unsetenv("TESS_REINIT");
    EXPECT_THAT(system.calls, IsEmpty());
}

TEST(Reset, LogsAForkThatFails)
{
    FakeRestart system;
    system.forkResult = -1;
    const LogCapture log;
    EXPECT_EQ(ask("RESET"), 1);
    EXPECT_THAT(log.lines(),
                ElementsAre(LogLine{250005, "Error forking for reboot: Resource temporarily unavailable"}));
    EXPECT_THAT(system.calls, ElementsAre("fork"));
}

TEST(Reset, RestartsTheDeviceFromTheChildAfterFiveSeconds)
{
    FakeRestart system;
    system.forkResult = 0;
    const LogCapture log;
    EXPECT_EQ(ask("RESET"), 1) << "the restart was refused: the child reports that";
    EXPECT_THAT(system.calls, ElementsAre("fork", "sync", "sleep 5", "reboot 0x1234567"));
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{250005, "Error forcing reboot: Operation not permitted"}));
}

TEST(Reset, EndsTheChildWhenTheRestartIsUnderWay)
{
    const auto inChild = [] {
        FakeRestart system;
        system.forkResult = 0;
        system.rebootResult = 0;
        ask("RESET");
        std::_Exit(77); // not reached
    };
    EXPECT_EXIT(inChild(), testing::ExitedWithCode(0), "");
}

// --- while a program runs

namespace {

std::atomic<int> programsOver{0};

class LongReset : public testing::Test {
protected:
    LongReset()
    {
        EXPECT_EQ(reset.ask(line.c_str(), &asker), RESET_WAITS);
        EXPECT_TRUE(waitUntil([this] { return program.hasRun(); }));
    }

    void endProgram()
    {
        const int before = programsOver;
        program.letEnd();
        ASSERT_TRUE(waitUntil([&] { return programsOver > before; }));
    }

    FakeRestart system;
    const ReinitProgram program{0, ReinitProgram::UNTIL_TOLD};
    const std::string line = reinitLine();
    const char asker = 0;
    const char other = 0;
    ReInit reInit{[] { ++programsOver; }};
    Reset reset{reInit, forkOnly};
};

} // namespace

TEST_F(LongReset, WaitsForTheProgram)
{
    EXPECT_FALSE(reInit.isOver(&asker));
    EXPECT_EQ(reset.ask(line.c_str(), &asker), RESET_WAITS) << "asked too early";
    EXPECT_THAT(system.calls, IsEmpty());
    endProgram();
    EXPECT_TRUE(reInit.isOver(&asker));
    EXPECT_THAT(system.calls, IsEmpty()) << "before it is asked again";
    EXPECT_EQ(reset.ask(line.c_str(), &asker), RESET_STARTED);
    EXPECT_THAT(system.calls, ElementsAre("fork"));
    EXPECT_EQ(reset.ask(line.c_str(), &other), RESET_WAITS) << "the next program may start";
    EXPECT_TRUE(waitUntil([this] { return reInit.isOver(&other); }));
}

TEST_F(LongReset, RefusesAnotherProgramMeanwhile)
{
    EXPECT_EQ(reset.ask(line.c_str(), &other), RESET_REFUSED);
    endProgram();
    EXPECT_EQ(reset.ask(line.c_str(), &other), RESET_REFUSED) << "until the first one is told";
    EXPECT_EQ(reset.ask(line.c_str(), &asker), RESET_STARTED);
}

TEST_F(LongReset, RestartsMeanwhileForWhoAsksForNothingElse)
{
    EXPECT_EQ(reset.ask("RESET", &other), RESET_STARTED);
    EXPECT_THAT(system.calls, ElementsAre("fork"));
    EXPECT_FALSE(reInit.isOver(&asker));
    endProgram();
}

TEST_F(LongReset, RestartsAfterTheProgramOfAnAskerThatIsGone)
{
    reInit.forget(&other);
    reInit.forget(&asker);
    EXPECT_EQ(reset.ask(line.c_str(), &asker), RESET_REFUSED) << "as one that comes after it";
    reset.finishForgotten();
    EXPECT_THAT(system.calls, IsEmpty());
    endProgram();
    reset.finishForgotten();
    EXPECT_THAT(system.calls, ElementsAre("fork"));
    reset.finishForgotten();
    EXPECT_THAT(system.calls, ElementsAre("fork")) << "once";
}

TEST_F(LongReset, LeavesAskersAloneThatAreThere)
{
    endProgram();
    reset.finishForgotten();
    EXPECT_THAT(system.calls, IsEmpty());
}

TEST_F(LongReset, NeverRestartsAfterItWasCancelled)
{
    reInit.cancel();
    endProgram();
    EXPECT_FALSE(reInit.isOver(&asker));
    EXPECT_EQ(reset.ask(line.c_str(), &asker), RESET_WAITS);
    reInit.forget(&asker);
    reset.finishForgotten();
    EXPECT_THAT(system.calls, IsEmpty());
}

TEST(Reset, StartsNoProgramAfterItWasCancelled)
{
    const char asker = 0;
    const ReinitProgram program(0);
    FakeRestart system;
    ReInit reInit(tellNobody);
    Reset reset(reInit, forkOnly);
    reInit.cancel();
    EXPECT_EQ(reset.ask(reinitLine().c_str(), &asker), RESET_REFUSED);
    EXPECT_FALSE(program.hasRun());
    EXPECT_THAT(system.calls, IsEmpty());
}

TEST_F(LongReset, HasFailedInACopyThatIsMadeMeanwhile)
{
    reInit.startInCopy();
    EXPECT_TRUE(reInit.isOver(&asker));
    EXPECT_EQ(reset.ask(line.c_str(), &asker), RESET_REFUSED);
    EXPECT_THAT(system.calls, IsEmpty());
    endProgram();
}
