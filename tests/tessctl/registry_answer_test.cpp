#include "tools/tessctl/registry_answer.h"

#include <gtest/gtest.h>

TEST(RegistryAnswer, BecomesASentenceOfItsOwn)
{
    struct Row {
        const char* answer;
        const char* text;
    };
    const Row rows[] = {
        {"Max # of registered processes reached",
         "tessd does not register ENC: it has 32 names, and more do not fit: end another process"},
        {"Max # of registered processes reachedsful",
         "tessd does not register ENC: it has 32 names, and more do not fit: end another process"},
        {"Command register request with nothing enabled list",
         "tessd does not register ENC: no kind of port is asked for"},
        {"Couldn't allocate memory for process register request", "tessd does not register ENC: its memory is used up"},
        {"whatever", "tessd does not register ENC: it gives no reason that is known here: is it of another version?"},
    };
    for (const Row& row : rows)
        EXPECT_EQ(refusalText("ENC", row.answer), row.text) << row.answer;
}

TEST(RegistryAnswer, TellsTheTwoKindsApart)
{
    for (const char* answer :
         {"Process unregister operation successful", "Process not found in registered process list",
          "Registered process list is emptyration successful"})
        EXPECT_TRUE(answersUnregistering(answer)) << answer;
    for (const char* answer : {"Process register operation successful", "Max # of registered processes reached",
                               "Command register request with nothing enabled", ""})
        EXPECT_FALSE(answersUnregistering(answer)) << answer;
}
