// What a forked child finds of its parent's queue, whatever the parent's threads were doing.
#include <sys/resource.h>
#include <thread>

#include "framework/bundled/own_queue.h"
#include "tests/framework/child_process.h"
#include "tests/framework/queue_test.h"
#include "tests/support/raw_socket.h"
#include "tests/support/waiting.h"

namespace {

constexpr std::chrono::seconds CHILD_PATIENCE{20};

/// Another thread that waits in a queue for a record, as it is when the object has been made.
class Receiver {
public:
    explicit Receiver(OwnQueue& queue) : thread_([this, &queue] { length = queue.receive(&msg, true); })
    {
        inside = waitUntil([&] { return queue.drain() == OwnQueue::Drained::busy; });
    }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;
    ~Receiver() { join(); }

    void join()
    {
        if (thread_.joinable()) thread_.join();
    }

    bool inside = false;
    long length = 0;
    TOrbAttachmentMsg msg{};

private:
    std::thread thread_;
};

class QueueFork : public QueueTest {
protected:
    static long send(long address, std::size_t length = 64)
    {
        TOrbAttachmentMsg msg = numbered(1);
        return g_qMgr.sendMsg(address, &msg, static_cast<long>(length), false);
    }

    static long look(TOrbAttachmentMsg& msg) { return g_qMgr.getMsg(&msg, MSG_QUEUE_ALL, false); }

    /// The child ends well, and record 7 is still there.
    void expectLeftToParent(ChildProcess& child)
    {
        EXPECT_EQ(child.result(CHILD_PATIENCE), 0);
        EXPECT_EQ(look(msg_), 32);
        EXPECT_EQ(msg_.tag, 7U);
    }

    bool sendRaw(std::uint32_t number, long to = 1001) const
    {
        const TOrbAttachmentMsg msg = numbered(number);
        return RawSocket().sendTo(pathOf(to), &msg, 32);
    }

    /// @return true: a record that comes for `own` is taken out of the socket by a call that waits,
    ///         and handed out after
    bool takesAside(long own)
    {
        char byte = 0;
        return sendRaw(7, own) && ownQueue.drain() == OwnQueue::Drained::records &&
               ::recv(ownQueue.socket(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && look(msg_) == 32;
    }

    TOrbAttachmentMsg msg_{};
};

/// This queue is not the process's own one: nobody frees its locks in the child.
TEST_F(QueueFork, AChildClosesWithoutWaitingForAThreadThatItDoesNotHave)
{
    OwnQueue queue;
    queue.open(1001);
    Receiver receiver(queue);
    ASSERT_TRUE(receiver.inside);
    ChildProcess child([&] {
        queue.close();
        return queue.isOpen() ? 1 : 0;
    });
    EXPECT_EQ(child.result(CHILD_PATIENCE), 0);
    EXPECT_TRUE(sendRaw(5));
    receiver.join();
    EXPECT_EQ(receiver.length, 32) << "its parent goes on receiving";
    queue.close();
}

TEST_F(QueueFork, AChildThatClosesWithoutADescriptorToSpareLeavesTheParentsSocketAsItIs)
{
    const QuietProc proc(1001);
    ChildProcess child([&] {
        rlimit before{};
        ::getrlimit(RLIMIT_NOFILE, &before);
        const rlimit none{0, before.rlim_max};
        if (::setrlimit(RLIMIT_NOFILE, &none) != 0 || ::dup(0) >= 0) return 1;
        ownQueue.close();
        if (ownQueue.isOpen() || ownQueue.socket() >= 0) return 2;
        if (send(1001) == 0) return 3;
        ::setrlimit(RLIMIT_NOFILE, &before);
        return send(1001) == 0 ? 0 : 4;
    });
    EXPECT_EQ(child.result(CHILD_PATIENCE), 0) << log_.text();
    EXPECT_EQ(receiveNext(msg_), 64) << "the queue lives";
    EXPECT_EQ(msg_.sender, 0) << "the child has no queue";
    EXPECT_EQ(send(1001), 0) << "and sends";
    EXPECT_EQ(receiveNext(msg_), 64);
    EXPECT_EQ(msg_.sender, 1001);
}

TEST_F(QueueFork, AChildMayHaveAQueueOfItsOwnAlthoughAThreadOfItsParentWasReceiving)
{
    const QuietProc proc(1001);
    Receiver receiver(ownQueue);
    ASSERT_TRUE(receiver.inside);
    ChildProcess child([&] {
        ownQueue.close();
        const QuietProc own(1002);
        return takesAside(1002) ? 0 : 1;
    });
    EXPECT_EQ(child.result(CHILD_PATIENCE), 0) << log_.text();
}

TEST_F(QueueFork, WhatItsParentHasTakenAsideIsNotHandledTwice)
{
    const QuietProc proc(1001);
    ASSERT_TRUE(sendRaw(7));
    ASSERT_EQ(ownQueue.drain(), OwnQueue::Drained::records);
    ChildProcess child([&] { return static_cast<int>(look(msg_)); });
    expectLeftToParent(child);
}

TEST_F(QueueFork, AChildThatDoesNotReceiveLeavesToItsParentWhatArrivesWhileItWaits)
{
    const QuietProc proc(1001);
    ASSERT_TRUE(sendRaw(7));
    ChildProcess child([] { return ownQueue.drain() == OwnQueue::Drained::busy ? 0 : 1; });
    expectLeftToParent(child);
}

TEST_F(QueueFork, AChildThatGoesOnReceivingTakesAsideWhatArrivesWhileItWaits)
{
    const QuietProc proc(1001);
    ChildProcess child([&] {
        if (look(msg_) != 0) return 1;
        return takesAside(1001) ? 0 : 2;
    });
    EXPECT_EQ(child.result(CHILD_PATIENCE), 0);
}

} // namespace
