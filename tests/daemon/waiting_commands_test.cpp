// Commands for processes whose queue is full: who waits, and who does not.
#include <gmock/gmock.h>

#include "tests/daemon/daemon_test_bench.h"
#include "tests/daemon/undisturbed.h"
#include "tests/support/waiting.h"

using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

constexpr std::size_t QUEUE_DEPTH = 11; // at the kernel's default
constexpr std::chrono::milliseconds SHORT{10};

/// A daemon with a process ENC whose queue is full.
struct FullBench : DaemonTestBench {
    FullBench()
    {
        registerProcess(2001, 15, "ENC");
        const QueueProcess sender(directory, 2002);
        const Outgoing fill = message(MSG_TEXT, "fill");
        for (std::size_t i = 0; i < QUEUE_DEPTH; ++i)
            if (!sender.send(2001, fill.record, fill.length)) std::abort();
    }

    FakeConn& addAsker(std::uint32_t id, const char* name, std::vector<std::string> lines)
    {
        FakeConn& conn = addConn(8, id << 16, name);
        conn.willRead(std::move(lines));
        return conn;
    }

    /// Serves until the process has got everything that anybody waited to send it.
    /// @return what came behind that which had filled the queue
    std::vector<std::string> drain(std::size_t expected)
    {
        std::vector<std::string> all;
        waitUntil([&] {
            for (std::string& text : encoder.receiveTexts())
                all.push_back(std::move(text));
            peer.serve(SHORT);
            return all.size() >= QUEUE_DEPTH + expected;
        });
        peer.serve();
        for (std::string& text : encoder.receiveTexts())
            all.push_back(std::move(text));
        all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(std::min(all.size(), QUEUE_DEPTH)));
        return all;
    }

    QueueProcess encoder{directory, 2001};
};

} // namespace

TEST(WaitingCommand, HoldsItsConnectionAndNobodyElse)
{
    EXPECT_THAT(undisturbed([] {
                    FullBench bench;
                    FakeConn& a = bench.addAsker(1, "a", {"A1", "A2", "*"});
                    a.willRead({"A3"});
                    FakeConn& b = bench.addAsker(2, "b", {"*"});
                    b.willRead({"s3.NONE X"});
                    bench.peer.serve();
                    bench.peer.serve();
                    bench.events.insert(bench.events.end(), b.written.begin(), b.written.end());
                    bench.events.push_back(std::to_string(a.written.size()) + " answers to a");
                    return bench.events;
                }),
                ElementsAre("a read", "b read", "b read", "0\r\n\r\n", "?\r\n", "0 answers to a"));
}

TEST(WaitingCommand, GoesOnWhereItWasWhenThereIsRoom)
{
    EXPECT_THAT(undisturbed([] {
                    FullBench bench;
                    FakeConn& a = bench.addAsker(1, "a", {"A1|A2", "*", "A3"});
                    a.willRead({"A4"});
                    bench.peer.serve();
                    auto seen = bench.drain(4);
                    seen.insert(seen.end(), a.written.begin(), a.written.end());
                    return seen;
                }),
                ElementsAre("A1\n", "A2\n", "A3\n", "A4\n", "0\r\n\r\n"));
}

TEST(WaitingCommand, IsTriedOnlyWhenThereIsRoom)
{
    EXPECT_THAT(undisturbed([] {
                    FullBench bench;
                    bench.addAsker(1, "a", {"A1"});
                    bench.peer.serve();
                    bench.peer.conns()[0]->due = NEVER;
                    WaitSet waits;
                    bench.peer.collectConns(waits);
                    bench.peer.serviceQueues(WaitSet(), waits);
                    waits.wait(std::chrono::milliseconds(1));
                    bench.peer.servicePass(waits);
                    Events seen{std::to_string(bench.peer.conns()[0]->progress.waits())};
                    (void)bench.encoder.receive();
                    bench.peer.servicePass(waits); // which was before there was room
                    seen.push_back(std::to_string(bench.peer.conns()[0]->progress.waits()));
                    bench.peer.serve(DEADLINE);
                    seen.push_back(std::to_string(bench.peer.conns()[0]->progress.waits()));
                    return seen;
                }),
                ElementsAre("1", "1", "0"));
}

TEST(WaitingCommand, IsAnsweredWhenTheQueueHasTakenNothingForTooLong)
{
    FullBench bench;
    const FakeConn& a = bench.addAsker(1, "a", {"A1", "A2", "s3.ENC A3", "*"});
    const FakeConn& b = bench.addAsker(2, "b", {"B1", "*"});
    const Stopwatch watch;
    ASSERT_TRUE(waitUntil([&] {
        bench.peer.serve(SHORT);
        return a.written.size() + b.written.size() >= 6;
    }));
    EXPECT_GE(watch.ms(), 250);
    EXPECT_THAT(a.written, ElementsAre("?\r\n", "?\r\n", "?\r\n", "0\r\n\r\n")) << "the first one waits for all";
    EXPECT_THAT(b.written, ElementsAre("?\r\n", "0\r\n\r\n"));
    EXPECT_THAT(bench.encoder.receiveTexts(), Each(std::string("fill")));
    bench.addAsker(3, "c", {"C1"});
    bench.peer.serve();
    EXPECT_THAT(bench.encoder.receiveTexts(), ElementsAre("C1\n")) << "it has room again";
}

