#include "framework/tess_messages.h"

#include <gtest/gtest.h>

namespace {

// Programs that are not built with this header have these figures in their own sources.
TEST(TessMessages, NameThePlacesThatOthersKnow)
{
    EXPECT_EQ(TESS_QUEUE_ID, 1001);
    EXPECT_EQ(HIGHEST_QUEUE_ADDRESS, 2147483647);
    EXPECT_STREQ(DEFAULT_QUEUE_DIRECTORY, "/run/tess/queue");
    EXPECT_STREQ(IPC_SOCKET_PATH, "/tmp/socket");
    EXPECT_STREQ(XCP_SOCKET_PATH, "/tmp/xcp");
    EXPECT_EQ(TELNET_TCP_PORT, 23);
    EXPECT_STREQ(COM2_DEVICE, "/dev/ttyS1");
}

} // namespace
