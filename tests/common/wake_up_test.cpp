#include "common/wake_up.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "tests/framework/child_process.h"
#include "tests/support/descriptor_limit.h"
#include "tests/support/in_background.h"
#include "tests/support/waiting.h"

namespace {

bool isAwake(const WakeUp& wakeUp, int milliseconds = 0)
{
    pollfd input{wakeUp.fd(), POLLIN, 0};
    return ::poll(&input, 1, milliseconds) == 1 && (input.revents & POLLIN) != 0;
}

/// Closes what a wake-up keeps for as long as its process lives.
class WakeUpTest : public testing::Test {
protected:
    WakeUpTest() { wakeUp.open(); }
    ~WakeUpTest() override { ::close(wakeUp.fd()); }

    WakeUp wakeUp;
};

} // namespace

TEST_F(WakeUpTest, StaysAwakeUntilItIsCleared)
{
    EXPECT_FALSE(isAwake(wakeUp));
    wakeUp.clear();
    EXPECT_FALSE(isAwake(wakeUp)) << "and a clear without a wake does not wait";
    for (int i = 0; i < 3; ++i)
        wakeUp.wake();
    EXPECT_TRUE(isAwake(wakeUp));
    EXPECT_TRUE(isAwake(wakeUp));
    wakeUp.clear();
    EXPECT_FALSE(isAwake(wakeUp)) << "one clear takes them all";
}

TEST_F(WakeUpTest, EndsAWaitOfAnotherThread)
{
    InBackground waiter([this] { return isAwake(wakeUp, 20'000) ? 1 : 0; });
    wakeUp.wake();
    EXPECT_EQ(waiter.wait(), 1);
}

TEST_F(WakeUpTest, IsOpenedOnceAndNotPassedOn)
{
    const int fd = wakeUp.fd();
    ASSERT_GE(fd, 0);
    wakeUp.open();
    EXPECT_EQ(wakeUp.fd(), fd);
    EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_NE(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(WakeUpTest, NeitherWaitsNorFallsAsleepWhenItsCountIsFull)
{
    const std::uint64_t most = UINT64_MAX - 1;
    ASSERT_EQ(::write(wakeUp.fd(), &most, sizeof most), static_cast<ssize_t>(sizeof most));
    wakeUp.wake();
    EXPECT_TRUE(isAwake(wakeUp));
    wakeUp.clear();
    EXPECT_FALSE(isAwake(wakeUp));
}

TEST_F(WakeUpTest, KeepsErrno)
{
    const std::uint64_t most = UINT64_MAX - 1;
    ASSERT_EQ(::write(wakeUp.fd(), &most, sizeof most), static_cast<ssize_t>(sizeof most));
    errno = ERANGE;
    wakeUp.wake(); // its write fails
    EXPECT_EQ(errno, ERANGE);
}

TEST(WakeUpThatIsNotOpen, WakesNobody)
{
    WakeUp wakeUp;
    EXPECT_EQ(wakeUp.fd(), -1);
    errno = ERANGE;
    wakeUp.wake();
    EXPECT_EQ(errno, ERANGE);
    wakeUp.clear();
    wakeUp.openAnew();
    EXPECT_EQ(wakeUp.fd(), -1) << "nobody waits for it";
}

TEST(WakeUpThatIsNotOpen, SaysSoWithoutADescriptorToSpare)
{
    WakeUp wakeUp;
    const DescriptorLimit none(0);
    ASSERT_TRUE(none.isSet());
    try {
        wakeUp.open();
        FAIL() << "expected an exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "failed creating wake-up descriptor");
    }
    EXPECT_EQ(wakeUp.fd(), -1);
}

TEST_F(WakeUpTest, OfAForkedChildIsItsOwn)
{
    Signpost parentWoke;
    ChildProcess child([&] {
        wakeUp.openAnew();
        wakeUp.wake();
        if (!isAwake(wakeUp)) return 1;
        wakeUp.clear();
        if (!parentWoke.await()) return 2;
        if (isAwake(wakeUp)) return 3;
        return ::fcntl(wakeUp.fd(), F_GETFD) == FD_CLOEXEC ? 0 : 4;
    });
    wakeUp.clear();
    wakeUp.wake();
    parentWoke.pass();
    EXPECT_EQ(child.result(), 0);
    EXPECT_TRUE(isAwake(wakeUp));
    wakeUp.clear();
    EXPECT_FALSE(isAwake(wakeUp)) << "the child has woken itself only";
}

TEST(WakeUpOfTheProcess, IsNotSharedWithAForkedChild)
{
    g_wakeUp.open();
    g_wakeUp.clear();
    ChildProcess child([] {
        g_wakeUp.wake();
        return isAwake(g_wakeUp) ? 0 : 1;
    });
    EXPECT_EQ(child.result(), 0);
    EXPECT_FALSE(isAwake(g_wakeUp));
}
