#include <filesystem>

#include "framework/msg_dmn.h"
#include "tests/framework/queue_test.h"

namespace {

class TQuietDaemon : public TMsgDmn {
public:
    TQuietDaemon() : TMsgDmn(1001, true) {}
    int run() override { return 0; }
};

class MsgProc : public TQueueTest {};

TEST_F(MsgProc, HoldsItsQueueForAsLongAsItLives)
{
    {
        TQuietDaemon daemon;
        EXPECT_EQ(daemon.queueId(), 1001);
        EXPECT_TRUE(std::filesystem::is_socket(pathOf(1001)));
        EXPECT_EQ(daemon.run(), 0);
    }
    EXPECT_FALSE(std::filesystem::exists(pathOf(1001)));
    const TQuietDaemon again;
    EXPECT_TRUE(std::filesystem::is_socket(pathOf(1001)));
}

TEST_F(MsgProc, WithoutAQueueItOnlySends)
{
    const TQuietProc proc(1005, false);
    EXPECT_EQ(proc.queueId(), 1005);
    EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
    TOrbAttachmentMsg msg{};
    EXPECT_LT(g_qMgr.getMsg(&msg, MSG_QUEUE_ALL, false), 0);
}

TEST_F(MsgProc, ThrowsWhatItLogged)
{
    const TQuietDaemon first;
    try {
        const TQuietDaemon second;
        FAIL() << "no error";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "queue address 1001 is in use");
    }
    EXPECT_THAT(log_.text(), testing::HasSubstr(" 250001 queue address 1001 is in use\n"));
    EXPECT_TRUE(std::filesystem::is_socket(pathOf(1001))) << "the first one keeps its queue";
}

} // namespace
