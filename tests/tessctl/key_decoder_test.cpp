#include "tools/tessctl/key_decoder.h"

#include <clocale>
#include <gtest/gtest.h>
#include <string>

namespace {

/// What is sent when these keys are pressed: decoded, put together again by the editor, and sent.
std::string sent(std::string_view keys)
{
    KeyDecoder decoder;
    std::string text;
    for (const char byte : keys) {
        decoder.add(byte);
        while (const std::optional<wchar_t> character = decoder.next()) {
            std::string bytes(MB_CUR_MAX, '\0');
            const int count = std::wctomb(bytes.data(), *character);
            EXPECT_GT(count, 0);
            text.append(bytes, 0, static_cast<std::size_t>(count));
        }
    }
    return typedBytes(text);
}

} // namespace

TEST(KeyDecoder, LosesNoByteOfWhatIsTyped)
{
    if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) GTEST_SKIP() << "there is no locale C.UTF-8";
    std::string all;
    for (int byte = 1; byte < 256; ++byte)
        all += static_cast<char>(byte);
    for (const std::string& keys : {std::string("SETX 5"), std::string("Gr\u00f6\u00dfe \u20ac \U0001F600"),
                                    std::string("\xE9 t\xE9 "), std::string("\xFF\xFE\xC3\xC3\xA9"), all})
        EXPECT_EQ(sent(keys + "\r"), keys + "\r") << testing::PrintToString(keys);
    std::setlocale(LC_CTYPE, "C");
}

TEST(KeyDecoder, WaitsForTheRestOfACharacter)
{
    if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) GTEST_SKIP() << "there is no locale C.UTF-8";
    KeyDecoder decoder;
    EXPECT_EQ(decoder.next(), std::nullopt);
    decoder.add('\xC3');
    EXPECT_EQ(decoder.next(), std::nullopt);
    decoder.add('\xA9');
    EXPECT_EQ(decoder.next(), L'\u00e9');
    EXPECT_EQ(decoder.next(), std::nullopt);
    std::setlocale(LC_CTYPE, "C");
}
