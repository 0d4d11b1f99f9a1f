#include "tools/tessctl/remote.h"

#include <gtest/gtest.h>

using Words = std::vector<std::string>;

TEST(Remote, LeavesOutTheHost)
{
    struct Row {
        Words words, rest;
    };
    const Row rows[] = {
        {{"send", "-H", "device", "X"}, {"send", "X"}},
        {{"send", "-Hdevice", "X"}, {"send", "X"}},
        {{"--host", "me@device", "check"}, {"check"}},
        {{"check", "--host=device", "ipc"}, {"check", "ipc"}},
        {{"send", "-H", "device", "--", "-H", "--host=X"}, {"send", "--", "-H", "--host=X"}},
        {{"check"}, {"check"}},
    };
    for (const Row& row : rows)
        EXPECT_EQ(withoutHost(row.words), row.rest) << testing::PrintToString(row.words);
}

TEST(Remote, QuotesEachWordForTheShellThere)
{
    EXPECT_EQ(shellWord(""), "''");
    EXPECT_EQ(shellWord("s3.ENC SETX 5|*"), "'s3.ENC SETX 5|*'");
    EXPECT_EQ(shellWord("it's"), "'it'\\''s'");
    EXPECT_EQ(remoteCommand("me@device", {"send", "$GPRMC,1"}, RemoteInput::nothing),
              (Words{"ssh", "-T", "-n", "me@device", "tessctl", "'send'", "'$GPRMC,1'"}));
    EXPECT_EQ(remoteCommand("device", {"send"}, RemoteInput::here),
              (Words{"ssh", "-T", "device", "tessctl", "'send'"}));
    EXPECT_EQ(remoteCommand("device", {"console"}, RemoteInput::terminal),
              (Words{"ssh", "-t", "device", "tessctl", "'console'"}));
}
