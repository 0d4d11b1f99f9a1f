#include <cstring>
#include <gmock/gmock.h>

#include "common/milestone.h"
#include "tests/daemon/daemon_test_bench.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class Registry : public testing::Test {
protected:
    RegisterResult registerAs(long sender, const Outgoing& request)
    {
        bench.peer.inMsg() = request.record;
        bench.peer.inMsg().sender = static_cast<std::int32_t>(sender);
        return bench.peer.registerProc();
    }

    UnregisterResult unregisterAs(long sender)
    {
        bench.peer.inMsg() = {};
        bench.peer.inMsg().sender = static_cast<std::int32_t>(sender);
        return bench.peer.unregisterProc();
    }

    /// The registry as "NAME PROCID MASK", in order.
    std::vector<std::string> entries()
    {
        std::vector<std::string> all;
        for (const TRegisteredProc* proc : bench.peer.regProcs())
            all.push_back(proc == nullptr
                              ? "null"
                              : proc->name + " " + std::to_string(proc->procId) + " " + std::to_string(proc->portMask));
        return all;
    }

    DaemonTestBench bench;
};

} // namespace

TEST_F(Registry, TakesProcessesInOrder)
{
    EXPECT_EQ(registerAs(2001, registration(8, "ENC")), RegisterResult::done);
    EXPECT_EQ(g_milestone.load(), 25);
    EXPECT_EQ(registerAs(2002, registration(15, "GPSD")), RegisterResult::done);
    EXPECT_THAT(entries(), ElementsAre("ENC 2001 8", "GPSD 2002 15"));
}

