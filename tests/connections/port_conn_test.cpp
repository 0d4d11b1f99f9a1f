#include "connections/port_conn.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "connections/socket_ipc_conn.h"
#include "connections/telnet_conn.h"
#include "connections/xcp_con.h"
#include "tests/support/stream_pair.h"
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

/// While it lives, descriptor 0 is another one.
class DescriptorZero {
public:
    explicit DescriptorZero(int by) : before_(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3))
    {
        EXPECT_EQ(::dup2(by, STDIN_FILENO), STDIN_FILENO);
    }
    DescriptorZero(const DescriptorZero&) = delete;
    DescriptorZero& operator=(const DescriptorZero&) = delete;
    ~DescriptorZero()
    {
        if (before_ >= 0) ::dup2(before_, STDIN_FILENO);
        ::close(before_ >= 0 ? before_ : STDIN_FILENO);
    }

private:
    int before_;
};

/// A connection whose descriptor is 0 comes to its end.
template <class Conn> void expectDescriptorZeroStaysOpen(const char* kind)
{
    const StreamPair pair;
    const DescriptorZero zero(pair.server());
    {
        Conn conn(0, 0);
        conn.fd = STDIN_FILENO;
    }
    EXPECT_NE(::fcntl(STDIN_FILENO, F_GETFD), -1) << kind;
    EXPECT_EQ(::send(STDIN_FILENO, "x", 1, MSG_NOSIGNAL), 1) << kind << ": it was not shut down either";
    EXPECT_EQ(pair.received(), "x") << kind;
}

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

TEST(PortConn, NeverClosesDescriptorZeroAtItsEnd)
{
    expectDescriptorZeroStaysOpen<TTelnetConn>("telnet");
    expectDescriptorZeroStaysOpen<TSocketIPCConn>("IPC");
    expectDescriptorZeroStaysOpen<TXCPCon>("XCP");
}
