#include "common/watch_feed.h"

#include <gmock/gmock.h>
#include <memory>

#include "framework/queue_mgr.h"
#include "framework/tess_messages.h"
#include "tests/support/allocation_count.h"
#include "tests/support/queue_process.h"
#include "tests/support/quiet_proc.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

class WatchFeedTest : public testing::Test {
protected:
    WatchFeedTest() { setListening(LISTENER_WATCHERS, false); }
    ~WatchFeedTest() override { setListening(LISTENER_WATCHERS, false); }

    /// Appends a line and sends it.
    void tell(std::string_view line)
    {
        feed->append(line);
        feed->flush();
    }

    TempQueueDir directory;
    QuietProc daemon{TESS_QUEUE_ID};
    QueueProcess watcher{directory, 2001};
    std::unique_ptr<WatchFeed> feed = std::make_unique<WatchFeed>();
};

} // namespace

TEST_F(WatchFeedTest, SendsLinesTogetherAndInOrder)
{
    feed->add(2001);
    feed->append("one");
    feed->append("two");
    feed->flush();
    tell("three");
    feed->flush();
    const auto records = watcher.receiveAll();
    ASSERT_THAT(records, SizeIs(2));
    EXPECT_EQ(records[0].record.kind, MSG_WATCH_TEXT);
    EXPECT_EQ(records[0].textBytes(), std::string("one\ntwo\n") + '\0');
    EXPECT_EQ(records[1].text(), "three\n");
}

TEST_F(WatchFeedTest, KeepsNothingForNobody)
{
    EXPECT_FALSE(someoneListens());
    tell("before");
    feed->add(2001);
    EXPECT_TRUE(someoneListens());
    tell("while");
    feed->append("not sent");
    feed->remove(2001);
    EXPECT_FALSE(someoneListens());
    feed->add(2001);
    tell("again");
    EXPECT_THAT(watcher.receiveTexts(), ElementsAre("while\n", "again\n"));
}

TEST_F(WatchFeedTest, SendsInPiecesOfWholeLines)
{
    feed->add(2001);
    const std::string line(3000, 'x');
    for (int i = 0; i < 5; ++i)
        feed->append(line);
    feed->flush();
    EXPECT_THAT(watcher.receiveTexts(), ElementsAre(line + "\n" + line + "\n", line + "\n" + line + "\n", line + "\n"));
}

TEST_F(WatchFeedTest, TellsWhatAFullQueueHasLost)
{
    feed->add(2001);
    int sent = 0;
    TOrbAttachmentMsg filler{.kind = 0, .sender = 0, .tag = 0, .len = 0, .text = {}};
    while (g_qMgr.sendMsg(2001, &filler, MSG_HEADER_BYTES, false) == SEND_DONE)
        ++sent;
    ASSERT_GT(sent, 0);
    feed->append("lost 1");
    tell("lost 2");
    tell("lost 3");
    EXPECT_EQ(feed->watchers(), 1U) << "it lives";
    EXPECT_THAT(watcher.receiveAll(), SizeIs(static_cast<std::size_t>(sent)));
    tell("kept");
    feed->flush();
    EXPECT_THAT(watcher.receiveTexts(), ElementsAre("lost records=2 lines=3\nkept\n"));
}

TEST_F(WatchFeedTest, TellsALossThoughNothingFollows)
{
    feed->add(2001);
    TOrbAttachmentMsg filler{.kind = 0, .sender = 0, .tag = 0, .len = 0, .text = {}};
    while (g_qMgr.sendMsg(2001, &filler, MSG_HEADER_BYTES, false) == SEND_DONE) {
    }
    tell("lost");
    feed->flush();
    (void)watcher.receiveAll();
    feed->flush();
    feed->flush();
    EXPECT_THAT(watcher.receiveTexts(), ElementsAre("lost records=1 lines=1\n"));
}

TEST_F(WatchFeedTest, CountsWhatItHadNoRoomFor)
{
    feed->add(2001);
    const std::string line(3999, 'x');
    for (int i = 0; i < 10; ++i)
        feed->append(line);
    feed->flush();
    const auto texts = watcher.receiveTexts();
    ASSERT_THAT(texts, SizeIs(4));
    EXPECT_EQ(texts[0].substr(0, 25), "lost records=0 lines=2\nxx") << "32768 bytes hold eight of ten";
}

TEST_F(WatchFeedTest, ForgetsAWatcherThatIsGone)
{
    const QueueProcess other(directory, 2002);
    feed->add(2001);
    feed->add(2002);
    watcher.die();
    tell("one");
    EXPECT_EQ(feed->watchers(), 1U);
    tell("two");
    EXPECT_THAT(other.receiveTexts(), ElementsAre("one\n", "two\n"));
}

TEST_F(WatchFeedTest, TakesSoManyWatchersAndEachOnce)
{
    for (long address = 3001; address <= 3008; ++address) {
        EXPECT_TRUE(feed->takes(address));
        feed->add(address);
        feed->add(address);
    }
    EXPECT_EQ(feed->watchers(), WatchFeed::MAX_WATCHERS);
    EXPECT_FALSE(feed->takes(3009));
    feed->add(3009);
    EXPECT_TRUE(feed->takes(3008)) << "who watches already";
    feed->remove(3009);
    EXPECT_EQ(feed->watchers(), WatchFeed::MAX_WATCHERS);
    feed->remove(3001);
    EXPECT_TRUE(feed->takes(3009));
}

TEST_F(WatchFeedTest, HasNoWatchersInACopyOfTheDaemon)
{
    feed->add(2001);
    feed->append("the original's");
    feed->startInCopy();
    EXPECT_FALSE(someoneListens());
    tell("the copy's");
    EXPECT_THAT(watcher.receiveAll(), IsEmpty());
}

TEST_F(WatchFeedTest, AllocatesNothing)
{
    const std::string line = "a line that is longer than what a short string holds";
    const unsigned before = allocationCount();
    feed->add(2001);
    tell(line);
    EXPECT_EQ(allocationCount(), before);
}
