#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/standard_error.h"

/// One line of the process's log.
struct LogLine {
    int id;
    std::string text;

    bool operator==(const LogLine&) const = default;
};

/// How a line looks in the message of a failed test.
void PrintTo(const LogLine& line, std::ostream* out);

/// Catches what is written to standard error while it lives; a sanitizer's report is passed on at
/// the end. One at a time.
class LogCapture {
public:
    LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture();

    /// The log lines so far; a line that is none has the identifier 0.
    std::vector<LogLine> lines() const;

    /// How many lines so far are exactly this one.
    int count(const LogLine& line) const;

    /// Everything so far, as it was written.
    std::string text() const;

private:
    std::FILE* file_;
    int caught_ = -1;
    std::optional<StandardError> standardError_;
};
