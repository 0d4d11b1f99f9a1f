#include "tools/tess-mqtt/fence.h"

#include <algorithm>
#include <utility>

namespace {

constexpr std::string_view FRONT = "*";
constexpr std::string_view EACH = "|$";
constexpr const char* ZERO = "0\r\n\r\n"; // tessd's answer to "*"
constexpr const char* REFUSAL = "?\r\n";  // and to "$"

} // namespace

Fence::Fence(std::string_view line) : line_(FRONT), expected_{ZERO}
{
    if (line.find('*') == std::string_view::npos) return; // then nothing in it is answered with "0"
    for (std::ptrdiff_t left = std::ranges::count(line, '|') + 1; left > 0; --left) {
        line_ += EACH;
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

bool isFence(std::string_view line)
{
    if (!line.starts_with(FRONT)) return false;
    line.remove_prefix(FRONT.size());
    while (line.starts_with(EACH))
        line.remove_prefix(EACH.size());
    return line.empty();
}
