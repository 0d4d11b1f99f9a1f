#include "commands/forwarding.h"

#include <cstring>
#include <deque>
#include <gmock/gmock.h>
#include <memory>
#include <mutex>
#include <vector>

#include "common/milestone.h"
#include "framework/fixed_text.h"
#include "tests/commands/command_test_bench.h"
#include "tests/commands/fake_clock.h"
#include "tests/commands/send_hook.h"
#include "tests/support/lock_probe.h"

using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

class Forwarding : public testing::Test {
protected:
    Forwarding()
    {
        bench.outMsg.kind = MSG_TEXT;
        bench.outMsg.tag = 0xBB01'0000;
        bench.outLen = static_cast<std::int32_t>(MSG_HEADER_BYTES + putText(bench.outMsg.text, "X\n") + 1);
    }

    int forward(const char* unit, const char* process, std::uint32_t portType = PORT_IPC, std::uint32_t entryTag = 0)
    {
        CommandAddress address{};
        putText(address.unitAddr, unit);
        putText(address.procAddr, process);
        return forwardCmd(bench.context, progress, address, portType, entryTag);
    }

    CommandTestBench bench;
    CmdProgress progress;
};

} // namespace

TEST_F(Forwarding, FailsWithoutAnyRegisteredProcess)
{
    EXPECT_EQ(forward("*", "*"), 1);
}

