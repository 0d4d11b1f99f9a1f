#include "common/text.h"

#include <gtest/gtest.h>

namespace {

TEST(Text, IsTrimmedOfWhiteSpace)
{
    const struct {
        std::string_view text, front, both;
    } cases[] = {
        {"", "", ""},
        {" \t\r\n\v\f", "", ""},
        {"a", "a", "a"},
        {"  a b \r\n", "a b \r\n", "a b"},
        {std::string_view(" \0 ", 3), std::string_view("\0 ", 2), std::string_view("\0", 1)},
        {"\xA0 a\xA0", "\xA0 a\xA0", "\xA0 a\xA0"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(trimmedFront(c.text), c.front);
        EXPECT_EQ(trimmed(c.text), c.both);
    }
}

TEST(Text, LosesTheLineEndsBehindIt)
{
    const struct {
        std::string_view text, left;
    } cases[] = {{"", ""}, {"\r\n\n", ""}, {"a", "a"}, {"a\r\nb\r\n\r\n", "a\r\nb"}, {"\na \n", "\na "}};
    for (const auto& c : cases)
        EXPECT_EQ(withoutLineEnds(c.text), c.left);
}

} // namespace
