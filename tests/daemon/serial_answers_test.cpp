// Writes to a serial line that does not take everything at once, and their answers.
#include <gmock/gmock.h>

#include "framework/tess_messages.h"
#include "tests/daemon/daemon_test_bench.h"
#include "tests/support/private_mounts.h"
#include "tests/support/pty_line.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::size_t MOST = 8175; // of a text with its NUL in a record
const LogLine dropped{250007, "COM2 output dropped"};

/// A daemon with a serial line, which is a pseudo-terminal that a test reads or does not.
class SerialAnswers : public testing::Test {
protected:
    void SetUp() override
    {
        if (!privateMountsProblem().empty()) GTEST_SKIP() << privateMountsProblem();
        far.plugInto(COM2_DEVICE);
        line = far.open();
        ASSERT_TRUE(PtyLine::makePlain(line));
        serial().makeSerial();
        other();
    }

    ~SerialAnswers() override
    {
        if (line >= 0) ::close(line);
    }

    FakeConn& serial()
    {
        static const std::uint32_t id = 0x0056'0000;
        if (serialConn == nullptr) serialConn = &bench.addConn(1, id);
        serialConn->due = NEVER;
        return *serialConn;
    }
    FakeConn& other()
    {
        if (otherConn == nullptr) otherConn = &bench.addConn(8, 0xBB01'0000);
        return *otherConn;
    }

    /// Writes until the line takes no more, for good: the kernel moves what it has taken on in its
    /// own time.
    std::size_t fillLine() const
    {
        std::size_t all = 0;
        const int writer = ::open(far.path().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        for (int refusals = 0; refusals < 20;) {
            if (::write(writer, "f", 1) == 1) {
                ++all;
                refusals = 0;
            } else {
                ++refusals;
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
        ::close(writer);
        return all;
    }

    void ask(std::uint32_t tag, const std::string& text)
    {
        bench.serve(process, message(MSG_COM2_WRITE, text, tag, static_cast<std::int32_t>(text.size())));
    }

    /// Serves until an answer has come; at once when one is there.
    std::string nextAnswer()
    {
        std::vector<Received> answers;
        waitUntil([&] {
            bench.peer.serve(std::chrono::milliseconds(10));
            bench.serveQueue();
            if (kept.empty()) kept = process.receiveAll();
            return !kept.empty();
        });
        if (kept.empty()) return "none";
        const Received answer = kept.front();
        kept.erase(kept.begin());
        EXPECT_EQ(answer.record.kind, 102U);
        EXPECT_EQ(answer.length, 16U);
        return std::to_string(answer.record.tag) + ":" + std::to_string(answer.record.len);
    }

    std::vector<std::string> answersNow()
    {
        std::vector<std::string> all;
        for (const Received& answer : process.receiveAll())
            all.push_back(std::to_string(answer.record.tag) + ":" + std::to_string(answer.record.len));
        return all;
    }

    DaemonTestBench bench;
    QueueProcess process{bench.directory, 2001};
    PtyLine far;
    int line = -1;
    FakeConn* serialConn = nullptr;
    FakeConn* otherConn = nullptr;
    std::vector<Received> kept;
};

} // namespace

TEST_F(SerialAnswers, ComeAtOnceWhenTheLineTakesTheText)
{
    ask(7, "some");
    EXPECT_THAT(answersNow(), ElementsAre("7:0"));
    EXPECT_EQ(far.receive(4), "some");
    EXPECT_EQ(serial().mutes, 1);
    g_wakeUp.clear();
}

TEST_F(SerialAnswers, ComeLaterWhenTheLineTakesItLaterWhileOthersAreServed)
{
    const std::size_t filled = fillLine();
    ask(7, "first");
    ask(8, "second");
    EXPECT_THAT(answersNow(), IsEmpty());
    EXPECT_TRUE(isReadable(g_wakeUp.fd())) << "the service thread is to wait for room";
    bench.serve(process, message(MSG_REPLY, "X", 0xBB01'0000));
    EXPECT_THAT(other().written, ElementsAre("X"));
    bench.serve(process, registration(8, "ENC"));
    EXPECT_EQ(process.receiveAll().size(), 1U);

    std::string seen = far.receive(filled);
    EXPECT_EQ(nextAnswer(), "7:0");
    EXPECT_EQ(nextAnswer(), "8:0");
    seen += far.receive(11);
    EXPECT_EQ(seen.substr(filled), "firstsecond");
}

TEST_F(SerialAnswers, TellOfALineThatTakesNothing)
{
    fillLine();
    const Stopwatch watch;
    ask(7, "first");
    EXPECT_EQ(nextAnswer(), "7:1");
    EXPECT_GE(watch.ms(), 2000);
    EXPECT_THAT(bench.log.lines(), IsEmpty());
}

TEST_F(SerialAnswers, TellAtOnceOfATextThatFindsNoRoom)
{
    const std::size_t filled = fillLine();
    std::string expected;
    for (std::uint32_t tag = 0; tag < 8; ++tag) {
        expected += std::string(MOST, static_cast<char>('A' + tag));
        ask(tag, expected.substr(tag * MOST));
    }
    EXPECT_THAT(answersNow(), IsEmpty());
    ask(8, std::string(MOST, 'Z'));
    EXPECT_THAT(answersNow(), ElementsAre("8:1"));
    EXPECT_EQ(bench.log.count(dropped), 1);
    std::string seen;
    ASSERT_TRUE(waitUntil([&] {
        seen += far.received();
        bench.peer.serve(std::chrono::milliseconds(1));
        return seen.size() >= filled + expected.size();
    }));
    EXPECT_EQ(seen.size(), filled + expected.size());
    EXPECT_TRUE(seen.substr(filled) == expected) << "whole texts, in order";
    for (int tag = 0; tag < 8; ++tag)
        EXPECT_EQ(nextAnswer(), std::to_string(tag) + ":0");
}

TEST_F(SerialAnswers, TellOfAConnectionThatIsClosed)
{
    fillLine();
    ask(7, "first");
    ask(8, "second");
    bench.serve(process, message(MSG_CLOSE_ALL));
    EXPECT_EQ(nextAnswer(), "7:1");
    EXPECT_EQ(nextAnswer(), "8:1");
    const Received answer = [&] {
        ask(9, "third");
        return process.receiveAll().at(0);
    }();
    EXPECT_EQ(answer.record.len, 1) << "there is no serial line any more";
    EXPECT_EQ(answer.length, 16U + 5 + 1) << "so that the answer has the length received";
}

TEST_F(SerialAnswers, TellAlsoWhenTheDaemonEnds)
{
    fillLine();
    ask(7, "first");
    bench.endDaemon();
    EXPECT_THAT(answersNow(), ElementsAre("7:1"));
}