TEST_F(Forwarding, SendsTheRecordAsItWasPrepared)
{
    const QueueProcess encoder(bench.directory, 2001);
    bench.registerProcess(2001, PORT_IPC, "ENC");
    EXPECT_EQ(forward("s3", "ENC", PORT_IPC, 0x0005'0007), 0);
    const auto received = encoder.receive();
    ASSERT_TRUE(received);
    EXPECT_EQ(received->record.kind, 101U);
    EXPECT_EQ(received->record.tag, 0xBB01'0000U | 0x0005'0007U);
    EXPECT_EQ(received->length, 19U);
    EXPECT_EQ(received->textBytes(), std::string_view("X\n\0", 3));
}

TEST_F(Forwarding, ReachesWhomTheAddressAndThePortAdmit)
{
    struct Row {
        const char* behaviour;
        const char* unit;
        const char* process;
        std::uint32_t portType;
        std::vector<std::string> reached;
    };
    // ENC takes all ports, Motor takes IPC only, GPSD takes XCP and IPC.
    const Row rows[] = {
        {"by name", "s3", "ENC", PORT_IPC, {"ENC"}},
        {"by name in other letters", "s3", "enc", PORT_IPC, {"ENC"}},
        {"by name in other letters the other way round", "s3", "MOTOR", PORT_IPC, {"Motor"}},
        {"by name on any unit", "*", "ENC", PORT_IPC, {"ENC"}},
        {"by name on this unit in other letters", "S3", "ENC", PORT_IPC, {"ENC"}},
        {"nobody on another unit", "t1", "ENC", PORT_IPC, {}},
        {"nobody on a unit that begins alike", "s33", "ENC", PORT_IPC, {}},
        {"nobody on an empty unit", "", "ENC", PORT_IPC, {}},
        {"nobody of an unknown name", "s3", "NONE", PORT_IPC, {}},
        {"nobody of a name that begins alike", "s3", "EN", PORT_IPC, {}},
        {"nobody of an empty name", "*", "", PORT_IPC, {}},
        {"all but GPSD by the wildcard", "*", "*", PORT_IPC, {"ENC", "Motor"}},
        {"all but GPSD by the wildcard on this unit", "s3", "*", PORT_IPC, {"ENC", "Motor"}},
        {"nobody by the wildcard on another unit", "t1", "*", PORT_IPC, {}},
        {"who takes that port by the wildcard", "*", "*", PORT_XCP, {"ENC"}},
        {"who takes COM2 by the wildcard", "*", "*", PORT_COM2, {"ENC"}},
        {"GPSD by its name", "*", "GPSD", PORT_IPC, {"GPSD"}},
        {"GPSD by its name in other letters", "s3", "gpsd", PORT_XCP, {"GPSD"}},
        {"nobody whose mask leaves the port out", "s3", "Motor", PORT_XCP, {}},
        {"nobody whose mask leaves telnet out", "s3", "GPSD", PORT_TELNET, {}},
        {"all but GPSD by a delayed wildcard, whatever their masks", "*", "*", PORT_DELAYED, {"ENC", "Motor"}},
        {"GPSD by its name, delayed", "s3", "GPSD", PORT_DELAYED, {"GPSD"}},
    };
    const QueueProcess encoder(bench.directory, 2001);
    const QueueProcess motor(bench.directory, 2002);
    const QueueProcess gps(bench.directory, 2003);
    bench.registerProcess(2001, PORT_COM2 | PORT_TELNET | PORT_XCP | PORT_IPC, "ENC");
    bench.registerProcess(2002, PORT_IPC, "Motor");
    bench.registerProcess(2003, PORT_XCP | PORT_IPC, "GPSD");
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        EXPECT_EQ(forward(row.unit, row.process, row.portType), row.reached.empty() ? 1 : 0);
        std::vector<std::string> reached;
        for (const auto& [process, name] : {std::pair(&encoder, "ENC"), {&motor, "Motor"}, {&gps, "GPSD"}})
            for (std::size_t n = process->receiveAll().size(); n > 0; --n)
                reached.emplace_back(name);
        EXPECT_THAT(reached, ElementsAreArray(row.reached));
    }
}

TEST_F(Forwarding, ReachesAProcessWithAnEmptyNameByAnEmptyName)
{
    const QueueProcess nameless(bench.directory, 2001);
    bench.registerProcess(2001, PORT_IPC, "");
    EXPECT_EQ(forward("*", ""), 0);
    EXPECT_EQ(nameless.receiveAll().size(), 1U);
}

TEST_F(Forwarding, GivesEveryProcessOfOneNameACopy)
{
    const QueueProcess first(bench.directory, 2001);
    const QueueProcess second(bench.directory, 2002);
    bench.registerProcess(2001, PORT_IPC, "ENC");
    bench.registerProcess(2002, PORT_IPC, "enc");
    EXPECT_EQ(forward("s3", "ENC"), 0);
    EXPECT_THAT(first.receiveTexts(), ElementsAre("X\n"));
    EXPECT_THAT(second.receiveTexts(), ElementsAre("X\n"));
}

TEST_F(Forwarding, GoesOnAfterASendThatFails)
{
    const QueueProcess second(bench.directory, 2002);
    bench.registerProcess(2001, PORT_IPC, "GONE");
    bench.registerProcess(2002, PORT_IPC, "ENC");
    EXPECT_EQ(forward("*", "*"), 0) << "the last send decides";
    EXPECT_THAT(second.receiveTexts(), ElementsAre("X\n"));
}

TEST_F(Forwarding, FailsWhenTheLastSendFails)
{
    const QueueProcess first(bench.directory, 2001);
    bench.registerProcess(2001, PORT_IPC, "ENC");
    bench.registerProcess(2002, PORT_IPC, "GONE");
    EXPECT_EQ(forward("*", "*"), 1);
    EXPECT_THAT(first.receiveTexts(), ElementsAre("X\n"));
}

TEST_F(Forwarding, FailsAtOnceForAProcessThatDied)
{
    QueueProcess dead(bench.directory, 2001);
    dead.die();
    bench.registerProcess(2001, PORT_IPC, "ENC");
    EXPECT_EQ(forward("s3", "ENC"), 1);
}

TEST_F(Forwarding, LeavesTheTagAloneWhenNobodyMatches)
{
    bench.registerProcess(2001, PORT_IPC, "ENC");
    EXPECT_EQ(forward("s3", "NONE", PORT_IPC, 7), 1);
    EXPECT_EQ(bench.outMsg.tag, 0xBB01'0000U);
}

TEST_F(Forwarding, ErasesNullEntries)
{
    const QueueProcess encoder(bench.directory, 2001);
    bench.regProcs = {nullptr, nullptr};
    bench.registerProcess(2001, PORT_IPC, "ENC");
    bench.regProcs.push_back(nullptr);
    EXPECT_EQ(forward("s3", "ENC"), 0);
    ASSERT_EQ(bench.regProcs.size(), 1U);
    EXPECT_THAT(encoder.receiveTexts(), ElementsAre("X\n"));
}

TEST_F(Forwarding, HoldsTheLockOfTheRegistryWhileItSends)
{
    const QueueProcess first(bench.directory, 2001);
    const QueueProcess second(bench.directory, 2002);
    bench.registerProcess(2001, PORT_IPC, "ENC");
    bench.registerProcess(2002, PORT_IPC, "ENC");
    std::vector<std::unique_ptr<LockProbe<std::mutex>>> probes;
    std::vector<bool> free;
    std::vector<std::int32_t> milestones;
    {
        const SendHook hook([&] {
            milestones.push_back(g_milestone);
            probes.push_back(std::make_unique<LockProbe<std::mutex>>(bench.regLock));
            free.push_back(probes.back()->takenWithin(std::chrono::milliseconds(50)));
        });
        EXPECT_EQ(forward("s3", "ENC"), 0);
    }
    EXPECT_THAT(free, ElementsAre(false, false));
    EXPECT_THAT(milestones, ElementsAre(32, 32));
    for (const auto& probe : probes)
        EXPECT_TRUE(probe->takenWithin(DEADLINE)) << "and no longer";
}

TEST_F(Forwarding, LeavesTheLockFreeAndTheNumberOfItsProgress)
{
    EXPECT_EQ(forward("s3", "ENC"), 1);
    EXPECT_EQ(g_milestone.load(), 33);
    EXPECT_TRUE(bench.regLock.try_lock());
    bench.regLock.unlock();
}

// --- full queues

TEST_F(Forwarding, WaitsAtAFullQueueAndGoesOnThere)
{
    const QueueProcess first(bench.directory, 2001);
    const QueueProcess second(bench.directory, 2002);
    const QueueProcess third(bench.directory, 2003);
    bench.registerProcess(2001, PORT_IPC, "ENC");
    bench.registerProcess(2002, PORT_IPC, "ENC");
    bench.registerProcess(2003, PORT_IPC, "ENC");
    const StoppedTime time;
    CommandTestBench::fill(2002);
    ASSERT_EQ(forward("s3", "ENC"), FORWARD_WAITS);
    EXPECT_EQ(g_milestone.load(), 33);
    EXPECT_THAT(first.receiveTexts(), ElementsAre("X\n"));
    EXPECT_THAT(third.receiveTexts(), ElementsAre()) << "in the order of the list";
    EXPECT_EQ(goOnForwarding(bench.context, progress), FORWARD_WAITS) << "nothing has been taken";

    bench.regProcs.front()->procId = 2099; // what changes meanwhile is for the next command
    bench.regProcs.back()->procId = 2099;
    (void)second.receive();
    ASSERT_TRUE(bench.fullQueues.mayTry(progress.queueWaiter, bench.look()));
    EXPECT_EQ(goOnForwarding(bench.context, progress), 0);
    EXPECT_THAT(first.receiveTexts(), ElementsAre()) << "once only";
    EXPECT_THAT(CommandTestBench::forwardedTo(second), ElementsAre("X\n"));
    EXPECT_THAT(third.receiveTexts(), ElementsAre("X\n"));
    EXPECT_EQ(progress.queueWaiter.address, 0);
}

TEST_F(Forwarding, LetsTheLastSendDecideAlsoAfterAWait)
{
    struct Row {
        const char* behaviour;
        bool takes[2]; ///< the queues, one after the other, before they are stuck
        int result;
    };
    const Row rows[] = {
        {"both take it", {true, true}, 0},
        {"the last one takes it", {false, true}, 0},
        {"the last one is stuck", {true, false}, 1},
        {"both are stuck", {false, false}, 1},
    };
    long address = 3001; // each process has one of its own, so that none is known to be stuck
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        bench.clearRegistry();
        std::deque<QueueProcess> processes;
        StoppedTime time;
        for (int i = 0; i < 2; ++i) {
            processes.emplace_back(bench.directory, address);
            bench.registerProcess(address, PORT_IPC, "ENC");
            CommandTestBench::fill(address++);
        }
        int result = forward("s3", "ENC");
        for (std::size_t i = 0; i < 2; ++i) {
            ASSERT_EQ(result, FORWARD_WAITS) << "at queue " << i;
            if (row.takes[i])
                (void)processes[i].receive();
            else
                time.pass(FullQueues::PATIENCE);
            result = goOnForwarding(bench.context, progress);
        }
        EXPECT_EQ(result, row.result);
    }
}
