#include "tools/tess-mqtt/fence.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>

namespace {

constexpr const char* ZERO = "0\r\n\r\n";
constexpr const char* REFUSAL = "?\r\n";

using Answers = std::vector<std::string>;

/// Everything that tessd could say by itself to up to so many commands.
std::vector<Answers> allAnswers(std::size_t most)
{
    std::vector<Answers> all{{}};
    for (std::size_t begin = 0, length = 0; length < most; ++length) {
        const std::size_t end = all.size();
        for (; begin < end; ++begin)
            for (const char* text : {ZERO, REFUSAL, "OK\r\n\r\n"}) {
                all.push_back(all[begin]);
                all.back().emplace_back(text);
            }
    }
    return all;
}

/// What tessd says to the fence itself.
Answers answersTo(const std::string& line)
{
    Answers answers{ZERO};
    for (const char c : line)
        if (c == '$') answers.emplace_back(REFUSAL);
    return answers;
}

} // namespace

TEST(Fence, IsAStarWhereTheLineIsNotAnsweredWithZero)
{
    EXPECT_EQ(Fence("s3.ENC GETX|DELAY").line(), "*");
    EXPECT_EQ(Fence("*").line(), "*|$");
    EXPECT_EQ(Fence("a|*|b").line(), "*|$|$|$");
}

TEST(Fence, IsKnownByItsLine)
{
    for (const char* line : {"a", "*", "a|*|b"})
        EXPECT_TRUE(isFence(Fence(line).line())) << line;
    for (const char* line : {"", "$", "*.ENC x", "* x", "*|", "*|$x", "*|*", "*|$|"})
        EXPECT_FALSE(isFence(line)) << line;
}

TEST(Fence, FindsTheAnswersBeforeItWhateverTheyAre)
{
    for (const char* line : {"*", "*|*", "a|*|b", "*|*|*|*"}) {
        const auto commands = static_cast<std::size_t>(std::count(line, line + std::strlen(line), '|')) + 1;
        for (const Answers& before : allAnswers(commands)) {
            Fence fence(line);
            for (const std::string& text : before)
                ASSERT_FALSE(fence.take(text)) << line;
            const Answers own = answersTo(fence.line());
            for (std::size_t i = 0; i < own.size(); ++i)
                ASSERT_EQ(fence.take(own[i]), i + 1 == own.size()) << line << ", answer " << i;
            ASSERT_EQ(fence.before(), before.size()) << line;
        }
    }
}

TEST(Fence, FindsTheListingOfDelaysBeforeIt)
{
    Fence fence("s3.ENC *|DELAY");
    for (int part = 0; part < 10; ++part) // in more pieces than there are commands
        EXPECT_FALSE(fence.take("000:00:01.000 x\r\n"));
    EXPECT_FALSE(fence.take(ZERO));
    EXPECT_FALSE(fence.take(REFUSAL));
    EXPECT_TRUE(fence.take(REFUSAL));
    EXPECT_EQ(fence.before(), 10U);
}
