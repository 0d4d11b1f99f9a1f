#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

/// An input that is used up from the front. Behind its end everything is zero or empty.
class FuzzInput {
public:
    FuzzInput(const std::uint8_t* data, std::size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

    bool empty() const { return rest_.empty(); }

    /// The next bytes as they lie in memory.
    template <class Number> Number number()
    {
        static_assert(std::is_integral_v<Number>);
        Number value = 0;
        const std::string bytes = take(sizeof value);
        std::memcpy(&value, bytes.data(), bytes.size());
        return value;
    }

    std::uint8_t byte() { return number<std::uint8_t>(); }

    template <class Value, std::size_t Count> const Value& oneOf(const Value (&values)[Count])
    {
        return values[byte() % Count];
    }

    /// Up to `most` bytes, fewer at the end.
    std::string take(std::size_t most)
    {
        const std::string taken(rest_.substr(0, most));
        rest_.remove_prefix(taken.size());
        return taken;
    }

    /// A number of bytes that the input chooses, up to `most`.
    std::string chunk(std::size_t most) { return take(number<std::uint16_t>() % (most + 1)); }

    std::string rest() { return take(rest_.size()); }

private:
    std::string_view rest_;
};
