#include "tools/tessctl/key_decoder.h"

#include <cwchar>

namespace {

constexpr wchar_t FIRST_STAND_IN = 0x10FF00;
// In UTF-8 each of them has four bytes: these two, two bits in the third and six in the last.
constexpr std::string_view STAND_IN_BEGINS = "\xF4\x8F";
constexpr std::size_t STAND_IN_BYTES = 4;
constexpr unsigned char LEAST_THIRD = 0xBC;

bool beginsWithStandIn(std::string_view text)
{
    return text.size() >= STAND_IN_BYTES && text.starts_with(STAND_IN_BEGINS) &&
           static_cast<unsigned char>(text[2]) >= LEAST_THIRD;
}

} // namespace

std::optional<wchar_t> KeyDecoder::next()
{
    if (bytes_.empty()) return std::nullopt;
    std::mbstate_t state{};
    wchar_t character = 0;
    std::size_t count = std::mbrtowc(&character, bytes_.data(), bytes_.size(), &state);
    if (count == static_cast<std::size_t>(-2)) return std::nullopt;
    if (count == static_cast<std::size_t>(-1)) {
        character = FIRST_STAND_IN + static_cast<unsigned char>(bytes_.front());
        count = 1;
    }
    bytes_.erase(0, count == 0 ? 1 : count); // 0: it was a NUL
    return character;
}

std::string typedBytes(std::string_view text)
{
    std::string bytes;
    while (!text.empty()) {
        const bool standIn = beginsWithStandIn(text);
        bytes += standIn ? static_cast<char>((text[2] & 0x03) << 6 | (text[3] & 0x3F)) : text.front();
        text.remove_prefix(standIn ? STAND_IN_BYTES : 1);
    }
    return bytes;
}
