#include "tools/tessctl/status_view.h"

#include <cstdint>
#include <gmock/gmock.h>

#include "tools/tessctl/exit_status.h"
#include "tools/tessctl/metrics.h"
#include "tools/tessctl/status_query.h"
#include "tools/tessctl/text_table.h"
#include "tools/tessctl/top_view.h"
#include "tools/tessctl/watch_filter.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

TEST(TextTable, MakesColumnsAsWideAsTheirWidestCell)
{
    EXPECT_THAT(tableLines({{"NAME", "N"}, {"a", "1"}, {"longer", ""}}, 0),
                ElementsAre("NAME    N", "a       1", "longer"));
    EXPECT_THAT(tableLines({}, 0), ElementsAre());
}

TEST(TextTable, NarrowsTheWidestColumnsToFit)
{
    EXPECT_THAT(tableLines({{"NAME", "PEER"}, {"abcdefgh", "0123456789"}}, 14),
                ElementsAre("NAME    PEER", "abcde~  01234~"));
    EXPECT_THAT(tableLines({{"AB", "CD", "EF"}, {"abcdef", "abcdef", "abcdef"}}, 5), ElementsAre("AB  ~", "ab~ ~"))
        << "columns have three characters at least; the line is cut";
}

TEST(SpanText, NamesTheTwoLargestUnits)
{
    struct Row {
        std::int64_t seconds;
        const char* text;
    };
    const Row rows[] = {
        {0, "0 s"},
        {59, "59 s"},
        {60, "1 min 0 s"},
        {3599, "59 min 59 s"},
        {3600, "1 h 0 min"},
        {86399, "23 h 59 min"},
        {86400, "1 d 0 h"},
        {90000, "1 d 1 h"},
        {4294967295, "49710 d 6 h"},
    };
    for (const Row& row : rows)
        EXPECT_EQ(spanText(std::chrono::seconds(row.seconds)), row.text);
}

TEST(PortsText, NamesThePortsOfAMask)
{
    EXPECT_EQ(portsText(0), "");
    EXPECT_EQ(portsText(8), "ipc");
    EXPECT_EQ(portsText(0xFFFFFFFF), "com2,telnet,xcp,ipc");
}

TEST(StatusLines, WantWhatEveryDaemonTells)
{
    EXPECT_THROW((void)statusLines(parseItems("count lines=1\n"), 0), CtlError);
    EXPECT_THAT(statusLines(parseItems("daemon version=\"1\" pid=7 uptime=61\ncount lines=1\n"), 0),
                testing::Contains("tessd        1, process 7, up 1 min 1 s"));
}

TEST(Rate, IsForASecondAlsoWhereTheCounterHasBegunAnew)
{
    const auto at = [](int seconds, const char* items) {
        return Sample{std::chrono::steady_clock::time_point(std::chrono::seconds(seconds)), parseItems(items)};
    };
    const Sample before = at(10, "daemon pid=7\ncount lines=4294967290\n");
    EXPECT_DOUBLE_EQ(rate(before, at(12, "daemon pid=7\ncount lines=4294967294\n"), "lines"), 2);
    EXPECT_DOUBLE_EQ(rate(before, at(12, "daemon pid=7\ncount lines=4\n"), "lines"), 5);
    EXPECT_DOUBLE_EQ(rate(before, at(12, "daemon pid=8\ncount lines=4\n"), "lines"), 0) << "another daemon";
    EXPECT_DOUBLE_EQ(rate(before, before, "lines"), 0);
}

TEST(WatchFilter, WantsWhatBelongsToAProcess)
{
    WatchFilter filter("ENC", "");
    filter.learn(parseItems("process name=\"enc\" address=1500\nprocess name=\"OTHER\" address=1501\n"));
    struct Row {
        const char* event;
        bool wanted;
    };
    const Row rows[] = {
        {"forward process=1500", true},
        {"forward process=1501", false},
        {"answer process=1500 text=\"x\"", true},
        {"line text=\"s3.ENC X\"", false},
        {"lost records=1 lines=2", true},
        {"watch on=1", false},
        {"register name=\"ENC\" process=1700 ports=8", true},
        {"forward process=1500", false},
        {"forward process=1700", true},
        {"unregister name=\"ENC\" process=1700", true},
    };
    for (const Row& row : rows)
        EXPECT_EQ(filter.wants(*Item::parse(row.event)), row.wanted) << row.event;
}

TEST(WatchFilter, WantsWhatBelongsToAPort)
{
    WatchFilter filter("", "telnet");
    EXPECT_TRUE(filter.wants(*Item::parse("line port=\"telnet\" text=\"x\"")));
    EXPECT_FALSE(filter.wants(*Item::parse("line port=\"ipc\" text=\"x\"")));
    EXPECT_FALSE(filter.wants(*Item::parse("register name=\"ENC\"")));
    EXPECT_TRUE(filter.wants(*Item::parse("lost records=1 lines=2")));
}

TEST(EventText, ShowsTimeConnectionAndWhatHappened)
{
    const auto event =
        Item::parse("line time=1764038096.007 connection=0xbb010000 port=\"ipc\" text=\"s3.ENC\\x0aX\\x0d\\x0a\"");
    const ProcessNames nobody;
    EXPECT_EQ(eventText(*event, nobody, false), "02:34:56.007 ipc    0xbb010000 line       s3.ENC\\x0aX");
    EXPECT_THAT(eventText(*event, nobody, true), HasSubstr("\x1b[36mline      \x1b[0m s3.ENC"));
    EXPECT_THAT(eventText(*Item::parse("lost records=1 lines=2"), nobody, false),
                testing::EndsWith("lost       records=1 lines=2"));
}

TEST(EventText, NamesProcessesThatAreKnown)
{
    ProcessNames names;
    names.learn(parseItems("process name=\"ENC\" address=1500\nprocess name=\"SECOND\" address=1500\n"
                           "process name=\"MUCH-TOO-LONG-FOR-THE-LINE\" address=1501\n"));
    names.see(*Item::parse("register name=\"NEW\" process=1502 ports=8"));
    names.see(*Item::parse("unregister name=\"NO\" process=1503"));
    struct Row {
        const char* event;
        const char* shown;
    };
    const Row rows[] = {
        {"forward process=1500", "forward    process=1500 (ENC)"},
        {"answer process=1501 text=\"5\"", "answer     process=1501 (MUCH-TOO-LONG-FOR-THE-L~) 5"},
        {"forward process=1502", "forward    process=1502 (NEW)"},
        {"forward process=1503", "forward    process=1503"},
        {"register name=\"ENC\" process=1500 ports=8", "register   name=ENC process=1500 ports=8"},
    };
    for (const Row& row : rows)
        EXPECT_THAT(eventText(*Item::parse(row.event), names, false), testing::EndsWith(row.shown)) << row.event;
}
