#include "framework/bundled/msg_backlog.h"

#include <cstring>
#include <gtest/gtest.h>
#include <vector>

namespace {

class MsgBacklogTest : public testing::Test {
protected:
    ~MsgBacklogTest() override { backlog_.clear(); }

    bool put(std::uint32_t number, std::size_t length)
    {
        TOrbAttachmentMsg* const room = backlog_.reserve();
        if (room == nullptr) return false;
        std::memset(static_cast<void*>(room), 'f', sizeof *room);
        room->tag = number;
        backlog_.keep(length);
        return true;
    }

    MsgBacklog backlog_;
    TOrbAttachmentMsg taken_{};
};

TEST_F(MsgBacklogTest, HandsRecordsOutInOrderWithTheirLengths)
{
    for (std::uint32_t i = 0; i < 100; ++i)
        ASSERT_TRUE(put(i, MSG_HEADER_BYTES + i * 80));
    for (std::uint32_t i = 0; i < 100; ++i) {
        EXPECT_EQ(backlog_.take(&taken_), MSG_HEADER_BYTES + i * 80);
        EXPECT_EQ(taken_.tag, i);
    }
    EXPECT_EQ(backlog_.take(&taken_), 0U);
}

TEST_F(MsgBacklogTest, WritesOnlyAsManyBytesAsTheRecordHas)
{
    ASSERT_TRUE(put(1, 20));
    std::memset(static_cast<void*>(&taken_), 'o', sizeof taken_);
    ASSERT_EQ(backlog_.take(&taken_), 20U);
    EXPECT_EQ(taken_.text[3], 'f');
    EXPECT_EQ(taken_.text[4], 'o');
}

TEST_F(MsgBacklogTest, RoomThatIsNotUsedIsGivenOutAgain)
{
    ASSERT_NE(backlog_.reserve(), nullptr);
    ASSERT_NE(backlog_.reserve(), nullptr);
    EXPECT_EQ(backlog_.take(&taken_), 0U);
    ASSERT_TRUE(put(5, 16));
    EXPECT_EQ(backlog_.take(&taken_), 16U);
    EXPECT_EQ(taken_.tag, 5U);
}

TEST_F(MsgBacklogTest, TakesNoMoreMemoryThanItMay)
{
    for (const std::size_t length : {MSG_HEADER_BYTES, MSG_RECORD_BYTES}) {
        std::size_t kept = 0;
        while (put(static_cast<std::uint32_t>(kept), length))
            ++kept;
        EXPECT_LE(kept * length, MsgBacklog::LIMIT_BYTES);
        EXPECT_GT(kept * (length + 64), MsgBacklog::LIMIT_BYTES - 3 * MSG_RECORD_BYTES) << "records of " << length;
        EXPECT_EQ(backlog_.reserve(), nullptr);
        ASSERT_EQ(backlog_.take(&taken_), length);
        EXPECT_EQ(taken_.tag, 0U);
        backlog_.clear();
        EXPECT_NE(backlog_.reserve(), nullptr);
    }
}

} // namespace
