#include "tools/tessctl/port_mask.h"

#include <gtest/gtest.h>

TEST(PortMask, KnowsThePorts)
{
    EXPECT_EQ(portMask("com2"), 1U);
    EXPECT_EQ(portMask("telnet"), 2U);
    EXPECT_EQ(portMask("xcp"), 4U);
    EXPECT_EQ(portMask("ipc"), 8U);
    EXPECT_EQ(portMask("ipc,telnet"), 10U);
    EXPECT_EQ(portMask("com2,telnet,xcp,ipc,ipc"), 15U);
    for (const char* wrong : {"", ",", "IPC", "ipc,serial", "ipc telnet", "8"})
        EXPECT_EQ(portMask(wrong), std::nullopt) << wrong;
}
