#include "framework/bundled/own_queue.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>

#include "framework/fd.h"
#include "tests/framework/child_process.h"
#include "tests/framework/fake_system.h"
#include "tests/framework/queue_test.h"
#include "tests/support/raw_socket.h"
#include "tests/support/waiting.h"
#include "tests/support/waiting_thread.h"

namespace {

using testing::HasSubstr;

class OwnQueueTest : public QueueTest {
protected:
    ~OwnQueueTest() override { queue_.close(); }

    /// Opens it.
    /// @return the error's text, empty when it is open
    static std::string openError(OwnQueue& queue, long address)
    {
        try {
            queue.open(address);
            return "";
        } catch (const std::runtime_error& error) {
            return error.what();
        }
    }

    std::string openError(long address) { return openError(queue_, address); }

    /// Leaves a socket file behind, as a process that was killed does.
    void leaveStale(long address) const
    {
        ::unlink(pathOf(address).c_str());
        const RawSocket gone(pathOf(address));
    }

    unsigned modeOf(long address) const
    {
        struct stat found {};
        return ::stat(pathOf(address).c_str(), &found) == 0 ? found.st_mode & 07777U : 0xFFFFU;
    }

    bool exists(long address) const
    {
        struct stat found {};
        return ::lstat(pathOf(address).c_str(), &found) == 0;
    }

