#include "framework/tokenizer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAreArray;

struct CutCase {
    const char* what;
    std::string_view text;
    std::string_view separators;
    std::vector<std::string_view> tokens;
};

TEST(Tokenizer, CutsAtEachSeparatorAndProducesNoEmptyTokens)
{
    const CutCase cases[] = {
        {"one token", "abc", "|", {"abc"}},
        {"two tokens", "a|b", "|", {"a", "b"}},
        {"doubled separator", "a||b", "|", {"a", "b"}},
        {"separators at both ends", "|a|b|", "|", {"a", "b"}},
        {"several separator characters", "a b,c", " ,", {"a", "b", "c"}},
        {"separators mixed in a row", ", a ,,b ", " ,", {"a", "b"}},
        {"empty text", "", "|", {}},
        {"nothing but separators", "|||", "|", {}},
        {"no separators", "a|b", "", {"a|b"}},
        {"a blank is no separator unless it is given", " a |b ", "|", {" a ", "b "}},
        {"a NUL is a character like any other", std::string_view("a\0b|c", 5), "|", {std::string_view("a\0b", 3), "c"}},
        {"eight-bit characters", "\xE4\xFF|\x80", "|", {"\xE4\xFF", "\x80"}},
        {"an eight-bit separator",
         "a\xFF"
         "b",
         "\xFF",
         {"a", "b"}},
    };
    for (const CutCase& c : cases) {
        std::vector<std::string_view> tokens{"left over"};
        stringTokenizer(c.text, tokens, c.separators);
        EXPECT_THAT(tokens, ElementsAreArray(c.tokens)) << c.what;
    }
}

TEST(Tokenizer, TokensPointIntoTheText)
{
    const std::string_view text = "12|34";
    std::vector<std::string_view> tokens;
    stringTokenizer(text, tokens, "|");
    ASSERT_EQ(tokens.size(), 2U);
    EXPECT_EQ(tokens[0].data(), text.data());
    EXPECT_EQ(tokens[1].data(), text.data() + 3);
}

TEST(Tokenizer, AllocatesNothingWhileTheCapacitySuffices)
{
    std::vector<std::string_view> tokens;
    std::vector<int> numbers;
    tokens.reserve(3);
    numbers.reserve(3);
    const auto* const tokensAt = tokens.data();
    const auto* const numbersAt = numbers.data();
    stringTokenizer("1|2|3", tokens, "|");
    EXPECT_EQ(intTokenizer("1|2|3", numbers, "|"), 0);
    EXPECT_EQ(tokens.data(), tokensAt);
    EXPECT_EQ(numbers.data(), numbersAt);
}

struct NumbersCase {
    const char* what;
    std::string_view text;
    bool accepted;
    std::vector<int> numbers;
};

TEST(Tokenizer, ReadsDecimalNumbersOfDigitsOnly)
{
    const NumbersCase cases[] = {
        {"one number", "5", true, {5}},
        {"several", "5:30:0", true, {5, 30, 0}},
        {"empty tokens count for nothing", ":5::30:", true, {5, 30}},
        {"no token at all", "", true, {}},
        {"nothing but separators", "::", true, {}},
        {"leading zeros", "007", true, {7}},
        {"many leading zeros", "00000000000000000000001", true, {1}},
        {"the largest int", "2147483647", true, {2147483647}},
        {"one more", "2147483648", false, {}},
        {"far too large", "99999999999999999999999", false, {}},
        {"plus sign", "+1", false, {}},
        {"minus sign", "-1", false, {}},
        {"minus zero", "-0", false, {}},
        {"a lone minus", "-", false, {}},
        {"leading blank", " 1", false, {}},
        {"trailing blank", "1 ", false, {}},
        {"letters", "abc", false, {}},
        {"digits, then a letter", "12x", false, {}},
        {"hexadecimal", "0x10", false, {}},
        {"a fraction", "1.5", false, {}},
        {"a wrong one behind a right one", "1:x", false, {}},
        {"a NUL inside", std::string_view("1\0", 2), false, {}},
    };
    for (const NumbersCase& c : cases) {
        std::vector<int> numbers{99};
        const int result = intTokenizer(c.text, numbers, ":");
        EXPECT_EQ(result == 0, c.accepted) << c.what;
        if (c.accepted) {
            EXPECT_THAT(numbers, ElementsAreArray(c.numbers)) << c.what;
        }
    }
}

} // namespace