TEST(WaitingCommand, TakesItsTurnAmongOthers)
{
    EXPECT_THAT(undisturbed([] {
                    FullBench bench;
                    bench.addAsker(1, "a", {"A1", "A2", "A3"});
                    bench.addAsker(2, "b", {"B1", "B2", "B3"});
                    bench.addAsker(3, "c", {"C1"});
                    bench.peer.serve();
                    std::vector<std::string> all;
                    waitUntil([&] { // one place at a time
                        if (auto one = bench.encoder.receive()) all.emplace_back(one->text());
                        for (int i = 0; i < 3; ++i)
                            bench.peer.serve();
                        return all.size() == QUEUE_DEPTH + 7;
                    });
                    all.erase(all.begin(), all.begin() + QUEUE_DEPTH);
                    return all;
                }),
                ElementsAre("A1\n", "B1\n", "C1\n", "A2\n", "B2\n", "A3\n", "B3\n"));
}

TEST(WaitingCommand, GoesTogetherWithTheOthersOfItsReadWhereThereIsRoom)
{
    EXPECT_THAT(undisturbed([] {
                    FullBench bench;
                    bench.addAsker(1, "a", {"A1", "A2", "A3"});
                    bench.addAsker(2, "b", {"B1", "B2|B3"});
                    bench.addAsker(3, "c", {"C1"});
                    bench.peer.serve();
                    return bench.drain(7);
                }),
                ElementsAre("A1\n", "A2\n", "A3\n", "B1\n", "B2\n", "B3\n", "C1\n"));
}

TEST(WaitingCommand, WaitsForOneProcessWhileAnotherGetsItsOwn)
{
    EXPECT_THAT(undisturbed([] {
                    FullBench bench;
                    const QueueProcess motor(bench.directory, 2003);
                    bench.registerProcess(2003, 15, "MOT");
                    bench.addAsker(1, "a", {"s3.ENC A1", "s3.MOT A2"});
                    bench.addAsker(2, "b", {"s3.MOT B1"});
                    bench.peer.serve();
                    auto seen = motor.receiveTexts();
                    for (const auto& text : bench.drain(1))
                        seen.push_back(text);
                    for (const auto& text : motor.receiveTexts())
                        seen.push_back(text);
                    return seen;
                }),
                ElementsAre("B1\n", "A1\n", "A2\n"));
}

TEST(WaitingCommand, GoesWithItsConnection)
{
    struct Row {
        const char* behaviour;
        std::uint32_t kind;
        std::uint32_t portType;
    };
    for (const Row& row : {Row{"all are closed", MSG_CLOSE_ALL, 8}, Row{"telnet is closed", MSG_CLOSE_TELNET, 2}}) {
        SCOPED_TRACE(row.behaviour);
        FullBench bench;
        const QueueProcess process(bench.directory, 2003);
        bench.addConn(row.portType, 1 << 16, "a").willRead({"A1"});
        bench.addConn(4, 2 << 16, "b");
        bench.addConn(row.portType, 3 << 16, "c").willRead({"C1"});
        bench.peer.serve();
        bench.serve(process, message(row.kind));
        EXPECT_EQ(bench.peer.conns().size(), row.kind == MSG_CLOSE_ALL ? 0U : 1U);
        bench.peer.serve();
        EXPECT_THAT(bench.encoder.receiveTexts(), Each(std::string("fill")));
        bench.peer.serve();
        EXPECT_THAT(bench.encoder.receiveTexts(), IsEmpty());
        bench.addAsker(3, "d", {"D1"});
        bench.peer.serve();
        EXPECT_THAT(bench.encoder.receiveTexts(), ElementsAre("D1\n"));
    }
}

TEST(WaitingCommand, LeavesItsPlaceToTheNextWhenItsConnectionGoes)
{
    EXPECT_THAT(undisturbed([] {
                    FullBench bench;
                    bench.addAsker(1, "a", {"A1"});
                    bench.addAsker(2, "b", {"B1"});
                    bench.peer.serve();
                    (void)bench.peer.removeConn(0);
                    return bench.drain(1);
                }),
                ElementsAre("B1\n"));
}

