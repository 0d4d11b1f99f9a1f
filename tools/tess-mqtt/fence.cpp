#include "tools/tess-mqtt/fence.h"

#include <algorithm>
#include <utility>

namespace {

constexpr const char* ZERO = "0\r\n\r\n"; // tessd's answer to "*"
constexpr const char* REFUSAL = "?\r\n";  // and to "$"

} // namespace

Fence::Fence(std::string_view line) : line_("*"), expected_{ZERO}
{
    if (line.find('*') == std::string_view::npos) return; // then nothing in it is answered with "0"
    for (std::ptrdiff_t left = std::ranges::count(line, '|') + 1; left > 0; --left) {
        line_ += "|$";
        expected_.emplace_back(REFUSAL);
    }
}

bool Fence::isComplete() const
{
    return answers_.size() >= expected_.size() && std::equal(expected_.rbegin(), expected_.rend(), answers_.rbegin());
}

bool Fence::take(std::string text)
{
    answers_.push_back(std::move(text));
    if (!isComplete()) return false;
    answers_.resize(answers_.size() - expected_.size());
    return true;
}
