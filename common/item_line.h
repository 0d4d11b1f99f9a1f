#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "framework/fixed_text.h"

/// One line of a text that programs read, composed in place:
///
///     process name="ENC" address=1500 sent=3
///
/// A word, then keys with values: numbers are bare, texts in double quotes. Within these a quote
/// and a backslash have a backslash in front, and a byte that is no printable ASCII character is
/// \xHH: nobody whose text is told can make a line, or a key, of his own.
/// Threads: no lock of its own.
class ItemLine {
public:
    /// Longest text between its quotes. What does not fit is left out, and "..." stands behind the
    /// closing quote. A command line fits whole, as long as it can be printed.
    static constexpr std::size_t QUOTED_BYTES = 2600;
    /// Room for two such texts, not both of the longest, and what stands beside them.
    static constexpr std::size_t LINE_BYTES = 4000;

    /// @param word  empty: the line begins with its first key
    explicit ItemLine(std::string_view word);

    ItemLine& number(std::string_view key, std::int64_t value);

    /// In hexadecimal, eight digits behind "0x".
    ItemLine& hex(std::string_view key, std::uint32_t value);

    /// A moment, in seconds with three decimals.
    ItemLine& seconds(std::string_view key, std::int64_t milliseconds);

    ItemLine& text(std::string_view key, std::string_view value);

    const char* c_str() const { return line_.c_str(); }
    std::string_view view() const { return line_.view(); }

private:
    void put(std::string_view key);
    void quoted(std::string_view value);

    FixedText<LINE_BYTES> line_;
};
