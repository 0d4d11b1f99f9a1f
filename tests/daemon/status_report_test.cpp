#include "daemon/status_report.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include "framework/tess_messages.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

StatusReport emptyReport()
{
    return {std::chrono::seconds(123), 2, {}, {}, {}};
}

/// The lines of the report that begin with a word.
std::string linesOf(const StatusReport& report, const std::string& word)
{
    const std::string text = statusText(report);
    std::string found;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at) + 1;
        if (text.compare(at, word.size() + 1, word + " ") == 0) found += text.substr(at, end - at);
        at = end;
    }
    return found;
}

} // namespace

TEST(StatusReport, BeginsWithTheDaemonAndItsCounters)
{
    const std::string text = statusText(emptyReport());
    EXPECT_THAT(text, StartsWith("daemon version=\"" TESS_VERSION "\" uptime=123 pid=" + std::to_string(::getpid()) +
                                 " delays="));
    EXPECT_THAT(text, HasSubstr(" watchers=2\ncount lines="));
}

TEST(StatusReport, HasALineForEachPort)
{
    StatusReport report = emptyReport();
    report.ports = {{PORT_TELNET, true, 3, 10}, {PORT_COM2, false, 0, 1}};
    EXPECT_EQ(linesOf(report, "port"), "port name=\"telnet\" open=1 connections=3 limit=10\n"
                                       "port name=\"com2\" open=0 connections=0 limit=1\n");
}

TEST(StatusReport, HasALineForEachConnection)
{
    StatusReport report = emptyReport();
    ConnPeer telnet;
    telnet.address << "192.0.2.7:40122";
    ConnPeer gone;
    gone.credentials = ucred{0, 1000, 1000}; // no process has that number
    report.connections = {
        {0xAA01'0000, PORT_TELNET, telnet, "al\"ice", std::chrono::seconds(12), std::chrono::seconds(3), "queue 1500"},
        {0xBB01'0000, PORT_IPC, gone, "", std::chrono::seconds(1), std::chrono::seconds(0), ""},
        {0xBB02'0000, PORT_IPC, {}, "", std::chrono::seconds(1), std::chrono::seconds(0), ""},
    };
    EXPECT_EQ(
        linesOf(report, "connection"),
        "connection id=0xaa010000 port=\"telnet\" peer=\"192.0.2.7:40122\" user=\"al\\\"ice\" connected=12 idle=3 "
        "waits=\"queue 1500\"\n"
        "connection id=0xbb010000 port=\"ipc\" peer=\"pid 0 uid 1000\" user=\"\" connected=1 idle=0 waits=\"\"\n"
        "connection id=0xbb020000 port=\"ipc\" peer=\"\" user=\"\" connected=1 idle=0 waits=\"\"\n");
}

TEST(StatusReport, HasALineForEachProcess)
{
    StatusReport report = emptyReport();
    report.processes = {{"ENC", 1500, 15, 7, 6, true}};
    EXPECT_EQ(linesOf(report, "process"), "process name=\"ENC\" address=1500 ports=15 sent=7 answered=6 full=1\n");
}

TEST(PiecesOf, CutsBehindEndsOfLines)
{
    EXPECT_THAT(piecesOf("", 4), ElementsAre(""));
    EXPECT_THAT(piecesOf("a\nb\n", 4), ElementsAre("a\nb\n"));
    EXPECT_THAT(piecesOf("a\nb\nc\n", 4), ElementsAre("a\nb\n", "c\n"));
    EXPECT_THAT(piecesOf("a\nb\nc\n", 5), ElementsAre("a\nb\n", "c\n"));
    EXPECT_THAT(piecesOf("toolong\nb\n", 4), ElementsAre("tool", "ong\n", "b\n"));
}
