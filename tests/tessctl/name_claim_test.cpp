#include "tools/tessctl/name_claim.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

/// Locks of two open files exclude each other also in one process.
class NameClaimTest : public testing::Test {
protected:
    void SetUp() override { ::setenv("TESS_QUEUE_DIR", "/tmp", 1); }
    void TearDown() override { ::unsetenv("TESS_QUEUE_DIR"); }
};

} // namespace

TEST_F(NameClaimTest, TellsOthersOfTheSameName)
{
    const NameClaim one("ENC");
    const NameClaim two("ENC");
    const NameClaim other("enc");
    EXPECT_FALSE(two.taken());
    one.hold(false);
    EXPECT_TRUE(two.taken());
    EXPECT_FALSE(two.takenOver());
    EXPECT_FALSE(one.taken()) << "one's own claim does not count";
    EXPECT_FALSE(other.taken());
}

TEST_F(NameClaimTest, TellsThatANameWasTakenOver)
{
    const NameClaim server("ENC");
    server.hold(false);
    {
        const NameClaim taker("ENC");
        taker.hold(true);
        EXPECT_TRUE(server.takenOver());
        EXPECT_TRUE(server.taken());
        EXPECT_FALSE(taker.takenOver());
    }
    EXPECT_FALSE(server.takenOver());
    EXPECT_FALSE(server.taken());
}

TEST_F(NameClaimTest, EndsWhenItIsReleased)
{
    NameClaim one("ENC");
    const NameClaim two("ENC");
    one.hold(false);
    one.release();
    EXPECT_FALSE(two.taken());
}

TEST_F(NameClaimTest, KnowsNothingWithoutADirectory)
{
    ::setenv("TESS_QUEUE_DIR", "/nowhere", 1);
    const NameClaim one("ENC");
    one.hold(true);
    EXPECT_FALSE(one.taken());
    EXPECT_FALSE(one.takenOver());
}
