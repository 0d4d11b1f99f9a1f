#include "framework/log_mgr.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sstream>
#include <sys/time.h>
#include <thread>
#include <vector>

#include "framework/bundled/syslog_socket.h"
#include "tests/framework/child_process.h"
#include "tests/framework/fake_system.h"
#include "tests/framework/signal_counter.h"
#include "tests/framework/way.h"
#include "tests/support/log_capture.h"
#include "tests/support/raw_socket.h"
#include "tests/support/standard_error.h"
#include "tests/support/temp_dir.h"
#include "tests/support/waiting.h"

namespace {

using testing::HasSubstr;
using testing::Matches;
using testing::MatchesRegex;
using testing::Not;

// For regcomp(3), extended.
constexpr const char* isoTime = "[0-9]{4}-[01][0-9]-[0-3][0-9]T[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{3}Z";
constexpr const char* syslogTime = "[JFMASOND][a-z]{2} [ 123][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]";

class LogMgr : public testing::Test {
protected:
    LogMgr()
    {
        systemLogPath_ = dir_ / "log";
        SyslogSocket::path = systemLogPath_.c_str();
        configure("stderr");
    }
    ~LogMgr() override
    {
        configure("stderr");
        ::unsetenv("TESS_LOG");
        ::unsetenv("NOTIFY_SOCKET");
        SyslogSocket::path = "/dev/log";
    }

    static void configure(const char* destination, const char* tag = "    [TEST]")
    {
        ::setenv("TESS_LOG", destination, 1);
        logMgr.setLogParameters(128, 6, tag, 4);
    }

    static std::string logged(TTraceMsg id, const std::string& text)
    {
        const LogCapture captured;
        logMgr.log(id, text.c_str());
        return captured.text();
    }

    /// Leaves a service manager's socket no room.
    static void fill(const std::string& path)
    {
        const RawSocket busy;
        while (busy.sendTo(path, "STATUS=", 7)) {
        }
    }

