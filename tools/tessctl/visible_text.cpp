#include "tools/tessctl/visible_text.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace {

bool isContinuation(unsigned char byte)
{
    return byte >= 0x80 && byte <= 0xBF;
}

/// @return how many bytes the UTF-8 character at the beginning of `text` has; 1 where there is none
std::size_t characterBytes(std::string_view text)
{
    const auto lead = static_cast<unsigned char>(text.front());
    const std::size_t wanted = lead < 0xC2 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 1;
    if (wanted > text.size()) return 1;
    return std::ranges::all_of(text.substr(1, wanted - 1), isContinuation) ? wanted : 1;
}

/// The 8-bit ones too: U+0080 to U+009F, and bytes of that range that belong to no character.
bool controls(std::string_view character)
{
    const auto first = static_cast<unsigned char>(character.front());
    if (character.size() == 1)
        return (first < 0x20 && first != '\t' && first != '\r' && first != '\n') || (first >= 0x7F && first < 0xA0);
    return first == 0xC2 && static_cast<unsigned char>(character[1]) < 0xA0;
}

} // namespace

std::string visibleText(std::string_view text)
{
    std::string result;
    while (!text.empty()) {
        const std::string_view character = text.substr(0, characterBytes(text));
        text.remove_prefix(character.size());
        if (!controls(character)) {
            result += character;
            continue;
        }
        for (const char c : character) {
            std::array<char, 8> escape{};
            (void)std::snprintf(escape.data(), escape.size(), "\\x%02x",
                                static_cast<unsigned>(static_cast<unsigned char>(c))); // it fits
            result += escape.data();
        }
    }
    return result;
}
