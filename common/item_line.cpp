#include "common/item_line.h"

namespace {

constexpr std::string_view DIGITS = "0123456789abcdef";

/// A character as it stands between quotes.
FixedText<8> escaped(char character)
{
    FixedText<8> text;
    const auto byte = static_cast<unsigned char>(character);
    if (byte < 0x20 || byte > 0x7E) return text << "\\x" << DIGITS[byte >> 4U] << DIGITS[byte & 0xFU];
    if (character == '"' || character == '\\') text << '\\';
    return text << character;
}

} // namespace

ItemLine::ItemLine(std::string_view word)
{
    line_ << word;
}

void ItemLine::put(std::string_view key)
{
    if (!line_.view().empty()) line_ << ' ';
    line_ << key << '=';
}

ItemLine& ItemLine::number(std::string_view key, std::int64_t value)
{
    put(key);
    line_ << value;
    return *this;
}

ItemLine& ItemLine::hex(std::string_view key, std::uint32_t value)
{
    put(key);
    line_ << "0x";
    for (unsigned shift = 32; shift > 0; shift -= 4)
        line_ << DIGITS[(value >> (shift - 4)) & 0xFU];
    return *this;
}

ItemLine& ItemLine::seconds(std::string_view key, std::int64_t milliseconds)
{
    put(key);
    const auto decimals = static_cast<unsigned>(milliseconds % 1000);
    line_ << milliseconds / 1000 << '.' << DIGITS[decimals / 100] << DIGITS[decimals / 10 % 10]
          << DIGITS[decimals % 10];
    return *this;
}

ItemLine& ItemLine::text(std::string_view key, std::string_view value)
{
    put(key);
    quoted(value);
    return *this;
}

void ItemLine::quoted(std::string_view value)
{
    std::size_t room = QUOTED_BYTES;
    line_ << '"';
    for (const char character : value) {
        const FixedText<8> piece = escaped(character);
        if (piece.view().size() > room) {
            line_ << "\"...";
            return;
        }
        line_ << piece.view();
        room -= piece.view().size();
    }
    line_ << '"';
}
