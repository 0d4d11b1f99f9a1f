#include "framework/fixed_text.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <string>

namespace {

template <class Value>
concept CanBePut = requires(FixedText<8> text, Value value)
{
    text << value;
};

static_assert(CanBePut<char> && CanBePut<unsigned char> && CanBePut<long long>);
static_assert(!CanBePut<bool>, "it would be a 1, or a character");

TEST(PutText, CopiesWhatFitsAndEndsItWithANul)
{
    const struct {
        std::size_t room;
        const char* text;
        std::size_t copied;
        const char* there;
    } cases[] = {{4, "abc", 3, "abc"}, {4, "abcd", 3, "abc"}, {4, "a", 1, "a"}, {4, "", 0, ""}, {1, "abc", 0, ""}};
    for (const auto& c : cases) {
        char to[] = "********";
        EXPECT_EQ(putText(std::span(to, c.room), c.text), c.copied);
        EXPECT_STREQ(to, c.there);
        EXPECT_EQ(to[c.copied + 1], '*') << "what lies behind stays as it is";
    }
}

TEST(PutText, TakesATextWithoutAnAddressForNone)
{
    char to[] = "**";
    EXPECT_EQ(putText(to, std::string_view()), 0U);
    EXPECT_STREQ(to, "");
}

TEST(PutText, CopiesNulsToo)
{
    char to[8] = "*******";
    EXPECT_EQ(putText(to, std::string_view("a\0b", 3)), 3U);
    EXPECT_EQ(std::string_view(to, 5), std::string_view("a\0b\0*", 5));
}

TEST(FixedText, BeginsEmpty)
{
    const FixedText<4> text;
    EXPECT_STREQ(text.c_str(), "");
    EXPECT_EQ(text.view(), "");
}

TEST(FixedText, JoinsTextsCharactersAndNumbers)
{
    FixedText<128> text;
    text << "a" << std::string("b") << std::string_view("cd", 1) << 'x' << ' ' << 0 << ' ' << -7 << ' '
         << std::uint8_t{65} << ' ' << std::numeric_limits<std::int64_t>::min() << ' '
         << std::numeric_limits<std::uint64_t>::max();
    EXPECT_STREQ(text.c_str(), "abcx 0 -7 65 -9223372036854775808 18446744073709551615");
    EXPECT_EQ(text.view(), text.c_str());
}

TEST(FixedText, WritesHexadecimalInLowerCaseWithoutLeadingZeros)
{
    FixedText<64> text;
    text.hex(0U) << ' ';
    text.hex(std::uint32_t{0xBB02'0000U}) << ' ';
    text.hex(std::numeric_limits<std::uint64_t>::max());
    EXPECT_STREQ(text.c_str(), "0 bb020000 ffffffffffffffff");
}

TEST(FixedText, CutsWhatDoesNotFitBesideItsNul)
{
    FixedText<6> text;
    text << "abc" << 12345;
    EXPECT_STREQ(text.c_str(), "abc12");
    text << "more" << 'x';
    EXPECT_EQ(text.view(), "abc12");
}

TEST(FixedText, OfOneByteHoldsNothingButItsNul)
{
    FixedText<1> text;
    text << "abc" << 1 << 'x';
    EXPECT_STREQ(text.c_str(), "");
}

} // namespace
