#include "framework/bundled/log_line.h"

#include <algorithm>
#include <array>

namespace {

constexpr std::array<std::string_view, 12> monthNames{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// The calendar is reckoned here, because gmtime_r() may take a lock.
std::chrono::year_month_day dateOf(LogLineText::Time time)
{
    return std::chrono::floor<std::chrono::days>(time);
}

} // namespace

LogLineText& LogLineText::isoTime(Time time)
{
    const std::chrono::year_month_day date = dateOf(time);
    padded(static_cast<unsigned>(static_cast<int>(date.year())), 4, '0').text("-");
    padded(static_cast<unsigned>(date.month()), 2, '0').text("-");
    padded(static_cast<unsigned>(date.day()), 2, '0').text("T");
    clock(time).text(".");
    const auto millis = time - std::chrono::floor<std::chrono::seconds>(time);
    return padded(static_cast<unsigned>(millis.count()), 3, '0').text("Z");
}

LogLineText& LogLineText::syslogTime(Time time)
{
    const std::chrono::year_month_day date = dateOf(time);
    text(monthNames[static_cast<unsigned>(date.month()) - 1]).text(" ");
    padded(static_cast<unsigned>(date.day()), 2, ' ').text(" ");
    return clock(time);
}

LogLineText& LogLineText::clock(Time time)
{
    const std::chrono::hh_mm_ss day(time - std::chrono::floor<std::chrono::days>(time));
    padded(static_cast<unsigned>(day.hours().count()), 2, '0').text(":");
    padded(static_cast<unsigned>(day.minutes().count()), 2, '0').text(":");
    return padded(static_cast<unsigned>(day.seconds().count()), 2, '0');
}

LogLineText& LogLineText::number(long value)
{
    return text((FixedText<24>() << value).view());
}

LogLineText& LogLineText::padded(unsigned value, unsigned digits, char pad)
{
    FixedText<12> field;
    field << value;
    for (std::size_t i = field.view().size(); i < digits; ++i)
        text({&pad, 1});
    return text(field.view());
}

LogLineText& LogLineText::text(std::string_view part)
{
    line_ << part.substr(0, CAPACITY - 1 - line_.view().size());
    return *this;
}

LogLineText& LogLineText::oneLineText(std::string_view part)
{
    for (;;) {
        const std::size_t end = std::min(part.find_first_of("\r\n"), part.size());
        text(part.substr(0, end));
        if (end == part.size()) return *this;
        text(" ");
        part.remove_prefix(end + 1);
    }
}

LogLineText& LogLineText::lineEnd()
{
    line_ << '\n';
    return *this;
}
