#include "framework/bundled/msg_backlog.h"

#include <cstring>
#include <gtest/gtest.h>
#include <vector>

namespace {

class MsgBacklog : public testing::Test {
protected:
    ~MsgBacklog() override { backlog_.clear(); }

    bool put(std::uint32_t number, std::size_t length)
    {
        TOrbAttachmentMsg* const room = backlog_.reserve();
        if (room == nullptr) return false;
        std::memset(static_cast<void*>(room), 'f', sizeof *room);
        room->tag = number;
        backlog_.keep(length);
        return true;
    }

    TMsgBacklog backlog_;
    TOrbAttachmentMsg taken_{};
};

TEST_F(MsgBacklog, HandsRecordsOutInOrderWithTheirLengths)
{
    for (std::uint32_t i = 0; i < 100; ++i)
        ASSERT_TRUE(put(i, MSG_HEADER_BYTES + i * 80));
    for (std::uint32_t i = 0; i < 100; ++i) {
        EXPECT_EQ(MSG_HEADER_BYTES + i * 80, backlog_.take(&taken_));
        EXPECT_EQ(i, taken_.tag);
    }
    EXPECT_EQ(0U, backlog_.take(&taken_));
}

TEST_F(MsgBacklog, WritesOnlyAsManyBytesAsTheRecordHas)
{
    ASSERT_TRUE(put(1, 20));
    std::memset(static_cast<void*>(&taken_), 'o', sizeof taken_);
    ASSERT_EQ(20U, backlog_.take(&taken_));
    EXPECT_EQ('f', taken_.text[3]);
    EXPECT_EQ('o', taken_.text[4]);
}

TEST_F(MsgBacklog, RoomThatIsNotUsedIsGivenOutAgain)
{
    ASSERT_NE(nullptr, backlog_.reserve());
    ASSERT_NE(nullptr, backlog_.reserve());
    EXPECT_EQ(0U, backlog_.take(&taken_));
    ASSERT_TRUE(put(5, 16));
    EXPECT_EQ(16U, backlog_.take(&taken_));
    EXPECT_EQ(5U, taken_.tag);
}

TEST_F(MsgBacklog, TakesNoMoreMemoryThanItMay)
{
    for (const std::size_t length : {MSG_HEADER_BYTES, MSG_RECORD_BYTES}) {
        std::size_t kept = 0;
        while (put(static_cast<std::uint32_t>(kept), length))
            ++kept;
        EXPECT_LE(kept * length, TMsgBacklog::LIMIT_BYTES);
        EXPECT_GT(kept * (length + 64), TMsgBacklog::LIMIT_BYTES - 3 * MSG_RECORD_BYTES) << "records of " << length;
        EXPECT_EQ(nullptr, backlog_.reserve());
        ASSERT_EQ(length, backlog_.take(&taken_));
        EXPECT_EQ(0U, taken_.tag);
        backlog_.clear();
        EXPECT_NE(nullptr, backlog_.reserve());
    }
}

} // namespace
