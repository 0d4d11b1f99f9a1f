#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <optional>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <thread>

#include "framework/bundled/own_queue.h"
#include "tests/framework/child_process.h"
#include "tests/framework/fake_system.h"
#include "tests/framework/queue_test.h"
#include "tests/framework/signal_counter.h"
#include "tests/support/raw_socket.h"
#include "tests/support/waiting.h"
#include "tests/support/waiting_thread.h"

namespace {

using testing::HasSubstr;
using testing::Not;

class QueueReceive : public QueueTest {
protected:
    long receive(bool wait = false) { return g_qMgr.getMsg(&msg_, MSG_QUEUE_ALL, wait); }

    bool sendRaw(const RawSocket& from, const TOrbAttachmentMsg& msg, std::size_t length) const
    {
        return from.sendTo(pathOf(1001), &msg, length);
    }

    QuietProc proc_{1001};
    RawSocket unbound_;
    TOrbAttachmentMsg msg_{};
};

TEST_F(QueueReceive, TakesRecordsInOrderOfArrival)
{
    for (std::uint32_t i = 0; i < 8; ++i)
        ASSERT_TRUE(sendRaw(unbound_, numbered(i), 16 + i));
    for (std::uint32_t i = 0; i < 8; ++i) {
        EXPECT_EQ(receive(i % 2 == 0), 16L + i);
        EXPECT_EQ(msg_.kind, 101U);
        EXPECT_EQ(msg_.tag, i);
    }
    EXPECT_EQ(receive(), 0);
}

TEST_F(QueueReceive, TheSenderIsTheQueueThatTheKernelNames)
{
    const TempDir elsewhere;
    const std::string link = elsewhere / "link";
    ASSERT_EQ(::symlink(dir_.path().c_str(), link.c_str()), 0);
    const struct {
        std::string name;
        int sender;
    } cases[] = {
        {pathOf(2001), 2001},     {pathOf(2147483647), 2147483647},
        {dir_ / "2147483648", 0}, {dir_ / "007", 0},
        {dir_ / "0", 0},          {dir_ / "name", 0},
        {elsewhere / "2002", 0},  {link + "/2003", 0},
        {dir_ / "./2004", 0},     {'\0' + dir_ / "2005", 0},
    };
    for (const auto& c : cases) {
        const RawSocket peer(c.name);
        ASSERT_TRUE(sendRaw(peer, numbered(1), 32));
        ASSERT_EQ(receive(), 32);
        EXPECT_EQ(msg_.sender, c.sender) << c.name;
    }
    ASSERT_TRUE(sendRaw(unbound_, numbered(1), 32));
    ASSERT_EQ(receive(), 32);
    EXPECT_EQ(msg_.sender, 0) << "an unbound socket";
}

TEST_F(QueueReceive, ASocketMadeElsewhereDoesNotPassForALiveProcess)
{
    const RawSocket live(pathOf(2001));
    const TempDir elsewhere;
    const std::string place = elsewhere / "q";
    ASSERT_EQ(::mkdir(place.c_str(), 0700), 0);
    const RawSocket stranger(place + "/2001");
    std::filesystem::rename(place, elsewhere / "moved");
    ASSERT_EQ(::symlink(dir_.path().c_str(), place.c_str()), 0); // its name leads to the live one's socket now
    ASSERT_TRUE(sendRaw(stranger, numbered(1), 32));
    ASSERT_EQ(receive(), 32);
    EXPECT_EQ(msg_.sender, 0);
    ASSERT_TRUE(sendRaw(live, numbered(2), 32));
    ASSERT_EQ(receive(), 32);
    EXPECT_EQ(msg_.sender, 2001);
}

TEST_F(QueueReceive, DropsADatagramThatIsNoRecordAndGoesOn)
{
    const char bytes[MSG_RECORD_BYTES + 8000]{};
    for (const std::size_t size :
         {std::size_t(0), std::size_t(1), MSG_HEADER_BYTES - 1, MSG_RECORD_BYTES + 1, sizeof bytes}) {
        const std::string line = " 250002 dropped a datagram of " + std::to_string(size) + " bytes";
        EXPECT_THAT(log_.text(), Not(HasSubstr(line)));
        ASSERT_TRUE(unbound_.sendTo(pathOf(1001), bytes, size));
        EXPECT_EQ(receive(), 0) << size;
        EXPECT_THAT(log_.text(), HasSubstr(line));
        ASSERT_TRUE(sendRaw(unbound_, numbered(7), 40));
        EXPECT_EQ(receive(), 40) << "behind one of " << size;
    }
    const std::string log = log_.text();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 5) << log;
}

TEST_F(QueueReceive, ADroppedDatagramEndsTheWaitAtOnceWithNothing)
{
    ASSERT_TRUE(unbound_.sendTo(pathOf(1001), "short", 5));
    ASSERT_TRUE(sendRaw(unbound_, numbered(7), 40));
    EXPECT_EQ(receive(true), 0);
    EXPECT_EQ(fake_system::lastReceive().error, 0) << "the clock has ended it";
    EXPECT_EQ(receive(true), 40) << "what came behind it is next";
}

TEST_F(QueueReceive, TakesTheShortestAndTheLongestRecord)
{
    for (const std::size_t size : {MSG_HEADER_BYTES, MSG_RECORD_BYTES}) {
        ASSERT_TRUE(sendRaw(unbound_, numbered(7, 'x'), size));
        EXPECT_EQ(receive(), static_cast<long>(size));
        EXPECT_EQ(msg_.text[MSG_TEXT_BYTES - 1], size == MSG_RECORD_BYTES ? 'x' : '\0');
    }
    EXPECT_EQ(log_.text(), "");
}

