#include "framework/queue_room.h"

#include <fcntl.h>
#include <filesystem>
#include <limits>
#include <poll.h>
#include <type_traits>
#include <utility>

#include "framework/bundled/own_queue.h"
#include "tests/framework/queue_owner.h"
#include "tests/framework/queue_test.h"
#include "tests/support/descriptor_limit.h"
#include "tests/support/raw_socket.h"
#include "tests/support/waiting.h"
#include "tests/support/waiting_thread.h"

namespace {

static_assert(!std::is_copy_constructible_v<QueueRoom> && !std::is_copy_assignable_v<QueueRoom>);

class QueueRoomTest : public QueueTest {
protected:
    static long send(long address)
    {
        TOrbAttachmentMsg msg = numbered(1);
        return g_qMgr.sendMsg(address, &msg, 64, false);
    }

    static void fill(long address)
    {
        long result = SEND_DONE;
        while ((result = send(address)) == SEND_DONE) {
        }
        ASSERT_EQ(result, SEND_QUEUE_FULL);
    }

    /// @return it is reported as writable, within so many milliseconds
    static bool isReported(int fd, int milliseconds = 0)
    {
        pollfd room{fd, POLLOUT, 0};
        return ::poll(&room, 1, milliseconds) == 1 && (room.revents & POLLOUT) != 0;
    }

    static bool willBeReported(int fd) { return isReported(fd, 20'000); }

    static std::ptrdiff_t openDescriptors()
    {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    }

    QuietProc proc_{1001, false};
    QueueRoom room_;
};

TEST_F(QueueRoomTest, IsReportedAsSoonAsAFullQueueHasSome)
{
    const RawSocket peer(pathOf(2001));
    EXPECT_TRUE(isReported(room_.watch(2001))) << "there is room";
    fill(2001);
    EXPECT_FALSE(isReported(room_.fd()));
    EXPECT_FALSE(isReported(room_.watch(2001))) << "looked anew";
    (void)peer.receive();
    EXPECT_TRUE(isReported(room_.fd()));
    EXPECT_EQ(send(2001), SEND_DONE);
    EXPECT_FALSE(isReported(room_.fd())) << "full again";
}

TEST_F(QueueRoomTest, WakesWhoeverWaits)
{
    const RawSocket peer(pathOf(2001));
    fill(2001);
    const int fd = room_.watch(2001);
    const WaitingThread waiting;
    std::thread reader([&] {
        EXPECT_TRUE(waiting.untilAsleep());
        (void)peer.receive();
    });
    EXPECT_TRUE(willBeReported(fd));
    reader.join();
}

TEST_F(QueueRoomTest, TheOwnersEndIsReportedToo)
{
    QueueOwner owner(2001);
    fill(2001);
    const int fd = room_.watch(2001);
    EXPECT_FALSE(isReported(fd));
    owner.kill();
    EXPECT_TRUE(willBeReported(fd));
    EXPECT_EQ(send(2001), SEND_FAILED);
}

TEST_F(QueueRoomTest, AnOwnerThatClosesItsQueueAndLivesOnIsReported)
{
    QueueOwner owner(2001);
    fill(2001);
    const int fd = room_.watch(2001);
    owner.closeQueue();
    EXPECT_TRUE(willBeReported(fd));
    EXPECT_EQ(send(2001), SEND_FAILED);
    EXPECT_EQ(owner.end(), 0);
}

TEST_F(QueueRoomTest, ThereIsNoneToWatchWithoutAQueue)
{
    {
        const RawSocket dead(pathOf(2002));
    }
    const RawSocket peer(pathOf(2003));
    const auto before = openDescriptors();
    for (const long address : {2001L, 2002L, 0L, -1L, std::numeric_limits<long>::max()}) {
        EXPECT_EQ(room_.watch(address), -1) << address;
        EXPECT_EQ(room_.fd(), -1) << address;
        EXPECT_EQ(openDescriptors(), before) << address;
        ASSERT_LE(0, room_.watch(2003));
        EXPECT_EQ(room_.watch(address), -1) << address << ", after one that there is";
        EXPECT_EQ(openDescriptors(), before) << address;
    }
}

TEST_F(QueueRoomTest, WithoutADescriptorToSpareThereIsNone)
{
    const RawSocket peer(pathOf(2001));
    {
        const DescriptorLimit none(0);
        ASSERT_TRUE(none.isSet());
        EXPECT_EQ(room_.watch(2001), -1);
    }
    EXPECT_LE(0, room_.watch(2001));
}

TEST_F(QueueRoomTest, WatchedAgainItKeepsItsNumberAndLooksAtWhoeverHasTheAddressNow)
{
    const RawSocket other(pathOf(2002));
    int fd = -1;
    {
        const RawSocket first(pathOf(2001));
        fill(2001);
        fd = room_.watch(2001);
    }
    ASSERT_EQ(::unlink(pathOf(2001).c_str()), 0);
    const RawSocket second(pathOf(2001));
    fill(2001);
    EXPECT_TRUE(isReported(fd)) << "the first one is gone";
    EXPECT_EQ(room_.watch(2001), fd);
    EXPECT_FALSE(isReported(fd)) << "the second one is full";
    EXPECT_EQ(room_.watch(2002), fd);
    EXPECT_TRUE(isReported(fd)) << "another queue";
}

TEST_F(QueueRoomTest, ItsDescriptorIsNotPassedOnAndClosedAtTheEnd)
{
    const RawSocket peer(pathOf(2001));
    const auto before = openDescriptors();
    {
        QueueRoom room;
        const int fd = room.watch(2001);
        EXPECT_EQ(room.fd(), fd);
        EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
        EXPECT_NE(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
        EXPECT_EQ(openDescriptors(), before + 1);
        QueueRoom moved(std::move(room));
        EXPECT_EQ(moved.fd(), fd);
        room_ = std::move(moved);
    }
    EXPECT_EQ(openDescriptors(), before + 1);
    EXPECT_TRUE(isReported(room_.fd()));
    room_.stop();
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(room_.fd(), -1);
    room_.stop();
}

TEST_F(QueueRoomTest, TheReportIsWrongWhereTheOwnSendBufferIsUsedUp)
{
    const QuietProc proc(1001);
    const int small = 20'000;
    ASSERT_EQ(::setsockopt(ownQueue.socket(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    const RawSocket stuck(pathOf(2001));
    const RawSocket healthy(pathOf(3001));
    TOrbAttachmentMsg msg = numbered(1);
    while (g_qMgr.sendMsg(2001, &msg, 8192, false) == SEND_DONE) {
    }
    EXPECT_EQ(g_qMgr.sendMsg(3001, &msg, 8192, false), SEND_QUEUE_FULL);
    EXPECT_TRUE(isReported(room_.watch(3001))) << "as the header says: pause";
}

TEST_F(QueueRoomTest, AForkedChildHasItsOwnCopy)
{
    const RawSocket peer(pathOf(2001));
    fill(2001);
    const int fd = room_.watch(2001);
    ChildProcess child([&] {
        if (isReported(fd)) return 1;
        room_.stop();
        return 0;
    });
    EXPECT_EQ(child.result(), 0);
    EXPECT_FALSE(isReported(fd));
    (void)peer.receive();
    EXPECT_TRUE(isReported(fd));
}

} // namespace
