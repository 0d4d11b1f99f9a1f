#pragma once

#include <algorithm>
#include <array>
#include <charconv>
#include <concepts>
#include <cstddef>
#include <span>
#include <string_view>

/// Copies what fits of `from` into `to` and ends it with a NUL. Bytes behind that NUL stay as they
/// are.
/// @param to    at least one byte; must not overlap `from`
/// @param from  any bytes, NULs too
/// @return characters copied, without the NUL; fewer than from.size() means it was cut
/// Threads: any; also from a signal handler.
inline std::size_t putText(std::span<char> to, std::string_view from)
{
    const std::size_t n = std::min(from.size(), to.size() - 1);
    (void)from.copy(to.data(), n); // always n; unlike memcpy() it may be given a null pointer and no characters
    to[n] = '\0';
    return n;
}

/// A text composed in place, without allocating, so that a signal handler can use it too. What does
/// not fit is cut, and nobody is told.
/// @tparam Capacity  bytes, the NUL at the end included: the text has one character less
/// Threads: no lock of its own.
template <std::size_t Capacity> class FixedText {
    static_assert(Capacity > 0, "there must be room for the NUL");

public:
    FixedText() { text_[0] = '\0'; }

    FixedText& operator<<(std::string_view part)
    {
        length_ += putText(std::span(text_).subspan(length_), part);
        return *this;
    }

    /// @param part  not null; up to its NUL
    FixedText& operator<<(const char* part) { return *this << std::string_view(part); }

    /// The character itself; the other integers, of eight bits too, are numbers.
    FixedText& operator<<(char character) { return *this << std::string_view(&character, 1); }

    /// Decimal, with a minus where there is one.
    template <std::integral Number> FixedText& operator<<(Number number) { return append(number, 10); }

    FixedText& operator<<(bool) = delete; // it could be meant as a number or as a word

    /// Lower-case hexadecimal without leading zeros.
    template <std::unsigned_integral Number> FixedText& hex(Number number) { return append(number, 16); }

    /// Ends with a NUL. Both point into the object: they show what is appended later, and are
    /// invalid once it is gone.
    const char* c_str() const { return text_.data(); }
    std::string_view view() const { return {text_.data(), length_}; }

private:
    template <std::integral Number> FixedText& append(Number number, int base)
    {
        std::array<char, 24> digits;
        const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number, base).ptr;
        return *this << std::string_view(digits.data(), static_cast<std::size_t>(end - digits.data()));
    }

    std::array<char, Capacity> text_; // left as it is: only what stands before the NUL is ever looked at
    std::size_t length_ = 0;
};