    /// Locks the queue directory, as somebody does who never comes to an end.
    Fd lockedDirectory() const
    {
        const int fd = ::open(dir_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (::flock(fd, LOCK_EX | LOCK_NB) != 0) throw std::runtime_error("the directory is locked already");
        return Fd(fd);
    }

    static std::ptrdiff_t openDescriptors()
    {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    }

    OwnQueue queue_;
    TOrbAttachmentMsg msg_{};
};

TEST_F(OwnQueueTest, IsASocketFileOfItsAddressForOwnerAndGroupWhateverTheUmask)
{
    for (const mode_t mask : {0U, 022U, 0777U}) {
        const mode_t before = ::umask(mask);
        const std::string error = openError(1001);
        ::umask(before);
        EXPECT_EQ(error, "");
        EXPECT_EQ(modeOf(1001), 0660U) << "under umask " << std::oct << mask;
        queue_.close();
        EXPECT_FALSE(exists(1001));
    }
}

TEST_F(OwnQueueTest, MakesTheDirectoryThatIsMissing)
{
    ::setenv("TESS_QUEUE_DIR", (dir_ / "a/b//").c_str(), 1);
    EXPECT_EQ(openError(1001), "");
    struct stat found {};
    EXPECT_EQ(::stat((dir_ / "a/b/1001").c_str(), &found), 0);
}

TEST_F(OwnQueueTest, AddressesGoFromOneToTheLargestInt)
{
    EXPECT_EQ(openError(2147483647), "");
    queue_.close();
    EXPECT_EQ(openError(1), "");
    queue_.close();
    for (const long address : {0L, -1L}) {
        const std::string text = "queue address " + std::to_string(address) + " is not between 1 and 2147483647";
        EXPECT_EQ(openError(address), text);
        EXPECT_THAT(log_.text(), HasSubstr(" 250001 " + text + "\n"));
    }
}

TEST_F(OwnQueueTest, ALiveOwnerKeepsItsAddress)
{
    Signpost opened;
    Signpost tried;
    ChildProcess owner([&] {
        const QuietProc proc(1001);
        opened.pass();
        return tried.await() ? 0 : 1;
    });
    ASSERT_TRUE(opened.await());
    EXPECT_EQ(openError(1001), "queue address 1001 is in use");
    EXPECT_THAT(log_.text(), HasSubstr(" 250001 queue address 1001 is in use\n"));
    EXPECT_TRUE(exists(1001));
    EXPECT_EQ(openError(1002), "") << "other addresses are free";
    tried.pass();
    EXPECT_EQ(owner.result(), 0);
}

TEST_F(OwnQueueTest, AnAddressIsInUseWhateverKindOfLiveSocketHoldsIt)
{
    {
        const RawSocket datagram(pathOf(11));
        EXPECT_EQ(openError(11), "queue address 11 is in use");
    }
    {
        const RawSocket peer(pathOf(12));
        const RawSocket connected(pathOf(13));
        ASSERT_TRUE(connected.connectTo(pathOf(12)));
        EXPECT_EQ(openError(13), "queue address 13 is in use");
    }
    const int stream = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un name{};
    ASSERT_TRUE(QueueDirectory(dir_.path()).socketAddress(14, name));
    ASSERT_EQ(::bind(stream, reinterpret_cast<const sockaddr*>(&name), sizeof name), 0);
    ASSERT_EQ(::listen(stream, 1), 0);
    EXPECT_EQ(openError(14), "queue address 14 is in use");
    ::close(stream);
    EXPECT_EQ(openError(14), "") << "a stale one of another kind is replaced";
}

TEST_F(OwnQueueTest, OneProcessHoldsOneQueue)
{
    ASSERT_EQ(openError(1001), "");
    EXPECT_EQ(openError(1001), "queue address 1001 is in use");
    EXPECT_EQ(openError(1002), "queue address 1002: this process already holds 1001");
    EXPECT_TRUE(exists(1001));
    EXPECT_FALSE(exists(1002));
}

TEST_F(OwnQueueTest, ReplacesTheFileOfADeadOwner)
{
    Signpost opened;
    ChildProcess owner([&] {
        const QuietProc proc(1001);
        opened.pass();
        ::pause();
        return 0;
    });
    ASSERT_TRUE(opened.await());
    owner.kill();
    ASSERT_TRUE(exists(1001));
    EXPECT_EQ(openError(1001), "");
    const TOrbAttachmentMsg sent = numbered(1);
    EXPECT_TRUE(RawSocket().sendTo(pathOf(1001), &sent, 20));
    EXPECT_EQ(queue_.receive(&msg_, true), 20);
}

TEST_F(OwnQueueTest, NeverRemovesWhatIsNoSocket)
{
    std::ofstream(pathOf(1001)) << "precious";
    EXPECT_EQ(openError(1001), "queue address 1001: " + pathOf(1001) + ": is not a socket");
    EXPECT_TRUE(exists(1001));
    ASSERT_EQ(::symlink("nowhere", pathOf(1002).c_str()), 0);
    EXPECT_EQ(openError(1002), "queue address 1002: " + pathOf(1002) + ": is not a socket");
    EXPECT_TRUE(exists(1002));
    EXPECT_THAT(log_.text(), HasSubstr(" 250001 queue address 1001: " + pathOf(1001) + ": is not a socket\n"));
}

TEST_F(OwnQueueTest, APathThatIsTooLongIsAClearError)
{
    const std::string deep = dir_ / std::string(100, 'd');
    ::setenv("TESS_QUEUE_DIR", deep.c_str(), 1);
    const std::string text = "queue address 1001: " + deep + "/1001: path too long for a socket address";
    EXPECT_EQ(openError(1001), text);
    EXPECT_THAT(log_.text(), HasSubstr(" 250001 " + text + "\n"));
    EXPECT_FALSE(std::filesystem::exists(deep));
}

TEST_F(OwnQueueTest, ADirectoryThatIsAFileIsAClearError)
{
    const std::string file = dir_ / "file";
    std::ofstream(file) << "x";
    ::setenv("TESS_QUEUE_DIR", file.c_str(), 1);
    EXPECT_EQ(openError(1001), "queue address 1001: " + file + ": Not a directory");
}

TEST_F(OwnQueueTest, ADirectoryThatStaysLockedIsAClearErrorAfterTwoSeconds)
{
    const Fd lock = lockedDirectory();
    const Stopwatch watch;
    EXPECT_EQ(openError(1001), "queue address 1001: " + dir_.path() +
                                   ": Resource temporarily unavailable: another process has kept the " +
                                   "directory locked for 2 seconds");
    EXPECT_GE(watch.ms(), 2000);
    EXPECT_LT(watch.ms(), atMost(5000));
    EXPECT_FALSE(exists(1001));
}

TEST_F(OwnQueueTest, OpeningWaitsForTheDirectorysLock)
{
    const WaitingThread opening;
    std::atomic<bool> released{false};
    std::thread other([&, lock = lockedDirectory().release()] {
        EXPECT_TRUE(opening.untilAsleep());
        released = true;
        ::close(lock);
    });
    EXPECT_EQ(openError(1001), "");
    EXPECT_TRUE(released) << "the lock was not waited for";
    other.join();
}

TEST_F(OwnQueueTest, ClosingWhileTheDirectoryStaysLockedLeavesAFileThatTheNextOwnerReplaces)
{
    ASSERT_EQ(openError(1001), "");
    {
        const Fd lock = lockedDirectory();
        const Stopwatch watch;
        queue_.close();
        EXPECT_GE(watch.ms(), 2000);
        EXPECT_LT(watch.ms(), atMost(5000));
    }
    EXPECT_TRUE(exists(1001));
    const TOrbAttachmentMsg sent = numbered(1);
    EXPECT_FALSE(RawSocket().sendTo(pathOf(1001), &sent, 20)) << "nobody is there";
    EXPECT_EQ(openError(1001), "");
    EXPECT_TRUE(RawSocket().sendTo(pathOf(1001), &sent, 20));
}

TEST_F(OwnQueueTest, WithoutAReceiveTimeOutItDoesNotOpen)
{
    {
        const fake_system::RefusedOption refused(SO_RCVTIMEO);
        EXPECT_EQ(openError(1001), "queue address 1001: socket: Operation not permitted");
        EXPECT_FALSE(queue_.isOpen());
    }
    EXPECT_EQ(openError(1001), "");
}

TEST_F(OwnQueueTest, AFailedOpenLeavesNothingBehind)
{
    const RawSocket owner(pathOf(1001));
    (void)queue_.socket();
    const auto before = openDescriptors();
    for (int i = 0; i < 20; ++i)
        EXPECT_NE(openError(1001), "");
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_FALSE(queue_.isOpen());
}

TEST_F(OwnQueueTest, CanBeClosedAndOpenedAgainWithoutLosingDescriptors)
{
    ASSERT_EQ(openError(1001), "");
    queue_.close();
    const auto before = openDescriptors();
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(openError(1001), "");
        queue_.close();
        queue_.close();
    }
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(queue_.receive(&msg_, false), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(OwnQueueTest, ClosingForgetsWhatNobodyTook)
{
    ASSERT_EQ(openError(1001), "");
    const TOrbAttachmentMsg sent = numbered(1);
    ASSERT_TRUE(RawSocket().sendTo(pathOf(1001), &sent, 20));
    ASSERT_EQ(queue_.drain(), OwnQueue::Drained::records);
    queue_.close();
    ASSERT_EQ(openError(1001), "");
    EXPECT_EQ(queue_.receive(&msg_, false), 0);
}

TEST_F(OwnQueueTest, ClosingLeavesAFileThatIsSomebodyElses)
{
    ASSERT_EQ(openError(1001), "");
    ASSERT_EQ(::unlink(pathOf(1001).c_str()), 0);
    const RawSocket newOwner(pathOf(1001));
    queue_.close();
    EXPECT_TRUE(exists(1001));
}

TEST_F(OwnQueueTest, AForkedChildDoesNotRemoveItsParentsFile)
{
    ASSERT_EQ(openError(1001), "");
    ChildProcess child([&] {
        queue_.close();
        return 0;
    });
    EXPECT_EQ(child.result(), 0);
    EXPECT_TRUE(exists(1001));
    const TOrbAttachmentMsg sent = numbered(9);
    ASSERT_TRUE(RawSocket().sendTo(pathOf(1001), &sent, 20));
    EXPECT_EQ(queue_.receive(&msg_, true), 20);
}

TEST_F(OwnQueueTest, ItsDescriptorIsNotPassedOnToPrograms)
{
    ASSERT_EQ(openError(1001), "");
    EXPECT_EQ(::fcntl(queue_.socket(), F_GETFD), FD_CLOEXEC);
    queue_.close();
    EXPECT_EQ(::fcntl(queue_.socket(), F_GETFD), FD_CLOEXEC);
}

TEST_F(OwnQueueTest, OfTwoThreadsThatRaceForAStaleAddressOneGetsIt)
{
    for (int round = 0; round < 150; ++round) {
        const long address = 5000 + round;
        leaveStale(address);
        OwnQueue queues[2];
        std::string errors[2];
        std::atomic<int> ready{0};
        const auto race = [&](int who) {
            ++ready;
            while (ready < 2)
                std::this_thread::yield();
            errors[who] = openError(queues[who], address);
        };
        std::thread other(race, 1);
        race(0);
        other.join();
        EXPECT_NE(errors[1].empty(), errors[0].empty()) << "round " << round << ": " << errors[0] << " / " << errors[1];
        EXPECT_EQ(errors[0] + errors[1], "queue address " + std::to_string(address) + " is in use");
        for (OwnQueue& queue : queues) {
            queue.close();
            ::close(queue.socket());
        }
        ASSERT_FALSE(HasFailure());
    }
}

TEST_F(OwnQueueTest, OfTwoProcessesThatRaceForAStaleAddressOneGetsIt)
{
    for (int round = 0; round < 40; ++round) {
        leaveStale(1001);
        Signpost start;
        Signpost tried;
        Signpost end;
        const auto race = [&] {
            (void)start.await();
            const std::string error = openError(1001);
            tried.pass();
            (void)end.await();
            if (error.empty()) return 0;
            return error == "queue address 1001 is in use" ? 1 : 2;
        };
        ChildProcess one(race);
        ChildProcess two(race);
        start.pass();
        start.pass();
        ASSERT_TRUE(tried.await());
        ASSERT_TRUE(tried.await());
        end.pass();
        end.pass();
        EXPECT_EQ(one.result() + two.result(), 1) << "round " << round;
        ASSERT_FALSE(HasFailure());
    }
}

TEST_F(OwnQueueTest, OpeningAndClosingInTwoProcessesNeverLeavesAnAddressWithoutItsFile)
{
    const auto openAndClose = [&] {
        OwnQueue queue;
        for (int opened = 0; opened < 100;) {
            const std::string error = openError(queue, 1001);
            if (error == "queue address 1001 is in use") continue;
            if (!error.empty()) return 1;
            if (!exists(1001)) return 2;
            queue.close();
            ++opened;
        }
        return 0;
    };
    ChildProcess other(openAndClose);
    EXPECT_EQ(openAndClose(), 0);
    EXPECT_EQ(other.result(), 0);
}

} // namespace
