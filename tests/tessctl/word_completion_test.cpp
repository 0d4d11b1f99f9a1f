#include "tools/tessctl/word_completion.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

TEST(WordCompletion, KnowsTheBuiltInCommands)
{
    const WordCompletion words;
    EXPECT_THAT(words.complete("d"), ElementsAre("DELAY"));
    EXPECT_THAT(words.complete("DELAY C"), ElementsAre("CLEAR"));
    EXPECT_THAT(words.complete("re"), ElementsAre("REINIT", "RESET"));
    EXPECT_THAT(words.complete("A|del"), ElementsAre("DELAY"));
    EXPECT_THAT(words.complete("X"), IsEmpty());
    EXPECT_THAT(words.complete(""), IsEmpty());
    EXPECT_THAT(words.complete("DELAY "), IsEmpty());
}

TEST(WordCompletion, RemembersTheNamesItHasSeen)
{
    WordCompletion words;
    words.see("s3.ENC SETX 5|*.GEN GETX 007");
    EXPECT_THAT(words.complete("s3"), ElementsAre("s3.ENC"));
    EXPECT_THAT(words.complete("s3.ENC se"), ElementsAre("SETX"));
    EXPECT_THAT(words.complete("*.g"), ElementsAre("*.GEN"));
    EXPECT_THAT(words.complete("0"), IsEmpty()) << "a number is no name";
}

TEST(WordCompletion, FindsWhatWordsBeginWith)
{
    EXPECT_EQ(WordCompletion::commonBeginning({}), "");
    EXPECT_EQ(WordCompletion::commonBeginning({"RESET"}), "RESET");
    EXPECT_EQ(WordCompletion::commonBeginning({"RESET", "REINIT"}), "RE");
    EXPECT_EQ(WordCompletion::commonBeginning({"A", "B"}), "");
    EXPECT_EQ(WordCompletion::commonBeginning({"GET", "GETX"}), "GET");
}
