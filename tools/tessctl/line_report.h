#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "tools/tessctl/answer_reader.h"

/// What has become of one line that was sent.
struct LineReport {
    std::string line;
    std::string time; ///< when it was sent; empty: not told
    std::vector<Answer> answers;
    std::chrono::microseconds took{0}; ///< until its last answer was whole
};

/// The report as one JSON object in one line, without an end. Bytes that are not UTF-8 become
/// U+FFFD.
std::string jsonText(const LineReport& report);