    TempDir dir_;
    std::string systemLogPath_;
};

TEST_F(LogMgr, WritesTimeTagIdentifierAndText)
{
    EXPECT_THAT(logged(51000, "Command listener daemon running"),
                MatchesRegex(std::string(isoTime) + "    \\[TEST\\] 51000 Command listener daemon running\n"));
}

TEST_F(LogMgr, TakesTheTagAsItStands)
{
    configure("stderr", "");
    EXPECT_THAT(logged(1, "x"), MatchesRegex(std::string(isoTime) + " 1 x\n"));
    configure("stderr", " [%s%n] ");
    EXPECT_THAT(logged(1, "x"), HasSubstr("Z [%s%n]  1 x\n"));
}

TEST_F(LogMgr, WritesTheTimeOfTheLine)
{
    const std::time_t before = std::time(nullptr);
    const std::string line = logged(1, "x");
    const std::time_t after = std::time(nullptr);
    std::tm fields{};
    ASSERT_NE(::strptime(line.c_str(), "%Y-%m-%dT%H:%M:%S", &fields), nullptr);
    const std::time_t written = ::timegm(&fields);
    EXPECT_GE(written, before);
    EXPECT_LE(written, after);
}

TEST_F(LogMgr, TurnsLineEndsInsideTheTextIntoBlanks)
{
    EXPECT_THAT(logged(7, "a\r\nb\nc\r"), MatchesRegex(std::string(isoTime) + "    \\[TEST\\] 7 a  b c \n"));
}

TEST_F(LogMgr, DoesNotReadTheTextAsAFormat)
{
    EXPECT_THAT(logged(7, "%s%n%d"), HasSubstr(" 7 %s%n%d\n"));
}

TEST_F(LogMgr, CutsATextThatIsTooLongForALine)
{
    const std::string line = logged(7, std::string(10'000, 'x'));
    EXPECT_EQ(line.size(), 4096U);
    EXPECT_EQ(line.back(), '\n');
    EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1);
}

TEST_F(LogMgr, WritesEachLineInOneWrite)
{
    // Each write to a packet-mode pipe (pipe2(2), O_DIRECT) is one packet, and a read takes one
    // packet.
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_DIRECT | O_CLOEXEC), 0);
    const int saved = ::dup(STDERR_FILENO);
    ::dup2(ends[1], STDERR_FILENO);
    logMgr.log(7, std::string(10'000, 'x').c_str());
    logMgr.log(8, "second");
    ::dup2(saved, STDERR_FILENO);
    ::close(saved);
    char packet[8192];
    EXPECT_EQ(::read(ends[0], packet, sizeof packet), 4096);
    const ssize_t second = ::read(ends[0], packet, sizeof packet);
    ASSERT_GT(second, 0);
    EXPECT_THAT(std::string(packet, static_cast<std::size_t>(second)), HasSubstr("    [TEST] 8 second\n"));
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST_F(LogMgr, KeepsErrno)
{
    const int saved = ::dup(STDERR_FILENO);
    ::close(STDERR_FILENO);
    errno = ENOTTY;
    logMgr.log(7, "into nothing");
    const int kept = errno;
    ::dup2(saved, STDERR_FILENO);
    ::close(saved);
    EXPECT_EQ(kept, ENOTTY);
    EXPECT_THAT(logged(8, "next"), HasSubstr(" 250008 1 log lines were lost\n"));
}

TEST_F(LogMgr, LinesFromASignalHandlerAndFromThreadsStayWhole)
{
    const SignalCounter alarms(SIGALRM, SA_RESTART, [] { logMgr.log(51001, "from the handler"); });
    const LogCapture captured;
    itimerval everyMillisecond{};
    everyMillisecond.it_interval.tv_usec = everyMillisecond.it_value.tv_usec = 1'000;
    ASSERT_EQ(::setitimer(ITIMER_REAL, &everyMillisecond, nullptr), 0);
    const auto logMany = [] {
        for (int i = 0; i < 2000; ++i)
            logMgr.log(51002, "from a thread");
    };
    std::thread other(logMany);
    logMany();
    other.join();
    // The machine may have been so quick, or so busy, that no signal came.
    ::raise(SIGALRM);
    const itimerval off{};
    ::setitimer(ITIMER_REAL, &off, nullptr);

    const auto fromTheHandler = Matches(MatchesRegex(std::string(isoTime) + "    \\[TEST\\] 51001 from the handler"));
    const auto fromAThread = Matches(MatchesRegex(std::string(isoTime) + "    \\[TEST\\] 51002 from a thread"));
    std::istringstream lines(captured.text());
    int fromThreads = 0;
    int fromHandler = 0;
    for (std::string line; std::getline(lines, line);) {
        const bool handlers = fromTheHandler(line);
        ASSERT_TRUE(handlers || fromAThread(line)) << line;
        ++(handlers ? fromHandler : fromThreads);
    }
    EXPECT_EQ(fromThreads, 4000);
    EXPECT_GE(fromHandler, 1);
}

TEST_F(LogMgr, ALineThatNobodyTakesAtOnceIsLostAndTheNextOneTellsSo)
{
    for (const Way::Kind kind : {Way::PIPE, Way::STREAM, Way::TERMINAL}) {
        const Way way(kind);
        const StandardError standardError(way.fd());
        way.fill();
        errno = ENOTTY;
        for (int i = 0; i < 3; ++i)
            logMgr.log(7, "lost");
        EXPECT_EQ(errno, ENOTTY);
        EXPECT_THAT(way.receive(), Not(HasSubstr("lost")));
        logMgr.log(8, "first");
        logMgr.log(9, "second");
        EXPECT_THAT(way.receive("second\n"),
                    MatchesRegex(std::string(isoTime) + "    \\[TEST\\] 250008 3 log lines were lost\n" + isoTime +
                                 "    \\[TEST\\] 8 first\n" + isoTime + "    \\[TEST\\] 9 second\n"))
            << "way " << kind;
    }
}

TEST_F(LogMgr, LinesAreLostWithoutASignalWhenTheReaderHasGone)
{
    const auto before = std::signal(SIGPIPE, SIG_DFL); // it would end this process
    Way way(Way::PIPE);
    way.closeFar();
    {
        const StandardError standardError(way.fd());
        logMgr.log(7, "lost");
    }
    std::signal(SIGPIPE, before);
    EXPECT_THAT(logged(8, "next"), MatchesRegex(".* 250008 1 log lines were lost\n.* 8 next\n"));
}

TEST_F(LogMgr, TheNumberOfLostLinesIsExactWhoeverLosesThem)
{
    constexpr int THREADS = 4;
    constexpr int LINES = 500;
    const SignalCounter alarms(SIGALRM, SA_RESTART, [] { logMgr.log(51001, "from the handler"); });
    const Way way(Way::PIPE);
    const StandardError standardError(way.fd());
    way.fill();
    itimerval everyMillisecond{};
    everyMillisecond.it_interval.tv_usec = everyMillisecond.it_value.tv_usec = 1'000;
    ASSERT_EQ(::setitimer(ITIMER_REAL, &everyMillisecond, nullptr), 0);
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([] {
            for (int line = 0; line < LINES; ++line)
                logMgr.log(51002, "from a thread");
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    ::raise(SIGALRM);
    const itimerval off{};
    ::setitimer(ITIMER_REAL, &off, nullptr);
    const int lost = THREADS * LINES + alarms.count();
    EXPECT_THAT(way.receive(), Not(HasSubstr("TEST")));
    logMgr.log(8, "next");
    EXPECT_THAT(way.receive(" next\n"),
                MatchesRegex(".* 250008 " + std::to_string(lost) + " log lines were lost\n.* 8 next\n"));
}

TEST_F(LogMgr, WhatThreadsLoseAndWhatGoesThroughIsEverything)
{
    constexpr int THREADS = 4;
    constexpr int LINES = 3000;
    const Way way(Way::PIPE);
    std::string all;
    {
        const StandardError standardError(way.fd());
        std::atomic<int> atWork{THREADS};
        std::vector<std::thread> threads;
        for (int i = 0; i < THREADS; ++i) {
            threads.emplace_back([&] {
                for (int line = 0; line < LINES; ++line)
                    logMgr.log(51002, "from a thread");
                --atWork;
            });
        }
        while (atWork > 0) { // a reader that is too slow
            all += way.receiveOne();
            std::this_thread::yield();
        }
        for (std::thread& thread : threads)
            thread.join();
        all += way.receive();
        logMgr.log(8, "last");
    }
    all += way.receive(" last\n");
    std::istringstream lines(all);
    int seen = 0;
    for (std::string line; std::getline(lines, line);) {
        const std::size_t lostAt = line.find(" 250008 ");
        if (lostAt != std::string::npos) seen += std::stoi(line.substr(lostAt + 8));
        if (line.ends_with(" 51002 from a thread")) ++seen;
    }
    EXPECT_EQ(seen, THREADS * LINES);
}

TEST_F(LogMgr, ALineThatIsCutIsLostAndDoesNotRunIntoTheNextOne)
{
    const Way way(Way::STREAM);
    const StandardError standardError(way.fd());
    {
        const fake_system::ShortSend cut(30);
        logMgr.log(7, "cut");
    }
    {
        const fake_system::ShortSend none(0);
        logMgr.log(7, "lost");
    }
    logMgr.log(8, "whole");
    logMgr.log(9, "whole too");
    EXPECT_THAT(way.receive("too\n"),
                MatchesRegex(std::string(isoTime) + "    \\[T\n" + isoTime +
                             "    \\[TEST\\] 250008 2 log lines were lost\n" + isoTime + "    \\[TEST\\] 8 whole\n" +
                             isoTime + "    \\[TEST\\] 9 whole too\n"));
}

TEST_F(LogMgr, ALineIsLostOnlyWhenNoDestinationTakesIt)
{
    const Way way(Way::PIPE);
    const StandardError standardError(way.fd());
    way.fill();
    configure("both");
    {
        const RawSocket systemLog(systemLogPath_);
        logMgr.log(1, "taken there");
        EXPECT_THAT(systemLog.receive(), HasSubstr(" 1 taken there"));
        ::unlink(systemLogPath_.c_str());
    }
    logMgr.log(2, "lost");
    configure("syslog");
    logMgr.log(3, "lost");
    const RawSocket systemLog(systemLogPath_);
    logMgr.log(4, "next");
    EXPECT_THAT(systemLog.receive(), HasSubstr("]:    [TEST] 250008 2 log lines were lost"));
    EXPECT_THAT(systemLog.receive(), HasSubstr(" 4 next"));
    EXPECT_EQ(systemLog.receiveNow(), "<nothing there>");
    EXPECT_THAT(way.receive(), Not(HasSubstr("TEST")));
}

TEST_F(LogMgr, AForkedChildTellsOnlyWhatItHasLostItself)
{
    const Way full(Way::PIPE);
    full.fill();
    {
        const StandardError standardError(full.fd());
        logMgr.log(7, "lost");
    }
    const Way childs(Way::PIPE);
    ChildProcess child([&] {
        const StandardError standardError(childs.fd());
        logMgr.log(8, "child");
        return 0;
    });
    EXPECT_EQ(child.result(), 0);
    EXPECT_THAT(childs.receive(), MatchesRegex(std::string(isoTime) + "    \\[TEST\\] 8 child\n"));
    EXPECT_THAT(logged(9, "parent"), HasSubstr(" 250008 1 log lines were lost\n"));
}

TEST_F(LogMgr, GoesToTheSystemLogInsteadWhenAsked)
{
    const RawSocket systemLog(systemLogPath_);
    configure("syslog");
    EXPECT_EQ(logged(51000, "running\nwell"), "");
    EXPECT_THAT(systemLog.receive(),
                MatchesRegex(std::string("<30>") + syslogTime + " framework_tests\\[" + std::to_string(::getpid()) +
                             "\\]:    \\[TEST\\] 51000 running well"));
    EXPECT_EQ(systemLog.receiveNow(), "<nothing there>");
}

TEST_F(LogMgr, GoesToBothWhenAsked)
{
    const RawSocket systemLog(systemLogPath_);
    configure("both");
    EXPECT_THAT(logged(51000, "running"), HasSubstr("    [TEST] 51000 running\n"));
    EXPECT_THAT(systemLog.receive(), HasSubstr("]:    [TEST] 51000 running"));
}

TEST_F(LogMgr, GoesToStandardErrorWhileThereIsNoSystemLog)
{
    configure("syslog");
    EXPECT_THAT(logged(1, "early"), HasSubstr(" 1 early\n"));
    const RawSocket systemLog(systemLogPath_);
    EXPECT_EQ(logged(2, "later"), "");
    EXPECT_THAT(systemLog.receive(), HasSubstr(" 2 later"));
}

TEST_F(LogMgr, AFullSystemLogCostsNoWaitAndNoLine)
{
    const RawSocket systemLog(systemLogPath_);
    configure("syslog");
    const LogCapture captured;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 1000; ++i)
        logMgr.log(1, "line");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    const std::string overflow = captured.text();
    auto lines = std::count(overflow.begin(), overflow.end(), '\n');
    EXPECT_GT(lines, 0) << "the system log was never full";
    while (systemLog.receiveNow() != "<nothing there>")
        ++lines;
    EXPECT_EQ(lines, 1000);
}

TEST_F(LogMgr, AnyOtherDestinationMeansStandardError)
{
    const RawSocket systemLog(systemLogPath_);
    for (const char* destination : {"", "stderr", "SYSLOG", "file"}) {
        configure(destination);
        EXPECT_THAT(logged(1, "x"), HasSubstr(" 1 x\n")) << destination;
    }
    EXPECT_EQ(systemLog.receiveNow(), "<nothing there>");
}

TEST_F(LogMgr, TellsTheServiceManagerThatItIsReady)
{
    const std::string path = dir_ / "notify";
    const RawSocket manager(path);
    ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
    logMgr.initAfterDaemonize();
    EXPECT_EQ(manager.receive(), "READY=1");
}

TEST_F(LogMgr, TellsAServiceManagerWithAnAbstractName)
{
    const std::string name = "tess-notify-" + std::to_string(::getpid());
    const RawSocket manager('\0' + name);
    ::setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);
    logMgr.initAfterDaemonize();
    EXPECT_EQ(manager.receive(), "READY=1");
}

TEST_F(LogMgr, SaysSoWhenTheServiceManagerDoesNotReadAndGoesOn)
{
    const std::string path = dir_ / "notify";
    const RawSocket manager(path);
    fill(path);
    ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
    const LogCapture captured;
    const auto start = std::chrono::steady_clock::now();
    logMgr.initAfterDaemonize();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took.count(), 0.95) << "a manager that is busy gets a second";
    EXPECT_LT(took.count() * 1000, atMost(3000));
    EXPECT_THAT(captured.text(),
                HasSubstr(" 250006 " + path + ": Resource temporarily unavailable: the service manager " +
                          "does not read, and was not told READY=1\n"));
}

TEST_F(LogMgr, DoesNotWaitForAServiceManagerWithoutATimeOut)
{
    const std::string path = dir_ / "notify";
    const RawSocket manager(path);
    fill(path);
    ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
    const fake_system::RefusedOption refused(SO_SNDTIMEO);
    const LogCapture captured;
    logMgr.initAfterDaemonize();
    EXPECT_THAT(captured.text(), HasSubstr(" 250006 "));
}

TEST_F(LogMgr, ASignalDoesNotKeepTheServiceManagerFromBeingTold)
{
    const std::string path = dir_ / "notify";
    const RawSocket manager(path);
    fill(path);
    ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
    const SignalCounter signals(SIGUSR1);
    const pthread_t starting = ::pthread_self();
    std::string other;
    std::thread disturbing([&] {
        while (signals.count() < 5) {
            ::pthread_kill(starting, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        while ((other = manager.receiveNow()) == "STATUS=") {
        }
    });
    logMgr.initAfterDaemonize();
    disturbing.join();
    EXPECT_GE(signals.count(), 5);
    if (other != "READY=1") other = manager.receiveNow();
    EXPECT_EQ(other, "READY=1");
}

TEST_F(LogMgr, GoesOnQuietlyWithoutAServiceManager)
{
    const LogCapture captured;
    logMgr.initAfterDaemonize();
    const std::string tooLong = "/" + std::string(200, 'x');
    for (const std::string& name :
         {std::string(), std::string("@"), std::string("relative"), dir_ / "nobody", tooLong}) {
        ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
        logMgr.initAfterDaemonize();
    }
    EXPECT_EQ(captured.text(), "");
}

} // namespace