TEST_F(Registry, TakesAnyMaskButZero)
{
    EXPECT_EQ(registerAs(2001, registration(0, "ENC")), RegisterResult::nothingEnabled);
    EXPECT_EQ(g_milestone.load(), 24) << "an early return leaves the entry number";
    EXPECT_EQ(registerAs(2001, registration(0x8000'0000, "ENC")), RegisterResult::done);
    EXPECT_EQ(registerAs(2002, registration(0xFFFF'FFFF, "ALL")), RegisterResult::done);
    EXPECT_THAT(entries(), ElementsAre("ENC 2001 2147483648", "ALL 2002 4294967295"));
}

TEST_F(Registry, LeavesARegisteredProcessAloneWhenItAsksForNothing)
{
    registerAs(2001, registration(8, "ENC"));
    EXPECT_EQ(registerAs(2002, registration(0, "ENC")), RegisterResult::nothingEnabled);
    EXPECT_THAT(entries(), ElementsAre("ENC 2001 8"));
}

TEST_F(Registry, MovesANameThatRegistersAgainToItsNewSenderAndMask)
{
    registerAs(2001, registration(8, "ENC"));
    registerAs(2002, registration(8, "MOT"));
    EXPECT_EQ(registerAs(2003, registration(4, "ENC")), RegisterResult::done);
    EXPECT_EQ(g_milestone.load(), 24) << "only an appended record leaves the exit number";
    EXPECT_THAT(entries(), ElementsAre("ENC 2003 4", "MOT 2002 8"));
}

TEST_F(Registry, TellsNamesApartByCase)
{
    registerAs(2001, registration(8, "ENC"));
    registerAs(2002, registration(8, "enc"));
    EXPECT_THAT(entries(), ElementsAre("ENC 2001 8", "enc 2002 8"));
}

TEST_F(Registry, TakesSeveralNamesOfOneSender)
{
    registerAs(2001, registration(8, "A"));
    registerAs(2001, registration(8, "B"));
    EXPECT_THAT(entries(), ElementsAre("A 2001 8", "B 2001 8"));
}

TEST_F(Registry, Holds32ProcessesAndRefusesThe33rd)
{
    for (int i = 0; i < 32; ++i)
        ASSERT_EQ(registerAs(2000 + i, registration(8, "P" + std::to_string(i))), RegisterResult::done) << i;
    EXPECT_EQ(registerAs(3000, registration(8, "P32")), RegisterResult::listFull);
    EXPECT_EQ(bench.peer.regProcs().size(), 32U);
    EXPECT_EQ(registerAs(3000, registration(8, "P31")), RegisterResult::done)
        << "a name that is there already always succeeds";
    EXPECT_EQ(unregisterAs(2000), UnregisterResult::done);
    EXPECT_EQ(registerAs(3001, registration(8, "P32")), RegisterResult::done);
    EXPECT_EQ(bench.peer.regProcs().size(), 32U);
}

TEST_F(Registry, GoesOnCountingForWhoeverRegistersAgainAtOnce)
{
    struct Row {
        const char* what;
        long sender;
        const char* name;
        long between; ///< who unregisters, too, before that
        bool goesOn;
    };
    const Row rows[] = {
        {"it registers again", 2001, "ENC", 0, true},
        {"another process takes the name", 2002, "ENC", 0, false},
        {"it takes another name", 2001, "DEC", 0, false},
        {"another has unregistered meanwhile", 2001, "ENC", 2003, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        registerAs(2003, registration(8, "OTHER"));
        registerAs(2001, registration(8, "ENC"));
        bench.peer.regProcs().back()->sent.set(7);
        bench.peer.regProcs().back()->answered.set(3);
        unregisterAs(2001);
        if (row.between != 0) unregisterAs(row.between);
        registerAs(row.sender, registration(8, row.name));
        EXPECT_EQ(bench.peer.regProcs().back()->sent.value(), row.goesOn ? 7U : 0U);
        EXPECT_EQ(bench.peer.regProcs().back()->answered.value(), row.goesOn ? 3U : 0U);
        unregisterAs(row.sender);
    }
}

TEST_F(Registry, TakesANameThatEndsWithTheRecord)
{
    const std::string longest(MSG_TEXT_BYTES - 4, 'n');
    EXPECT_EQ(registerAs(2001, registration(8, longest, false)), RegisterResult::done);
    ASSERT_EQ(bench.peer.regProcs().size(), 1U);
    EXPECT_EQ(bench.peer.regProcs()[0]->name, longest);
    EXPECT_EQ(registerAs(2002, registration(8, longest + "more", false)), RegisterResult::done)
        << "cut to the same name";
    EXPECT_EQ(bench.peer.regProcs().size(), 1U);
    EXPECT_EQ(bench.peer.regProcs()[0]->procId, 2002);
}

TEST_F(Registry, EndsANameAtItsNul)
{
    Outgoing request = registration(8, "ENC");
    std::memcpy(request.record.text + 8, "left over", 10);
    EXPECT_EQ(registerAs(2001, request), RegisterResult::done);
    EXPECT_THAT(entries(), ElementsAre("ENC 2001 8"));
}

TEST_F(Registry, TakesTheEmptyNameAndAnySender)
{
    EXPECT_EQ(registerAs(0, registration(8, "")), RegisterResult::done);
    EXPECT_EQ(registerAs(-5, registration(8, "NEG")), RegisterResult::done);
    EXPECT_THAT(entries(), ElementsAre(" 0 8", "NEG -5 8"));
}

TEST_F(Registry, RemovesTheFirstProcessOfTheSender)
{
    EXPECT_EQ(unregisterAs(2001), UnregisterResult::listEmpty) << "the list is empty";
    EXPECT_EQ(g_milestone.load(), 26);
    registerAs(2001, registration(8, "A"));
    registerAs(2002, registration(8, "B"));
    registerAs(2001, registration(8, "C"));
    EXPECT_EQ(unregisterAs(2003), UnregisterResult::notFound);
    EXPECT_EQ(unregisterAs(2001), UnregisterResult::done);
    EXPECT_EQ(g_milestone.load(), 27);
    EXPECT_THAT(entries(), ElementsAre("B 2002 8", "C 2001 8"));
    EXPECT_EQ(unregisterAs(2001), UnregisterResult::done);
    EXPECT_EQ(unregisterAs(2002), UnregisterResult::done);
    EXPECT_EQ(unregisterAs(2002), UnregisterResult::listEmpty);
    EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(Registry, ErasesNullEntriesOnItsWalks)
{
    bench.peer.regProcs() = {nullptr};
    bench.registerProcess(2001, 8, "A");
    bench.peer.regProcs().push_back(nullptr);
    EXPECT_EQ(registerAs(2002, registration(8, "B")), RegisterResult::done);
    EXPECT_THAT(entries(), ElementsAre("A 2001 8", "B 2002 8"));
    bench.peer.regProcs().insert(bench.peer.regProcs().begin(), nullptr);
    EXPECT_EQ(unregisterAs(2002), UnregisterResult::done);
    EXPECT_THAT(entries(), ElementsAre("A 2001 8"));
}

TEST_F(Registry, IsClearedWhole)
{
    registerAs(2001, registration(8, "A"));
    bench.peer.regProcs().push_back(nullptr);
    bench.peer.clearRegistry();
    EXPECT_EQ(g_milestone.load(), 23);
    EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(Registry, LeavesItsLockFree)
{
    registerAs(2001, registration(8, "A"));
    registerAs(2001, registration(0, "A"));
    unregisterAs(2009);
    EXPECT_TRUE(LockProbe(bench.peer.regLock()).takenWithin(DEADLINE));
}
