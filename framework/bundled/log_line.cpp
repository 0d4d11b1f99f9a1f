#include "framework/bundled/log_line.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace {

constexpr std::array<std::string_view, 12> monthNames{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// The calendar is reckoned here, because gmtime_r() may take a lock.
std::chrono::year_month_day dateOf(TLogLine::Time time)
{
    return std::chrono::floor<std::chrono::days>(time);
}

} // namespace

TLogLine& TLogLine::isoTime(Time time)
{
    const std::chrono::year_month_day date = dateOf(time);
    padded(static_cast<unsigned>(static_cast<int>(date.year())), 4, '0').text("-");
    padded(static_cast<unsigned>(date.month()), 2, '0').text("-");
    padded(static_cast<unsigned>(date.day()), 2, '0').text("T");
    clock(time).text(".");
    const auto millis = time - std::chrono::floor<std::chrono::seconds>(time);
    return padded(static_cast<unsigned>(millis.count()), 3, '0').text("Z");
}

TLogLine& TLogLine::syslogTime(Time time)
{
    const std::chrono::year_month_day date = dateOf(time);
    text(monthNames[static_cast<unsigned>(date.month()) - 1]).text(" ");
    padded(static_cast<unsigned>(date.day()), 2, ' ').text(" ");
    return clock(time);
}

TLogLine& TLogLine::clock(Time time)
{
    const std::chrono::hh_mm_ss day(time - std::chrono::floor<std::chrono::days>(time));
    padded(static_cast<unsigned>(day.hours().count()), 2, '0').text(":");
    padded(static_cast<unsigned>(day.minutes().count()), 2, '0').text(":");
    return padded(static_cast<unsigned>(day.seconds().count()), 2, '0');
}

TLogLine& TLogLine::number(long value)
{
    std::array<char, 24> digits;
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
    return text({digits.data(), static_cast<std::size_t>(end - digits.data())});
}

TLogLine& TLogLine::padded(unsigned value, unsigned digits, char pad)
{
    std::array<char, 12> field;
    const auto end = std::to_chars(field.data(), field.data() + field.size(), value).ptr;
    const auto written = static_cast<std::size_t>(end - field.data());
    for (std::size_t i = written; i < digits; ++i)
        text({&pad, 1});
    return text({field.data(), written});
}

TLogLine& TLogLine::text(std::string_view part)
{
    const std::size_t n = std::min(part.size(), CAPACITY - 1 - length_);
    std::memcpy(bytes_.data() + length_, part.data(), n);
    length_ += n;
    return *this;
}

TLogLine& TLogLine::oneLineText(std::string_view part)
{
    const std::size_t from = length_;
    text(part);
    const auto isLineEnd = [](char c) { return c == '\r' || c == '\n'; };
    std::replace_if(bytes_.begin() + static_cast<std::ptrdiff_t>(from),
                    bytes_.begin() + static_cast<std::ptrdiff_t>(length_), isLineEnd, ' ');
    return *this;
}

TLogLine& TLogLine::lineEnd()
{
    bytes_[length_++] = '\n';
    return *this;
}
