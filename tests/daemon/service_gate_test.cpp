#include "daemon/service_gate.h"

#include <gtest/gtest.h>
#include <thread>

#include "tests/support/waiting.h"

namespace {

const int daemonA = 0;
const int daemonB = 0;

bool admits(ServiceGate& gate, const void* daemon)
{
    const ServiceGate::Stay stay(gate, daemon);
    return static_cast<bool>(stay);
}

} // namespace

TEST(ServiceGate, AdmitsNobodyUntilItIsOpen)
{
    ServiceGate gate;
    EXPECT_FALSE(admits(gate, &daemonA));
}

TEST(ServiceGate, AdmitsTheThreadOfTheDaemonItIsOpenFor)
{
    ServiceGate gate;
    gate.open(&daemonA);
    EXPECT_TRUE(admits(gate, &daemonA));
    EXPECT_TRUE(admits(gate, &daemonA)) << "as often as it comes";
    EXPECT_FALSE(admits(gate, &daemonB));
}

TEST(ServiceGate, KeepsEverybodyOutOnceClosed)
{
    ServiceGate gate;
    gate.open(&daemonA);
    EXPECT_TRUE(gate.close(DEADLINE));
    EXPECT_FALSE(admits(gate, &daemonA));
}

TEST(ServiceGate, KeepsTheThreadOfAnEarlierDaemonOutWhenItIsOpenForAnother)
{
    ServiceGate gate;
    gate.open(&daemonA);
    EXPECT_TRUE(gate.close(DEADLINE));
    gate.open(&daemonB);
    EXPECT_FALSE(admits(gate, &daemonA));
    EXPECT_TRUE(admits(gate, &daemonB));
}

TEST(ServiceGate, ClosesOnlyWhenNobodyIsInside)
{
    for (int round = 0; round < 50; ++round) {
        ServiceGate gate;
        gate.open(&daemonA);
        std::atomic<bool> inside{false};
        std::atomic<bool> closing{false};
        std::atomic<bool> left{false};
        std::thread service([&] {
            const ServiceGate::Stay stay(gate, &daemonA);
            inside = true;
            while (!closing)
                std::this_thread::yield();
            std::this_thread::sleep_for(std::chrono::milliseconds(1)); // gives close() the chance to be wrong
            left = true;
        });
        ASSERT_TRUE(waitUntil([&] { return inside.load(); }));
        closing = true;
        EXPECT_TRUE(gate.close(DEADLINE));
        EXPECT_TRUE(left);
        EXPECT_FALSE(admits(gate, &daemonA));
        service.join();
    }
}

TEST(ServiceGate, IsClosedButSaysSoWhenSomebodyStaysInside)
{
    ServiceGate gate;
    gate.open(&daemonA);
    std::atomic<bool> inside{false};
    std::atomic<bool> mayLeave{false};
    std::thread service([&] {
        const ServiceGate::Stay stay(gate, &daemonA);
        inside = true;
        (void)waitUntil([&] { return mayLeave.load(); });
    });
    ASSERT_TRUE(waitUntil([&] { return inside.load(); }));
    EXPECT_FALSE(gate.close(std::chrono::seconds(1)));
    mayLeave = true;
    service.join();
    EXPECT_FALSE(admits(gate, &daemonA));
}
