#include "tools/tessctl/option_checks.h"

#include <gtest/gtest.h>
#include <limits>

TEST(OptionChecks, SayWhichNumbersAreMeant)
{
    EXPECT_EQ(wholeNumberProblem("0", 0, 65535, "a tag"), "");
    EXPECT_EQ(wholeNumberProblem("65535", 0, 65535, "a tag"), "");
    for (const char* text : {"65536", "-1", "", "x", "1x", " 1", "0x10", "1.5", "99999999999999999999"})
        EXPECT_EQ(wholeNumberProblem(text, 0, 65535, "a tag"), "a tag is a whole number from 0 to 65535") << text;
    EXPECT_EQ(wholeNumberProblem("0", 1, std::numeric_limits<long>::max(), "a count"),
              "a count is a whole number, 1 or more");
}

TEST(OptionChecks, SayWhichWordsAreMeant)
{
    EXPECT_EQ(choiceProblem("ipc", {"ipc", "xcp"}, "a port"), "");
    EXPECT_EQ(choiceProblem("ipx", {"ipc", "xcp"}, "a port"), "a port is one of ipc or xcp");
    EXPECT_EQ(choiceProblem("", {"a", "b", "c"}, "a letter"), "a letter is one of a, b or c");
}

TEST(OptionChecks, TakeOnlyHostsThatAreNoOptionsOfSsh)
{
    for (const char* host : {"device", "me@device", "10.0.0.7", "fe80::1%eth0"})
        EXPECT_EQ(remoteHostProblem(host), "") << host;
    for (const char* host : {"", "-oProxyCommand=x", "a b"})
        EXPECT_EQ(remoteHostProblem(host), "a host is HOST or USER@HOST, as ssh takes it") << host;
}
