#include "framework/bundled/log_line.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

struct TimeCase {
    long long unixSeconds; ///< from date -u -d "..." +%s
    int millis;
    const char* iso;
    const char* syslog;
};

TEST(LogLine, WritesTheTimeInUtc)
{
    const TimeCase cases[] = {
        {0, 0, "1970-01-01T00:00:00.000Z", "Jan  1 00:00:00"},
        {951782399, 999, "2000-02-28T23:59:59.999Z", "Feb 28 23:59:59"},
        {951782400, 7, "2000-02-29T00:00:00.007Z", "Feb 29 00:00:00"},
        {1795238100, 123, "2026-11-21T05:15:00.123Z", "Nov 21 05:15:00"},
        {1798761599, 90, "2026-12-31T23:59:59.090Z", "Dec 31 23:59:59"},
        {2147483648, 0, "2038-01-19T03:14:08.000Z", "Jan 19 03:14:08"},
        {4102444799, 1, "2099-12-31T23:59:59.001Z", "Dec 31 23:59:59"},
    };
    for (const TimeCase& c : cases) {
        const LogLineText::Time time(seconds(c.unixSeconds) + milliseconds(c.millis));
        LogLineText iso;
        LogLineText syslog;
        EXPECT_EQ(iso.isoTime(time).view(), c.iso);
        EXPECT_EQ(syslog.syslogTime(time).view(), c.syslog);
    }
}

TEST(LogLine, JoinsTextAndNumbers)
{
    LogLineText line;
    line.text("a ").number(51000).text(" ").number(-1).text("").lineEnd();
    EXPECT_EQ(line.view(), "a 51000 -1\n");
}

TEST(LogLine, TurnsLineEndsIntoBlanks)
{
    LogLineText line;
    line.text("kept\n").oneLineText("\r\na\nb\rc\r\n");
    EXPECT_EQ(line.view(), "kept\n  a b c  ");
}

TEST(LogLine, CutsWhatDoesNotFitAndKeepsRoomForTheLineEnd)
{
    const std::size_t roomForText = LogLineText::CAPACITY - 1;
    for (const std::size_t size : {roomForText - 1, roomForText, roomForText + 1, 2 * roomForText}) {
        LogLineText line;
        line.oneLineText(std::string(size, 'x')).text("y").number(1).lineEnd();
        const std::string whole = std::string(size, 'x') + "y1";
        EXPECT_EQ(line.view(), whole.substr(0, roomForText) + "\n") << size << " characters";
    }
}

} // namespace
