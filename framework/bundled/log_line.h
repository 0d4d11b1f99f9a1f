#pragma once

#include <chrono>
#include <cstddef>
#include <string_view>

#include "framework/fixed_text.h"

/// One log line, composed in place: no lock, no allocation, only what signal-safety(7) allows.
/// What does not fit is cut; room for the line end is always kept.
class LogLineText {
public:
    /// Chosen, not measured; no longer than PIPE_BUF (pipe(7)), so that lines of several writers do
    /// not mix in a pipe.
    static constexpr std::size_t CAPACITY = 4096;

    using Time = std::chrono::sys_time<std::chrono::milliseconds>;

    /// The time as `2026-11-21T05:15:00.123Z`.
    LogLineText& isoTime(Time time);
    /// The time as the system log wants it: `Nov  1 05:15:00` (RFC 3164, section 4.1.2; in UTC).
    LogLineText& syslogTime(Time time);
    LogLineText& number(long value);
    LogLineText& text(std::string_view part);
    /// As text(), with line ends turned into blanks.
    LogLineText& oneLineText(std::string_view part);
    /// Ends the line; fits even after a cut.
    LogLineText& lineEnd();

    std::string_view view() const { return line_.view(); }

private:
    LogLineText& padded(unsigned value, unsigned digits, char pad);
    LogLineText& clock(Time time);

    FixedText<CAPACITY + 1> line_; // and a NUL
};
