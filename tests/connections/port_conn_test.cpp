#include "connections/port_conn.h"

#include <gtest/gtest.h>

#include "tests/support/virtual_slot.h"

namespace {

/// Adds to the base only what it leaves open.
class PlainConn : public TPortConn {
public:
    using TPortConn::TPortConn;
    int readCmd() override { return 0; }
    int write(TOrbAttachmentMsg*) override { return 0; }
    int hasTimedOut() override { return 0; }
    void setEcho(int) override {}
    int isSerialLine() override { return 0; }
    std::uint32_t getPortId() override { return portId; }
};

} // namespace

TEST(PortConn, StartsWithoutADescriptorAndNotLoggedIn)
{
    const PlainConn conn(2, 0xAA01'0000);
    EXPECT_EQ(conn.fd, -1);
    EXPECT_EQ(conn.portId, 2U);
    EXPECT_EQ(conn.connId, 0xAA01'0000U);
    EXPECT_EQ(conn.rxLen, 0);
    EXPECT_EQ(conn.rxBufSize, 1024);
    EXPECT_EQ(conn.loginState, 0);
    for (int fd = 0; fd < FD_SETSIZE; ++fd)
        ASSERT_FALSE(FD_ISSET(fd, &conn.readSet)) << "descriptor " << fd;
}

TEST(PortConn, StartsWithBothTimersRunning)
{
    const PlainConn conn(2, 0);
    EXPECT_FALSE(conn.loginTimer.hasTimedOut());
    EXPECT_FALSE(conn.idleTimer.hasTimedOut());
    EXPECT_EQ(TPortConn::LOGIN_TIME.tv_sec, 60);
    EXPECT_EQ(TPortConn::IDLE_TIME.tv_sec, 420);
}

TEST(PortConn, IsNeverMutedUnlessAKindSaysSo)
{
    PlainConn conn(2, 0);
    EXPECT_EQ(conn.muteExpired(), 1);
    EXPECT_EQ(conn.startMute(), 0);
    EXPECT_EQ(conn.muteExpired(), 1);
    EXPECT_EQ(conn.reservedHook(), 0);
}

TEST(PortConn, HoldsRoomForANulBehindAFullBuffer)
{
    const PlainConn conn(2, 0);
    EXPECT_EQ(conn.rxBuf.size(), 1025U);
    EXPECT_EQ(conn.cmds.size(), 1024U);
}

TEST(PortConn, KeepsItsOperationsInOrder)
{
    EXPECT_EQ(virtualSlot(&TPortConn::readCmd), 2U);
    EXPECT_EQ(virtualSlot(&TPortConn::write), 3U);
    EXPECT_EQ(virtualSlot(&TPortConn::hasTimedOut), 4U);
    EXPECT_EQ(virtualSlot(&TPortConn::setEcho), 5U);
    EXPECT_EQ(virtualSlot(&TPortConn::isSerialLine), 6U);
    EXPECT_EQ(virtualSlot(&TPortConn::startMute), 7U);
    EXPECT_EQ(virtualSlot(&TPortConn::reservedHook), 8U);
    EXPECT_EQ(virtualSlot(&TPortConn::muteExpired), 9U);
    EXPECT_EQ(virtualSlot(&TPortConn::getPortId), 10U);
}
