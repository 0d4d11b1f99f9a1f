#include "ports/cmd_port.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/descriptor_limit.h"
#include "tests/support/stream_pair.h"
#include "tests/support/virtual_slot.h"
#include "tests/support/waiting.h"

namespace {

/// Adds to the base only what it leaves open.
class PlainPort : public TCmdPort {
public:
    using TCmdPort::clientWaits;
    using TCmdPort::TCmdPort;
    int openPort() override { return 0; }
    int closePort() override { return 0; }
    int chkNewConn(TPortConn**) override { return 0; }
    int closeConn(TPortConn**) override { return 0; }
};

} // namespace

TEST(CmdPort, StartsClosedAndWithoutConnections)
{
    const PlainPort port(4, 10, 0x0056'0000);
    EXPECT_EQ(port.portType, 4U);
    EXPECT_EQ(port.maxConns, 10);
    EXPECT_EQ(port.nextConnId, 0x0056'0000U);
    EXPECT_EQ(port.activeConns, 0);
    EXPECT_FALSE(port.isOpen);
    EXPECT_LT(port.fd, 0);
    for (int fd = 0; fd < FD_SETSIZE; ++fd)
        ASSERT_FALSE(FD_ISSET(fd, &port.readSet)) << "descriptor " << fd;
}

TEST(CmdPort, SeesWhetherItsDescriptorHasSomething)
{
    StreamPair pair;
    PlainPort port(4, 10, 0);
    const int server = pair.releaseServer();
    port.fd = server;
    const Stopwatch watch;
    EXPECT_FALSE(port.clientWaits());
    EXPECT_LT(watch.ms(), atMost(1000)) << "it must not wait";
    ASSERT_TRUE(pair.send("A"));
    EXPECT_TRUE(port.clientWaits());
    EXPECT_TRUE(port.clientWaits()) << "looking takes nothing";
    ::close(server);
}

TEST(CmdPort, SeesNothingOnADescriptorThatNoSetHolds)
{
    PlainPort port(4, 10, 0);
    for (const int fd : {-1, -1'000'000, FD_SETSIZE, FD_SETSIZE + 1, 1'000'000}) {
        port.fd = fd;
        EXPECT_FALSE(port.clientWaits()) << "descriptor " << fd;
    }
}

TEST(CmdPort, SeesNothingOnAHighDescriptorThoughItHasSomething)
{
    const DescriptorLimit limit(FD_SETSIZE + 10);
    if (!limit.isSet()) GTEST_SKIP() << "the limit of open files cannot be raised";
    StreamPair pair;
    const int server = pair.releaseServer();
    PlainPort port(4, 10, 0);
    port.fd = ::fcntl(server, F_DUPFD_CLOEXEC, FD_SETSIZE);
    ASSERT_GE(port.fd, FD_SETSIZE);
    ASSERT_TRUE(pair.send("A"));
    EXPECT_FALSE(port.clientWaits());
    ::close(port.fd);
    ::close(server);
}

TEST(CmdPort, KeepsItsOperationsInOrder)
{
    EXPECT_EQ(virtualSlot(&TCmdPort::openPort), 2U);
    EXPECT_EQ(virtualSlot(&TCmdPort::closePort), 3U);
    EXPECT_EQ(virtualSlot(&TCmdPort::chkNewConn), 4U);
    EXPECT_EQ(virtualSlot(&TCmdPort::closeConn), 5U);
}
