#include "ports/socket_options.h"

#include <array>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int optionOf(int fd, int option)
{
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(::getsockopt(fd, SOL_SOCKET, option, &value, &length), 0) << "option " << option;
    return value;
}

class SocketOptions : public testing::Test {
protected:
    void TearDown() override { ::close(fd); }

    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

} // namespace

TEST_F(SocketOptions, SetTheFiveThatAreApplied)
{
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_DEBUG, &on, sizeof on); // fails without the privilege, and is off then
    applySocketOptions(fd);
    EXPECT_EQ(optionOf(fd, SO_DEBUG), 0);
    EXPECT_EQ(optionOf(fd, SO_REUSEADDR), 1);
    EXPECT_EQ(optionOf(fd, SO_SNDBUF), 2 * 16384) << "the kernel doubles it";
    EXPECT_EQ(optionOf(fd, SO_RCVBUF), 2 * 65536) << "the kernel doubles it";
    EXPECT_EQ(optionOf(fd, SO_KEEPALIVE), 1);
}

TEST_F(SocketOptions, LeaveTheOthersAsTheyWere)
{
    const int on = 1;
    ASSERT_EQ(::setsockopt(fd, SOL_SOCKET, SO_DONTROUTE, &on, sizeof on), 0);
    ASSERT_EQ(::setsockopt(fd, SOL_SOCKET, SO_OOBINLINE, &on, sizeof on), 0);
    ASSERT_EQ(::setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on), 0);
    const int mark = 5;
    ASSERT_EQ(::setsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &mark, sizeof mark), 0);
    const linger lingering{1, 7};
    ASSERT_EQ(::setsockopt(fd, SOL_SOCKET, SO_LINGER, &lingering, sizeof lingering), 0);
    const timeval time{9, 0};
    ASSERT_EQ(::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time), 0);
    timeval timeBefore{}; // read back: an emulator has given it in another form
    socklen_t length = sizeof timeBefore;
    ASSERT_EQ(::getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeBefore, &length), 0);
    ASSERT_NE(timeBefore.tv_sec, 0);
    applySocketOptions(fd);
    EXPECT_EQ(optionOf(fd, SO_DONTROUTE), 1);
    EXPECT_EQ(optionOf(fd, SO_OOBINLINE), 1);
    EXPECT_EQ(optionOf(fd, SO_BROADCAST), 1);
    EXPECT_EQ(optionOf(fd, SO_RCVLOWAT), 5);
    linger left{};
    length = sizeof left;
    ASSERT_EQ(::getsockopt(fd, SOL_SOCKET, SO_LINGER, &left, &length), 0);
    EXPECT_EQ(left.l_linger, 7);
    timeval timeLeft{};
    length = sizeof timeLeft;
    ASSERT_EQ(::getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeLeft, &length), 0);
    EXPECT_EQ(timeLeft.tv_sec, timeBefore.tv_sec);
}

TEST_F(SocketOptions, DoNothingWithoutASocket)
{
    applySocketOptions(-1);
    EXPECT_EQ(optionOf(fd, SO_REUSEADDR), 0);
}
