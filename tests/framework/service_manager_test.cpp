#include "framework/service_manager.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "framework/bundled/log_messages.h"
#include "tests/support/log_capture.h"
#include "tests/support/raw_socket.h"
#include "tests/support/temp_dir.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

class ServiceManager : public testing::Test {
protected:
    ServiceManager() { ::setenv("NOTIFY_SOCKET", path_.c_str(), 1); }
    ~ServiceManager() override
    {
        for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID", "JOURNAL_STREAM"})
            ::unsetenv(name);
        setServiceStatus("");
        setLogSeverities(nullptr);
        logMgr.setLogParameters(128, 6, "", 4);
    }

    /// What the manager hears of a watchdog that is started with this, and then used at once.
    std::string heard(const char* microseconds, const std::string& pid) const
    {
        ::setenv("WATCHDOG_USEC", microseconds, 1);
        ::setenv("WATCHDOG_PID", pid.c_str(), 1);
        ServiceWatchdog().alive();
        return manager_.receiveNow();
    }

    TempDir dir_;
    std::string path_ = dir_ / "notify";
    RawSocket manager_{path_};
};

constexpr const char* NOTHING = "<nothing there>";

TEST_F(ServiceManager, HearsTheStatusWithTheNewsThatTheProcessIsUp)
{
    setServiceStatus("tessd 1.0.0, ports ipc");
    logMgr.initAfterDaemonize();
    EXPECT_EQ(manager_.receive(), "READY=1\nSTATUS=tessd 1.0.0, ports ipc");
}

TEST_F(ServiceManager, HearsOfTheWatchdogOnlyWhenItAsksForIt)
{
    const std::string mine = std::to_string(::getpid());
    EXPECT_EQ(heard("3000000", mine), "WATCHDOG=1");
    EXPECT_EQ(heard("3000000", ""), "WATCHDOG=1");
    EXPECT_EQ(heard("3000000", "1"), NOTHING) << "somebody else is meant";
    for (const char* wrong : {"", "0", "-5", "soon", "3000000x"})
        EXPECT_EQ(heard(wrong, mine), NOTHING) << wrong;
    ::unsetenv("WATCHDOG_USEC");
    ServiceWatchdog().alive();
    EXPECT_EQ(manager_.receiveNow(), NOTHING);
}

TEST_F(ServiceManager, IsNotToldMoreOftenThanItNeeds)
{
    ::setenv("WATCHDOG_USEC", "600000000", 1);
    ServiceWatchdog rare;
    rare.alive();
    EXPECT_EQ(manager_.receiveNow(), "WATCHDOG=1");
    for (int i = 0; i < 1000; ++i)
        rare.alive();
    EXPECT_EQ(manager_.receiveNow(), NOTHING);
    ::setenv("WATCHDOG_USEC", "3000", 1);
    ServiceWatchdog often;
    for (int i = 0; i < 3; ++i) {
        often.alive();
        EXPECT_EQ(manager_.receiveNow(), "WATCHDOG=1");
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

TEST_F(ServiceManager, HearsNothingOfAForkedChild)
{
    ::setenv("WATCHDOG_USEC", "3000000", 1);
    ServiceWatchdog watchdog;
    const pid_t child = ::fork();
    if (child == 0) {
        watchdog.alive();
        ::_exit(0);
    }
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(manager_.receiveNow(), NOTHING);
}

TEST_F(ServiceManager, IsNotWaitedForByTheWatchdog)
{
    const RawSocket busy;
    while (busy.sendTo(path_, "STATUS=", 7)) {
    }
    EXPECT_FALSE(tellServiceManager("WATCHDOG=1", 0));
}

/// The journal's stream as it is named for the standard error of this moment.
std::string streamOfStandardError()
{
    struct stat now {};
    ::fstat(STDERR_FILENO, &now);
    return std::to_string(now.st_dev) + ':' + std::to_string(now.st_ino);
}

LogSeverity oddIsAnError(TTraceMsg id, const char* text)
{
    if (text == std::string_view("beware")) return LogSeverity::warning;
    return id % 2 == 1 ? LogSeverity::error : LogSeverity::information;
}

TEST_F(ServiceManager, GetsTheSeverityInFrontOfLinesToTheJournal)
{
    struct {
        TTraceMsg id;
        const char* text;
        const char* begin;
    } const rows[] = {
        {1, "x", "<3>2"},
        {2, "x", "<6>2"},
        {2, "beware", "<4>2"},
        {framework_log::QUEUE_NOT_OPENED, "x", "<3>2"},
        {framework_log::datagramDropped.id, "x", "<4>2"},
        {framework_log::managerNotTold.id, "x", "<4>2"},
        {framework_log::linesLost.id, "x", "<4>2"},
    };
    setLogSeverities(oddIsAnError);
    for (const auto& row : rows) {
        const LogCapture captured;
        ::setenv("JOURNAL_STREAM", streamOfStandardError().c_str(), 1);
        logMgr.setLogParameters(128, 6, "", 4);
        logMgr.log(row.id, row.text);
        EXPECT_EQ(row.begin, captured.text().substr(0, 4)) << row.id << ' ' << row.text;
    }
}

TEST_F(ServiceManager, FindsPlainLinesWhereStandardErrorIsNotTheJournal)
{
    const LogCapture journal;
    for (const char* wrong : {"", "1", "1:", ":1", "x:1", "1:x", "1:1"}) {
        ::setenv("JOURNAL_STREAM", wrong, 1);
        logMgr.setLogParameters(128, 6, "", 4);
        logMgr.log(1, "x");
    }
    EXPECT_THAT(journal.text(), Not(HasSubstr("<")));
    const std::string stream = streamOfStandardError();
    ::setenv("JOURNAL_STREAM", stream.c_str(), 1);
    logMgr.setLogParameters(128, 6, "", 4);
    // The same process, but standard error is turned elsewhere.
    const LogCapture elsewhere;
    ASSERT_NE(stream, streamOfStandardError());
    logMgr.log(1, "x");
    EXPECT_THAT(elsewhere.text(), MatchesRegex("2[^<]* 1 x\n"));
}

} // namespace
