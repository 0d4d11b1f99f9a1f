#include "tools/tessctl/nearest_word.h"

#include <gtest/gtest.h>

TEST(NearestWord, IsWhatWasProbablyMeant)
{
    const std::vector<std::string> choices{"send", "serve", "console", "stop", "--wait", "--linger", "-w"};
    struct Row {
        std::string typed;
        const char* meant;
    };
    const Row rows[] = {
        {"sned", "send"},
        {"sed", "send"},
        {"Send", "send"},
        {"cons", "console"},
        {"konsole", "console"},
        {"sto", "stop"},
        {"--wiat", "--wait"},
        {"--w", "--wait"},
        {"-x", ""},
        {"", ""},
        {"nonsense", ""},
        {"--lingr", "--linger"},
        {"wait", ""},
        {std::string(1000, 's'), ""},
    };
    for (const Row& row : rows)
        EXPECT_EQ(nearestWord(row.typed, choices), row.meant) << row.typed;
}
