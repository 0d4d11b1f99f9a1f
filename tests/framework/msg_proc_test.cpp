#include <filesystem>

#include "framework/msg_dmn.h"
#include "tests/framework/queue_test.h"

namespace {

class QuietDaemon : public TMsgDmn {
public:
    QuietDaemon() : TMsgDmn(1001, true) {}
    int run() override { return 0; }
};

class MsgProc : public QueueTest {};

TEST_F(MsgProc, HoldsItsQueueForAsLongAsItLives)
{
    {
        QuietDaemon daemon;
        EXPECT_EQ(daemon.queueId(), 1001);
        EXPECT_TRUE(std::filesystem::is_socket(pathOf(1001)));
        EXPECT_EQ(daemon.run(), 0);
    }
    EXPECT_FALSE(std::filesystem::exists(pathOf(1001)));
    const QuietDaemon again;
    EXPECT_TRUE(std::filesystem::is_socket(pathOf(1001)));
}

TEST_F(MsgProc, WithoutAQueueItOnlySends)
{
    const QuietProc proc(1005, false);
    EXPECT_EQ(proc.queueId(), 1005);
    EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
    TOrbAttachmentMsg msg{};
    EXPECT_LT(g_qMgr.getMsg(&msg, MSG_QUEUE_ALL, false), 0);
}

TEST_F(MsgProc, ThrowsWhatItLogged)
{
    const QuietDaemon first;
    try {
        const QuietDaemon second;
        FAIL() << "no error";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "queue address 1001 is in use");
    }
    EXPECT_THAT(log_.text(), testing::HasSubstr(" 250001 queue address 1001 is in use\n"));
    EXPECT_TRUE(std::filesystem::is_socket(pathOf(1001))) << "the first one keeps its queue";
}

} // namespace
