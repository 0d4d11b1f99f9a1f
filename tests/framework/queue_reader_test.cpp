#include "framework/queue_reader.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "framework/bundled/own_queue.h"
#include "framework/bundled/record_batch.h"
#include "tests/framework/queue_test.h"
#include "tests/support/raw_socket.h"
#include "tests/support/waiting.h"

namespace {

using testing::HasSubstr;

/// A queue holds so many at the kernel's default.
constexpr std::uint32_t QUEUE_DEPTH = 11;

class QueueReaderTest : public QueueTest {
protected:
    bool send(std::uint32_t number, std::size_t length, char fill = 'x') const
    {
        return unbound_.sendTo(pathOf(1001), &(record_ = numbered(number, fill)), length);
    }

    /// @return the first byte behind `length` that is not zero; else the record's size
    std::size_t zerosEnd(std::size_t length) const
    {
        const auto* const bytes = reinterpret_cast<const char*>(&msg_);
        while (length < MSG_RECORD_BYTES && bytes[length] == '\0')
            ++length;
        return length;
    }

    QuietProc proc_{1001};
    RawSocket unbound_;
    mutable TOrbAttachmentMsg record_{};
    TOrbAttachmentMsg msg_{};
    QueueReader reader_{msg_};
};

TEST_F(QueueReaderTest, TakesRecordsInOrderOfArrival)
{
    std::uint32_t taken = 0;
    for (const std::uint32_t burst : {1U, 2U, QUEUE_DEPTH, 1U, 5U}) {
        for (std::uint32_t i = 0; i < burst; ++i)
            ASSERT_TRUE(send(taken + i, 100 + i));
        for (std::uint32_t i = 0; i < burst; ++i) {
            EXPECT_EQ(reader_.next(i % 2 == 0), 100L + i);
            EXPECT_EQ(msg_.tag, taken + i);
            EXPECT_EQ(msg_.sender, 0);
        }
        taken += burst;
        EXPECT_FALSE(reader_.hasNext());
    }
    EXPECT_EQ(reader_.next(false), 0);
}

TEST_F(QueueReaderTest, GivesRoomToSendersAtOnce)
{
    for (std::uint32_t i = 0; i < QUEUE_DEPTH; ++i)
        ASSERT_TRUE(send(i, 16));
    ASSERT_FALSE(send(99, 16)) << "the queue is full";
    EXPECT_EQ(reader_.next(false), 16);
    EXPECT_TRUE(reader_.hasNext());
    for (std::uint32_t i = 0; i < QUEUE_DEPTH; ++i)
        ASSERT_TRUE(send(QUEUE_DEPTH + i, 16)) << i;
    for (std::uint32_t i = 1; i < 2 * QUEUE_DEPTH; ++i) {
        EXPECT_EQ(reader_.next(false), 16);
        EXPECT_EQ(msg_.tag, i);
    }
}

TEST_F(QueueReaderTest, LooksForSeveralAlsoAfterManyThatCameAlone)
{
    for (std::uint32_t i = 0; i < 100; ++i) {
        ASSERT_TRUE(send(i, 16));
        ASSERT_EQ(reader_.next(false), 16);
    }
    bool several = false;
    for (std::uint32_t i = 0; i < 50 && !several; ++i) {
        while (send(i, 16)) {
        }
        ASSERT_EQ(reader_.next(false), 16);
        several = reader_.hasNext();
    }
    EXPECT_TRUE(several);
}

TEST_F(QueueReaderTest, NamesTheSenderOfEach)
{
    const QueueProcess one(dir_, 2001);
    const QueueProcess two(dir_, 2002);
    for (const QueueProcess* process : {&one, &two, &one})
        ASSERT_TRUE(process->send(1001, numbered(0), 16));
    ASSERT_TRUE(send(0, 16));
    for (const int sender : {2001, 2002, 2001, 0}) {
        ASSERT_EQ(reader_.next(false), 16);
        EXPECT_EQ(msg_.sender, sender);
    }
}

TEST_F(QueueReaderTest, ShowsZerosBehindEachRecord)
{
    std::memset(static_cast<void*>(&msg_), 'o', sizeof msg_); // before the first one, it may be anything
    const std::vector<std::size_t> lengths{8192, 16, 17, 4000, 100, 8191, 20, 8192, 16};
    const auto expectNext = [this](std::size_t length) {
        EXPECT_EQ(reader_.next(false), static_cast<long>(length));
        EXPECT_EQ(zerosEnd(length), MSG_RECORD_BYTES) << "behind " << length;
    };
    for (const std::size_t length : lengths) {
        ASSERT_TRUE(send(1, length));
        expectNext(length);
    }
    for (const std::size_t length : lengths)
        ASSERT_TRUE(send(1, length));
    for (const std::size_t length : lengths)
        expectNext(length);
}

TEST_F(QueueReaderTest, DropsADatagramThatIsNoRecordInItsTurn)
{
    const std::string tooLong(9000, 'x');
    ASSERT_TRUE(send(1, 100));
    ASSERT_TRUE(send(2, 15));
    ASSERT_TRUE(unbound_.sendTo(pathOf(1001), tooLong.data(), tooLong.size()));
    ASSERT_TRUE(send(3, 16));
    EXPECT_EQ(reader_.next(false), 100);
    EXPECT_EQ(log_.text(), "") << "its turn has not come";
    EXPECT_EQ(reader_.next(true), 0);
    EXPECT_THAT(log_.text(), HasSubstr("15 bytes"));
    EXPECT_EQ(reader_.next(true), 0);
    EXPECT_THAT(log_.text(), HasSubstr("9000 bytes"));
    EXPECT_EQ(reader_.next(false), 16);
    EXPECT_EQ(msg_.tag, 3U);
    EXPECT_EQ(zerosEnd(16), MSG_RECORD_BYTES);
}

TEST_F(QueueReaderTest, GivesWhatASendingThreadHasTakenAsideFirst)
{
    ASSERT_TRUE(send(1, 100));
    ASSERT_TRUE(send(2, 200));
    ASSERT_EQ(ownQueue.drain(), OwnQueue::Drained::records);
    ASSERT_TRUE(send(3, 300));
    for (const long length : {100L, 200L, 300L}) {
        EXPECT_EQ(reader_.next(false), length);
        EXPECT_EQ(zerosEnd(static_cast<std::size_t>(length)), MSG_RECORD_BYTES);
    }
}

TEST_F(QueueReaderTest, ForgetsWhatItHasTakenOut)
{
    for (std::uint32_t i = 0; i < 3; ++i)
        ASSERT_TRUE(send(i, 16));
    ASSERT_EQ(reader_.next(false), 16);
    ASSERT_TRUE(reader_.hasNext());
    reader_.forget();
    EXPECT_FALSE(reader_.hasNext());
    ASSERT_TRUE(send(9, 20));
    EXPECT_EQ(reader_.next(false), 20);
    EXPECT_EQ(msg_.tag, 9U);
}

TEST_F(QueueReaderTest, WaitsForARecord)
{
    std::thread sender([this] { ASSERT_TRUE(send(7, 16)); });
    EXPECT_TRUE(waitUntil([this] { return reader_.next(true) == 16; }));
    sender.join();
    EXPECT_EQ(msg_.tag, 7U);
}

TEST(QueueReader, FailsWithoutAQueue)
{
    TOrbAttachmentMsg msg;
    QueueReader reader(msg);
    errno = 0;
    EXPECT_EQ(reader.next(true), -1);
    EXPECT_EQ(errno, EBADF);
}

} // namespace
