#include "common/wait_set.h"

#include <array>
#include <cerrno>
#include <gtest/gtest.h>
#include <optional>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/descriptor_limit.h"
#include "tests/support/waiting.h"

using namespace std::chrono_literals;

namespace {

/// What select() has been asked last.
struct Asked {
    int count = 0;
    timeval time{};
};

Asked asked;
std::optional<int> failWith; ///< an errno; none: select() does what it is asked for

} // namespace

// In place of the library's, for this whole program. The declaration gives it its name where there
// are two of them.
extern "C" int select(int count, fd_set* input, fd_set* output, fd_set* urgent, timeval* time) noexcept(false)
{
    asked = {count, *time};
    if (failWith) {
        errno = *failWith;
        return -1;
    }
    const timespec span{time->tv_sec, static_cast<long>(time->tv_usec) * 1000};
    return ::pselect(count, input, output, urgent, &span, nullptr);
}

namespace {

std::chrono::microseconds askedTime()
{
    return std::chrono::seconds(asked.time.tv_sec) + std::chrono::microseconds(asked.time.tv_usec);
}

/// Two connected sockets. The first one has room, and no input before something is sent.
class WaitSetTest : public testing::Test {
protected:
    WaitSetTest()
    {
        asked = {};
        failWith = std::nullopt;
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    }
    ~WaitSetTest() override
    {
        failWith = std::nullopt;
        for (const int end : ends)
            ::close(end);
    }

    void send() const { EXPECT_EQ(::send(ends[1], "x", 1, 0), 1); }

    std::array<int, 2> ends{-1, -1};
    WaitSet waits;
};

} // namespace

// --- descriptors

TEST_F(WaitSetTest, TellsWhatIsReadyOfWhatWasAdded)
{
    EXPECT_FALSE(waits.hasDescriptors());
    waits.addInput(ends[0]);
    waits.addOutput(ends[1]);
    EXPECT_TRUE(waits.hasDescriptors());
    EXPECT_EQ(asked.count, 0) << "no wait yet";
    waits.wait(DEADLINE);
    EXPECT_EQ(asked.count, std::max(ends[0], ends[1]) + 1);
    EXPECT_FALSE(waits.hasInput(ends[0]));
    EXPECT_TRUE(waits.hasRoom(ends[1]));
    EXPECT_FALSE(waits.hasRoom(ends[0])) << "not asked for";
    send();
    WaitSet next;
    next.addInput(ends[0]);
    next.wait(DEADLINE);
    EXPECT_TRUE(next.hasInput(ends[0]));
    EXPECT_FALSE(next.hasInput(ends[1]));
}

TEST_F(WaitSetTest, FindsNothingReadyBeforeAWaitOrWhenNothingCame)
{
    EXPECT_FALSE(waits.hasInput(ends[0]));
    EXPECT_FALSE(waits.hasRoom(ends[0]));
    waits.addInput(ends[0]);
    waits.wait(1ms);
    EXPECT_FALSE(waits.hasInput(ends[0]));
}

TEST_F(WaitSetTest, LeavesOutWhatNoSetHolds)
{
    const NoRoomInSets noRoom;
    const int high = ::dup(ends[1]);
    for (const int fd : {-1, -1000, FD_SETSIZE, FD_SETSIZE + 1, 1'000'000, high}) {
        if (fd == high && high < FD_SETSIZE) continue; // the limit of open files is too low
        EXPECT_FALSE(WaitSet::fits(fd)) << fd;
        WaitSet set;
        set.addInput(fd);
        set.addOutput(fd);
        EXPECT_FALSE(set.hasDescriptors()) << fd;
        set.wait(0ms);
        EXPECT_EQ(asked.count, 0) << fd;
        EXPECT_FALSE(set.hasInput(fd)) << fd;
        EXPECT_FALSE(set.hasRoom(fd)) << fd;
    }
    ::close(high);
    for (const int fd : {0, 1, FD_SETSIZE - 1})
        EXPECT_TRUE(WaitSet::fits(fd)) << fd;
}

TEST_F(WaitSetTest, HoldsTheHighestDescriptorThatFits)
{
    const NoRoomInSets noRoom;
    if (!noRoom.isSet()) GTEST_SKIP() << "the limit of open files cannot be raised";
    const int highest = FD_SETSIZE - 1;
    ASSERT_EQ(::dup2(ends[0], highest), highest); // one of the fillers
    send();
    waits.addInput(highest);
    waits.wait(DEADLINE);
    EXPECT_EQ(asked.count, FD_SETSIZE);
    EXPECT_TRUE(waits.hasInput(highest));
}

