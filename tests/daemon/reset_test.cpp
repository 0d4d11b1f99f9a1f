#include "daemon/reset.h"

#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/daemon/fake_system.h"
#include "tests/support/log_capture.h"

using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

std::string hostName()
{
    char name[256]{};
    if (::gethostname(name, sizeof name - 1) != 0) std::abort();
    return name;
}

std::string swappedCase(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(std::islower(static_cast<unsigned char>(c)) != 0 ? std::toupper(c) : std::tolower(c));
    return text;
}

/// A re-initialisation program that notes that it ran.
class ReinitProgram {
public:
    explicit ReinitProgram(int status)
    {
        if (::mkdtemp(folder_.data()) == nullptr) std::abort();
        const std::string program = folder_ + "/program";
        std::ofstream(program) << "#!/bin/sh\n: > " << folder_ << "/ran\nexit " << status << "\n";
        ::chmod(program.c_str(), 0700);
        ::setenv("TESS_REINIT", program.c_str(), 1);
    }
    ReinitProgram(const ReinitProgram&) = delete;
    ReinitProgram& operator=(const ReinitProgram&) = delete;
    ~ReinitProgram()
    {
        ::unsetenv("TESS_REINIT");
        fs::remove_all(folder_);
    }
    bool hasRun() const { return fs::exists(folder_ + "/ran"); }

private:
    std::string folder_ = "/tmp/reinit-XXXXXX";
};

} // namespace

TEST(Reset, StartsForALineOfOneWord)
{
    for (const char* line : {"RESET", "reset", "Resetting", "RESET|X", " RESET ", "X", "RESET\tA"}) {
        FakeSystem system;
        EXPECT_EQ(resetDevice(line), 0) << '"' << line << '"';
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
        "RESET " + host + " REINIT",
        "RESET REINIT " + other,
        "RESET REINIT " + host.substr(0, host.size() - 1),
        "RESET REINIT X" + host,
        "RESET REINIT\t" + host,
        "RESET|REINIT " + host,
    };
    const ReinitProgram program(0);
    FakeSystem system;
    const LogCapture log;
    for (const std::string& line : lines)
        EXPECT_EQ(resetDevice(line.c_str()), 1) << '"' << line << '"';
    EXPECT_THAT(system.calls, IsEmpty());
    EXPECT_FALSE(program.hasRun());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(Reset, ComparesTheHostNameWithRegardToCase)
{
    const std::string host = hostName();
    const std::string swapped = swappedCase(host);
    if (swapped == host) GTEST_SKIP() << "the host name \"" << host << "\" has no letters";
    FakeSystem system;
    EXPECT_EQ(resetDevice(("RESET REINIT " + swapped).c_str()), 1);
    EXPECT_THAT(system.calls, IsEmpty());
}

TEST(Reset, ReinitialisesFirstWhenAskedByThisHostsName)
{
    const std::string host = hostName();
    for (const std::string& line : {"RESET REINIT " + host, "reset reinit " + host, "Resetting ReInit " + host + "x",
                                    "  RESET   REINIT  " + host + "  ", "X REINIT " + host + ".example.org"}) {
        const ReinitProgram program(0);
        FakeSystem system;
        EXPECT_EQ(resetDevice(line.c_str()), 0) << '"' << line << '"';
        EXPECT_TRUE(program.hasRun()) << '"' << line << '"';
        EXPECT_THAT(system.calls, ElementsAre("fork")) << '"' << line << '"';
    }
}

TEST(Reset, DoesNotReinitialiseForALineOfOneWord)
{
    const ReinitProgram program(0);
    FakeSystem system;
    EXPECT_EQ(resetDevice("RESET"), 0);
    EXPECT_FALSE(program.hasRun());
}

TEST(Reset, IsRefusedWhenTheReinitialisationFails)
{
    FakeSystem system;
    const std::string line = "RESET REINIT " + hostName();
    {
        const ReinitProgram failing(3);
        EXPECT_EQ(resetDevice(line.c_str()), 1);
        EXPECT_TRUE(failing.hasRun());
    }
    ::setenv("TESS_REINIT", "/nonexistent/program", 1);
    EXPECT_EQ(resetDevice(line.c_str()), 1);
    ::unsetenv("TESS_REINIT");
    EXPECT_THAT(system.calls, IsEmpty());
}

TEST(Reset, LogsAForkThatFails)
{
    FakeSystem system;
    system.forkResult = -1;
    const LogCapture log;
    EXPECT_EQ(resetDevice("RESET"), 1);
    EXPECT_THAT(log.lines(),
                ElementsAre(LogLine{250005, "Error forking for reboot: Resource temporarily unavailable"}));
    EXPECT_THAT(system.calls, ElementsAre("fork"));
}

TEST(Reset, RestartsTheDeviceFromTheChildAfterFiveSeconds)
{
    FakeSystem system;
    system.forkResult = 0;
    const LogCapture log;
    EXPECT_EQ(resetDevice("RESET"), 1) << "the restart was refused: the child reports that";
    EXPECT_THAT(system.calls, ElementsAre("fork", "sync", "sleep 5", "reboot 0x1234567"));
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{250005, "Error forcing reboot: Operation not permitted"}));
}

TEST(Reset, EndsTheChildWhenTheRestartIsUnderWay)
{
    const auto inChild = [] {
        FakeSystem system;
        system.forkResult = 0;
        system.rebootResult = 0;
        resetDevice("RESET");
        std::_Exit(77); // not reached
    };
    EXPECT_EXIT(inChild(), testing::ExitedWithCode(0), "");
}
