#include <cstring>
#include <gmock/gmock.h>

#include "common/listeners.h"
#include "common/watch_feed.h"
#include "framework/tess_messages.h"
#include "tests/daemon/daemon_test_bench.h"
#include "tests/support/allocation_count.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

class Seeing : public testing::Test {
protected:
    ~Seeing() override
    {
        g_watch.remove(2001);
        setListening(LISTENER_WATCHERS, false);
    }

    /// The text of the state, which one record must hold.
    std::string status()
    {
        bench.serve(process, message(MSG_STATUS, "", 7));
        const auto records = process.receiveAll();
        EXPECT_THAT(records, SizeIs(1));
        if (records.size() != 1) return {};
        EXPECT_EQ(records[0].record.kind, MSG_STATUS_TEXT);
        EXPECT_EQ(records[0].record.tag, 7U);
        EXPECT_EQ(records[0].record.len, 0);
        return std::string(records[0].text());
    }

    DaemonTestBench bench;
    QueueProcess process{bench.directory, 2001};
};

} // namespace

TEST_F(Seeing, TellsWhatAConnectionWaitsFor)
{
    struct Row {
        const char* waits;
        std::int32_t loginState;
        LoginOwes owes;
        CmdProgress::Wait wait;
    };
    using Wait = CmdProgress::Wait;
    const Row rows[] = {
        {"", LOGIN_DONE, LoginOwes::nothing, Wait::nothing},
        {"queue 1500", LOGIN_DONE, LoginOwes::nothing, Wait::room},
        {"re-initialising", LOGIN_DONE, LoginOwes::nothing, Wait::reInit},
        {"user name", LOGIN_NEW, LoginOwes::nothing, Wait::nothing},
        {"user name", LOGIN_WAIT_NAME, LoginOwes::nothing, Wait::nothing},
        {"password", LOGIN_WAIT_PASSWORD, LoginOwes::nothing, Wait::nothing},
        {"password check", LOGIN_WAIT_PASSWORD, LoginOwes::verdict, Wait::nothing},
    };
    FakeConn& conn = bench.addConn(PORT_TELNET, 0xAA01'0000);
    for (const Row& row : rows) {
        conn.loginState = row.loginState;
        conn.login.owes = row.owes;
        conn.progress.wait = row.wait;
        conn.progress.queueWaiter.address = row.wait == Wait::room ? 1500 : 0;
        EXPECT_THAT(status(), HasSubstr(std::string(" waits=\"") + row.waits + "\"\n"));
    }
    conn.progress.queueWaiter.address = 0;
}

TEST_F(Seeing, PassesOverWhatIsNoLongerThere)
{
    bench.peer.conns().push_back(nullptr);
    bench.peer.regProcs().push_back(nullptr);
    bench.peer.ports().push_back(nullptr);
    EXPECT_THAT(status(), Not(HasSubstr("port name")));
}

TEST_F(Seeing, LivesOnWhereThereIsNoMemoryForAnAnswer)
{
    for (const Outgoing& request : {message(MSG_STATUS), message(MSG_WATCH, "\x01"), message(MSG_STOP)})
        ASSERT_TRUE(process.send(TESS_QUEUE_ID, request.record, request.length));
    {
        const NoMemory noMemory(NoMemory::EVERYBODY);
        (void)bench.tess->run(); // always 0
    }
    EXPECT_THAT(process.receiveAll(), IsEmpty());
    EXPECT_THAT(status(), HasSubstr("daemon "));
}

TEST_F(Seeing, TakesAnyOtherFirstByteForTheWishToWatchNoLonger)
{
    for (const std::string wish : {"\x01", "\x02", "\x01more", "", "1"}) {
        bench.serve(process, message(MSG_WATCH, wish, 9));
        const bool watches = wish.starts_with('\x01');
        EXPECT_THAT(process.receiveTexts(), ElementsAre(watches ? "watch on=1\n" : "watch on=0\n"));
        EXPECT_EQ(g_watch.watchers(), watches ? 1U : 0U);
    }
}

TEST_F(Seeing, LeavesTheAnswerToTheNextMessageAlone)
{
    bench.serve(process, registration(0, "ENC"));
    (void)process.receiveAll();
    const TOrbAttachmentMsg before = bench.peer.replyMsg();
    (void)status();
    EXPECT_EQ(std::memcmp(&before, &bench.peer.replyMsg(), sizeof before), 0);
}
