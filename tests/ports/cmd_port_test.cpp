#include "ports/cmd_port.h"

#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/support/descriptor_limit.h"
#include "tests/support/stream_pair.h"
#include "tests/support/virtual_slot.h"

namespace {

/// Adds to the base only what it leaves open.
class PlainPort : public TCmdPort {
public:
    using TCmdPort::accept;
    using TCmdPort::clientWaits;
    using TCmdPort::TCmdPort;
    int openPort() override { return 0; }
    int closePort() override { return 0; }
    int chkNewConn(TPortConn**) override { return 0; }
    int closeConn(TPortConn**) override { return 0; }
};

/// A socket that listens, with a name that the kernel chooses (unix(7), "autobind").
class Listener {
public:
    Listener() : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
    {
        name_.sun_family = AF_UNIX;
        size_ = sizeof name_;
        if (::bind(fd_, address(), sizeof name_.sun_family) != 0 || ::listen(fd_, 10) != 0 ||
            ::getsockname(fd_, address(), &size_) != 0)
            std::abort();
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener() { ::close(fd_); }

    int fd() const { return fd_; }

    /// @return a client's end; negative when it failed
    int connect()
    {
        const int client = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::connect(client, address(), size_) == 0) return client;
        ::close(client);
        return -1;
    }

private:
    sockaddr* address() { return reinterpret_cast<sockaddr*>(&name_); }

    sockaddr_un name_{};
    socklen_t size_ = 0;
    int fd_;
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
    EXPECT_TRUE(port.wantsInput);
    EXPECT_EQ(port.due, AT_ONCE);
    EXPECT_TRUE(port.arriving.empty());
}

TEST(CmdPort, SeesWhetherItsDescriptorHasSomething)
{
    StreamPair pair;
    PlainPort port(4, 10, 0);
    const int server = pair.releaseServer();
    port.fd = server;
    EXPECT_FALSE(port.clientWaits());
    EXPECT_TRUE(port.wantsInput);
    EXPECT_EQ(port.due, NEVER) << "from here on, only a client is a reason to look";
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
        EXPECT_EQ(port.due, NEVER);
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

TEST(CmdPort, AcceptsAClientWithADescriptorOfItsOwn)
{
    Listener listener;
    PlainPort port(4, 10, 0);
    port.fd = listener.fd();
    int client = -2;
    EXPECT_TRUE(port.accept(client, nullptr, nullptr));
    EXPECT_EQ(client, -1) << "nobody is there any more";
    const int far = listener.connect();
    ASSERT_TRUE(port.accept(client, nullptr, nullptr));
    ASSERT_GE(client, 0);
    EXPECT_NE(::fcntl(client, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(::fcntl(client, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_TRUE(port.wantsInput);
    ::close(client);
    ::close(far);
}

TEST(CmdPort, RestsForASecondWhenThereAreNoDescriptors)
{
    Listener listener;
    PlainPort port(4, 10, 0x0056'0000);
    port.fd = listener.fd();
    const int far = listener.connect();
    ASSERT_TRUE(port.clientWaits());
    const Instant before = instantNow();
    int client = -2;
    {
        const DescriptorLimit none(0);
        EXPECT_FALSE(port.accept(client, nullptr, nullptr));
    }
    EXPECT_FALSE(port.wantsInput);
    EXPECT_GE(port.due, before + std::chrono::seconds(1));
    EXPECT_LE(port.due, instantNow() + std::chrono::seconds(1));
    EXPECT_EQ(port.nextConnId, 0x0056'0000U);
    EXPECT_EQ(port.activeConns, 0);
    EXPECT_TRUE(port.clientWaits()) << "the client still waits";
    EXPECT_TRUE(port.wantsInput);
    EXPECT_EQ(port.due, NEVER);
    ASSERT_TRUE(port.accept(client, nullptr, nullptr));
    EXPECT_GE(client, 0);
    ::close(client);
    ::close(far);
}

TEST(CmdPort, KeepsItsOperationsInOrder)
{
    EXPECT_EQ(virtualSlot(&TCmdPort::openPort), 2U);
    EXPECT_EQ(virtualSlot(&TCmdPort::closePort), 3U);
    EXPECT_EQ(virtualSlot(&TCmdPort::chkNewConn), 4U);
    EXPECT_EQ(virtualSlot(&TCmdPort::closeConn), 5U);
}