TEST_F(WaitSetTest, MakesEverybodyLookWhenTheWaitFails)
{
    for (const int error : {EINTR, EBADF, EINVAL, ENOMEM}) {
        SCOPED_TRACE(error);
        WaitSet set;
        set.addInput(ends[0]);
        set.addDue(instantNow() + 1h);
        failWith = error;
        set.wait(1000ms);
        EXPECT_TRUE(set.hasInput(ends[0]));
        EXPECT_TRUE(set.hasRoom(ends[0]));
        EXPECT_FALSE(set.hasInput(-1));
        EXPECT_FALSE(set.hasRoom(FD_SETSIZE));
        EXPECT_FALSE(set.isDue(instantNow() + 1h)) << "the time is what it is";
        failWith = std::nullopt;
        set.wait(0ms);
        EXPECT_FALSE(set.hasRoom(ends[0])) << "the next wait is one of its own";
    }
}

// --- time

TEST_F(WaitSetTest, WaitsUntilTheNearestDueTimeOrForTheMostAllowed)
{
    struct Row {
        const char* behaviour;
        std::vector<std::chrono::nanoseconds> dueIn;
        std::chrono::milliseconds most;
        std::chrono::microseconds longest;
    };
    const Row rows[] = {
        {"nothing is due", {}, 30ms, 30ms},
        {"what is due later", {1h}, 30ms, 30ms},
        {"a second and more", {}, 1500ms, 1500ms},
        {"what is due before", {20ms}, 1000ms, 20ms},
        {"the first of several", {1h, 20ms, 500ms}, 1000ms, 20ms},
        {"exactly then", {20ms}, 20ms, 20ms},
        {"due now", {0ns}, 1000ms, 0us},
        {"overdue", {-5ms}, 1000ms, 0us},
        {"overdue for long", {-10000h, 20ms}, 1000ms, 0us},
        {"no time at all", {20ms}, 0ms, 0us},
    };
    failWith = EINTR; // it is only looked at what would be waited for
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        WaitSet set;
        const Instant before = instantNow();
        for (const std::chrono::nanoseconds dueIn : row.dueIn)
            set.addDue(before + dueIn);
        set.wait(row.most);
        const auto passed = std::chrono::ceil<std::chrono::microseconds>(instantNow() - before);
        EXPECT_LE(askedTime(), row.longest);
        EXPECT_GE(askedTime(), row.longest - passed);
        EXPECT_GE(askedTime(), 0us);
    }
}

TEST_F(WaitSetTest, TakesTheTwoEndsOfTimeForWhatTheyAre)
{
    failWith = EINTR;
    WaitSet at;
    at.addDue(NEVER);
    at.wait(700ms);
    EXPECT_EQ(askedTime(), 700ms);
    EXPECT_FALSE(at.isDue(NEVER));
    EXPECT_TRUE(at.isDue(AT_ONCE));
    at.addDue(AT_ONCE);
    at.wait(700ms);
    EXPECT_EQ(askedTime(), 0us);
}

TEST_F(WaitSetTest, NeverWakesUpTooEarly)
{
    failWith = EINTR;
    for (int i = 0; i < 1000; ++i) {
        WaitSet set;
        const Instant due = instantNow() + 10ms + std::chrono::nanoseconds(i * 7 + 1);
        set.addDue(due);
        const Instant before = instantNow();
        set.wait(1000ms);
        const Instant after = instantNow();
        // The time that was asked for has been counted from some moment in between, so that
        // rounding down would show.
        EXPECT_GE(after + askedTime(), due) << i;
        EXPECT_LT(before + askedTime(), due + 1us) << i;
    }
}

TEST_F(WaitSetTest, CountsFromTheWaitNotFromItsMaking)
{
    failWith = EINTR;
    WaitSet set;
    const Instant due = instantNow() + 500ms;
    set.addDue(due);
    while (instantNow() < due - 450ms) {
    }
    set.wait(1000ms);
    EXPECT_LE(askedTime(), 450ms);
}

TEST_F(WaitSetTest, IsDueFromTheMomentOnAtWhichTheWaitEnded)
{
    const Instant made = waits.now();
    EXPECT_TRUE(waits.isDue(made));
    EXPECT_FALSE(waits.isDue(made + 1ns));
    const Instant due = instantNow() + 3ms;
    waits.addDue(due);
    waits.wait(DEADLINE);
    EXPECT_TRUE(waits.isDue(due)) << "without anything else to wake it";
    EXPECT_GE(waits.now(), due);
    EXPECT_FALSE(waits.isDue(waits.now() + 1ns));
}
