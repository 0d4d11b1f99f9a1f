#include "framework/bundled/stuck_queues.h"

#include <gtest/gtest.h>

namespace {

TEST(StuckQueues, RemembersUntilRemoved)
{
    TStuckQueues stuck;
    EXPECT_FALSE(stuck.has(5));
    stuck.remove(5);
    stuck.add(5);
    stuck.add(6);
    stuck.add(5);
    EXPECT_TRUE(stuck.has(5));
    EXPECT_TRUE(stuck.has(6));
    EXPECT_FALSE(stuck.has(7));
    stuck.remove(5);
    EXPECT_FALSE(stuck.has(5));
    EXPECT_TRUE(stuck.has(6));
}

TEST(StuckQueues, ForgetsTheOldestWhenThereAreTooMany)
{
    TStuckQueues stuck;
    const auto capacity = static_cast<long>(TStuckQueues::CAPACITY);
    for (long address = 1; address <= capacity; ++address)
        stuck.add(address);
    for (long address = 1; address <= capacity; ++address)
        EXPECT_TRUE(stuck.has(address)) << address;
    stuck.add(capacity + 1);
    EXPECT_FALSE(stuck.has(1));
    for (long address = 2; address <= capacity + 1; ++address)
        EXPECT_TRUE(stuck.has(address)) << address;
}

} // namespace
