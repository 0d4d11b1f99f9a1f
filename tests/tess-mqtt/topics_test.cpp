#include "tools/tess-mqtt/topics.h"

#include <gtest/gtest.h>

namespace {

const Topics TOPICS("tess", "d1", {"hall", "yard"});

} // namespace

TEST(Topics, TakesCommandsForItselfForAllAndForItsGroups)
{
    const std::vector<std::string> expected{"tess/d1/command", "tess/all/command", "tess/group/hall/command",
                                            "tess/group/yard/command"};
    EXPECT_EQ(TOPICS.commands(), expected);
    for (const std::string& topic : expected)
        EXPECT_TRUE(TOPICS.isCommand(topic)) << topic;
    for (const char* topic : {"tess/d2/command", "tess/d1/status", "tess/group/attic/command", "tess/d1/command/", ""})
        EXPECT_FALSE(TOPICS.isCommand(topic)) << topic;
}

TEST(Topics, AreAnsweredOutsideTheRootOrInTheBranchForAnswers)
{
    for (const char* topic : {"tess/answer/me", "tess/answer/a/b", "any/topic", "tessellate", "answers", "/"})
        EXPECT_TRUE(TOPICS.mayAnswer(topic)) << topic;
    for (const char* topic : {"tess", "tess/", "tess/d2/command", "tess/all/command", "tess/d1/status", "tess/answer",
                              "tess/answer/", "", "a/#", "a/+", "$SYS/x", "a\nb", "\xFF"})
        EXPECT_FALSE(TOPICS.mayAnswer(topic)) << topic;
    EXPECT_TRUE(TOPICS.mayAnswer(std::string(512, 'a')));
    EXPECT_FALSE(TOPICS.mayAnswer(std::string(513, 'a')));
}

TEST(Topics, HaveNamesOfPlainCharacters)
{
    for (const char* name : {"a", "D-1_x.y", "0"})
        EXPECT_TRUE(isDeviceName(name)) << name;
    for (const char* name : {"", "a b", "a/b", "+", "\xC3\xA4", "all", "group", "answer"})
        EXPECT_FALSE(isDeviceName(name)) << name;
    EXPECT_TRUE(isNodeName("all"));
    EXPECT_TRUE(isNodeName(std::string(64, 'a')));
    EXPECT_FALSE(isNodeName(std::string(65, 'a')));
}
