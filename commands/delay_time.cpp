#include "commands/delay_time.h"

#include <array>
#include <limits>
#include <vector>

#include "framework/tokenizer.h"

namespace {

struct Field {
    std::int32_t limit;
    std::int32_t milliseconds;
};

// From the last number to the first.
constexpr std::array fields{
    Field{std::numeric_limits<std::int32_t>::max(), 1}, // milliseconds
    Field{2'999'999, 1'000},                            // seconds
    Field{59'999, 60'000},                              // minutes
    Field{999, 3'600'000},                              // hours
};

/// The product as 32-bit signed arithmetic gives it, then widened.
std::uint64_t wrappedProduct(std::int32_t number, std::int32_t factor)
{
    const std::uint32_t product = static_cast<std::uint32_t>(number) * static_cast<std::uint32_t>(factor);
    return static_cast<std::uint64_t>(std::int64_t{static_cast<std::int32_t>(product)});
}

} // namespace

std::uint64_t parseDelayTime(std::string_view text)
{
    std::vector<int> numbers;
    if (intTokenizer(text, numbers, ": .") != 0 || numbers.size() > fields.size()) return 0;
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        const std::int32_t number = numbers[numbers.size() - 1 - i];
        if (number > fields[i].limit) return 0;
        sum += wrappedProduct(number, fields[i].milliseconds);
    }
    return sum;
}