TEST(WaitingCommand, KeepsItsConnectionFromTheLinesThatAnotherLeavesWhenItQuits)
{
    EXPECT_THAT(undisturbed([] {
                    FullBench bench;
                    bench.addPort(2);
                    const FakeConn& a = bench.addAsker(1, "a", {"A1", "*", "*", "*"});
                    bench.addConn(2, 2 << 16, "b").willRead({"quit", "B1", "B2"});
                    bench.addConn(8, 3 << 16, "c");
                    bench.peer.serve();
                    auto seen = bench.events;
                    for (const auto& text : bench.drain(1))
                        seen.push_back(text);
                    seen.push_back(std::to_string(a.written.size()) + " answers to a");
                    return seen;
                }),
                ElementsAre("a read", "b read", "b gone", "c read", "A1\n", "3 answers to a"));
}

TEST(WaitingCommand, OfTheDelayQueueWaitsTheSameWay)
{
    EXPECT_THAT(undisturbed([] {
                    FullBench bench;
                    bench.peer.delayQueues().add(0, "D1");
                    bench.peer.delayQueues().add(1, "D2");
                    const FakeConn& a = bench.addAsker(1, "a", {"*"});
                    bench.peer.serve();
                    bench.peer.serve();
                    auto seen = a.written;
                    for (const auto& text : bench.drain(2))
                        seen.push_back(text);
                    return seen;
                }),
                ElementsAre("0\r\n\r\n", "D1\n", "D2\n"));
}

// --- answers of the message loop

namespace {

/// Serial writes without a serial line, each of which is answered with its tag.
std::vector<std::string> askedFor(DaemonTestBench& bench, const QueueProcess& process, std::uint32_t count)
{
    std::vector<std::string> expected;
    for (std::uint32_t i = 0; i < count; ++i) {
        bench.serve(process, message(MSG_COM2_WRITE, "", i));
        expected.push_back(std::to_string(i));
    }
    return expected;
}

std::vector<std::string> tagsOf(const std::vector<Received>& answers)
{
    std::vector<std::string> tags;
    for (const Received& answer : answers)
        tags.push_back(std::to_string(answer.record.tag));
    return tags;
}

} // namespace

TEST(WaitingAnswer, ComesInOrderWhenThereIsRoom)
{
    constexpr std::uint32_t COUNT = 20;
    std::vector<std::string> expected;
    const auto received = undisturbed([&] {
        DaemonTestBench bench;
        const QueueProcess process(bench.directory, 2001);
        expected = askedFor(bench, process, COUNT);
        std::vector<std::string> seen;
        waitUntil([&] {
            for (std::string& tag : tagsOf(process.receiveAll()))
                seen.push_back(std::move(tag));
            bench.peer.serve(SHORT);
            return seen.size() >= COUNT;
        });
        return seen;
    });
    EXPECT_THAT(received, ElementsAreArray(expected));
}

TEST(WaitingAnswer, ComesAlsoWithoutAnyPort)
{
    EXPECT_THAT(undisturbed([&] {
                    DaemonTestBench bench;
                    const QueueProcess process(bench.directory, 2001);
                    askedFor(bench, process, QUEUE_DEPTH + 1);
                    if (bench.tess->startService() != 0) std::abort();
                    std::vector<std::string> seen;
                    waitUntil(
                        [&] {
                            for (std::string& tag : tagsOf(process.receiveAll()))
                                seen.push_back(std::move(tag));
                            return seen.size() > QUEUE_DEPTH;
                        },
                        std::chrono::seconds(1));
                    bench.tess->requestStop();
                    return Events{seen.empty() ? "nothing" : seen.back()};
                }),
                ElementsAre(std::to_string(QUEUE_DEPTH)));
}

TEST(WaitingAnswer, IsLostWhenTheQueueTakesNothingForTooLong)
{
    DaemonTestBench bench;
    const QueueProcess process(bench.directory, 2001);
    askedFor(bench, process, QUEUE_DEPTH + 3);
    const Stopwatch watch;
    while (watch.ms() < 300)
        bench.peer.serve(SHORT);
    bench.peer.serve(SHORT); // the last one of a slow machine may have begun too early
    EXPECT_EQ(process.receiveAll().size(), QUEUE_DEPTH);
    bench.peer.serve();
    EXPECT_THAT(process.receiveAll(), IsEmpty());
    const auto expected = askedFor(bench, process, 1);
    EXPECT_THAT(tagsOf(process.receiveAll()), ElementsAreArray(expected));
}

TEST(WaitingAnswer, OfOneProcessLosesNoneOfAnother)
{
    EXPECT_THAT(undisturbed([&] {
                    DaemonTestBench bench;
                    const QueueProcess stuck(bench.directory, 2001);
                    const QueueProcess other(bench.directory, 2002);
                    askedFor(bench, stuck, QUEUE_DEPTH + 64 + 10);
                    askedFor(bench, other, 2);
                    return tagsOf(other.receiveAll());
                }),
                ElementsAre("0", "1"));
}