TEST_F(QueueReceive, NoByteOfAnEarlierMessageIsSeenInALaterOne)
{
    const auto textIsZeroFrom = [&](std::size_t at) {
        return std::all_of(msg_.text + at, msg_.text + MSG_TEXT_BYTES, [](char c) { return c == '\0'; });
    };
    ASSERT_TRUE(sendRaw(unbound_, numbered(1, 'x'), MSG_RECORD_BYTES));
    ASSERT_EQ(receive(), 8192);
    ASSERT_TRUE(sendRaw(unbound_, numbered(2, 'y'), 20));
    ASSERT_EQ(receive(), 20);
    EXPECT_EQ(std::string(msg_.text, 4), "yyyy");
    EXPECT_TRUE(textIsZeroFrom(4));

    // the same over the backlog
    ASSERT_TRUE(sendRaw(unbound_, numbered(3, 'x'), MSG_RECORD_BYTES));
    ASSERT_TRUE(sendRaw(unbound_, numbered(4, 'y'), 20));
    ASSERT_EQ(ownQueue.drain(), OwnQueue::Drained::records);
    ASSERT_EQ(receive(), 8192);
    ASSERT_EQ(receive(), 20);
    EXPECT_EQ(msg_.tag, 4U);
    EXPECT_EQ(std::string(msg_.text, 4), "yyyy");
    EXPECT_TRUE(textIsZeroFrom(4));
}

TEST_F(QueueReceive, WhatWasTakenAsideComesFirst)
{
    std::uint32_t next = 0;
    std::uint32_t expected = 0;
    for (int round = 0; round < 20; ++round) {
        for (int i = 0; i < 5; ++i)
            ASSERT_TRUE(sendRaw(unbound_, numbered(next++), 16));
        ASSERT_EQ(ownQueue.drain(), OwnQueue::Drained::records);
        for (int i = 0; i < 5; ++i)
            ASSERT_TRUE(sendRaw(unbound_, numbered(next++), 16));
        for (int i = 0; i < 10; ++i) {
            ASSERT_EQ(receive(), 16);
            EXPECT_EQ(msg_.tag, expected++);
        }
    }
}

TEST_F(QueueReceive, DescriptorsSentAlongAreClosed)
{
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    TOrbAttachmentMsg record = numbered(1);
    sockaddr_un to{};
    ASSERT_TRUE(QueueDirectory(dir_.path()).socketAddress(1001, to));
    iovec data{&record, 32};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))]{};
    msghdr header{};
    header.msg_name = &to;
    header.msg_namelen = sizeof to;
    header.msg_iov = &data;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    cmsghdr* const rights = CMSG_FIRSTHDR(&header);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(rights), &ends[1], sizeof(int));
    ASSERT_EQ(::sendmsg(unbound_.fd(), &header, 0), 32);
    ::close(ends[1]);
    EXPECT_EQ(receive(), 32);
    // The end of the pipe is seen as soon as nobody holds the writing end any more.
    pollfd waitFor{};
    waitFor.fd = ends[0];
    EXPECT_EQ(::poll(&waitFor, 1, 10'000), 1);
    EXPECT_EQ(waitFor.revents, POLLHUP);
    ::close(ends[0]);
}

TEST_F(QueueReceive, WithoutWaitingItLooksOnce)
{
    const unsigned before = fake_system::lastReceive().number;
    EXPECT_EQ(receive(false), 0);
    EXPECT_EQ(fake_system::lastReceive().number, before + 1);
    EXPECT_NE(fake_system::lastReceive().flags & MSG_DONTWAIT, 0);
}

TEST_F(QueueReceive, WaitsForAboutASecondWithoutUsingTheProcessor)
{
    const unsigned before = fake_system::lastReceive().number;
    const Stopwatch watch;
    EXPECT_EQ(receive(true), 0);
    EXPECT_GE(watch.ms(), 950);
    EXPECT_EQ(fake_system::lastReceive().number, before + 1) << "it does not ask again and again";
    EXPECT_EQ(fake_system::lastReceive().error, EAGAIN);
    timeval longest{};
    socklen_t length = sizeof longest;
    ASSERT_EQ(::getsockopt(ownQueue.socket(), SOL_SOCKET, SO_RCVTIMEO, &longest, &length), 0);
    if (length != sizeof longest) return; // an emulator may know the short form only
    EXPECT_EQ(longest.tv_sec, 1);
    EXPECT_EQ(longest.tv_usec, 0);
}

TEST_F(QueueReceive, ARecordEndsTheWait)
{
    const WaitingThread receiver;
    std::thread sender([&] {
        EXPECT_TRUE(receiver.untilAsleep());
        const TOrbAttachmentMsg record = numbered(3);
        (void)sendRaw(unbound_, record, 16);
    });
    EXPECT_EQ(receiveNext(msg_), 16);
    sender.join();
    EXPECT_EQ(msg_.tag, 3U);
}

TEST_F(QueueReceive, ASignalEndsTheWaitEvenIfItsHandlerRestartsCalls)
{
    const SignalCounter signals(SIGUSR1, SA_RESTART);
    const pthread_t receiver = ::pthread_self();
    std::atomic<bool> done{false};
    std::thread signaller([&] {
        while (!done) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            ::pthread_kill(receiver, SIGUSR1);
        }
    });
    EXPECT_EQ(receive(true), 0);
    const int error = fake_system::lastReceive().error;
    done = true;
    signaller.join();
    EXPECT_EQ(error, EINTR) << "the clock has ended it";
}

} // namespace
