#include "connections/serial_line.h"

#include <atomic>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>

#include "connections/waiting.h"
#include "tests/support/private_mounts.h"
#include "tests/support/pty_line.h"
#include "tests/support/readable.h"
#include "tests/support/waiting.h"

namespace {

class SerialLine : public testing::Test {
protected:
    void SetUp() override
    {
        if (!privateMountsProblem().empty()) GTEST_SKIP() << privateMountsProblem();
        g_endWaits = false;
        far = std::make_unique<PtyLine>();
        line = far->open();
        ASSERT_GE(line, 0);
        ASSERT_TRUE(PtyLine::makePlain(line));
        ASSERT_EQ(::fcntl(line, F_SETFL, O_NONBLOCK), 0);
    }
    void TearDown() override
    {
        g_endWaits = false;
        if (line >= 0) ::close(line);
    }

    bool write(const std::string& bytes) const { return writeToLine(line, bytes.data(), bytes.size()); }

    /// Writes pieces until one does not get through, in a thread of its own: one that blocks does not block the test.
    /// @return how long that one took in milliseconds; negative when it did not come back
    double fillLine(std::size_t pieceBytes, char byte = 'x')
    {
        std::atomic<bool> done{false};
        double lastMs = 0;
        std::thread filling([&] {
            const std::string piece(pieceBytes, byte);
            for (bool written = true; written;) {
                const Stopwatch watch;
                written = writeToLine(line, piece.data(), piece.size());
                lastMs = watch.ms();
            }
            done = true;
        });
        const bool ended = waitUntil([&] { return done.load(); }, std::chrono::seconds(10));
        if (!ended) far->hangUp(); // wakes it
        filling.join();
        return ended ? lastMs : -1;
    }

    std::unique_ptr<PtyLine> far;
    int line = -1;
};

} // namespace

TEST_F(SerialLine, WritesEveryByteAsItIs)
{
    for (const std::size_t count : {0U, 1U, 255U, 256U, 257U, 3000U}) {
        std::string bytes;
        for (std::size_t i = 0; i < count; ++i)
            bytes += static_cast<char>(i * 7);
        EXPECT_TRUE(write(bytes)) << count;
        EXPECT_EQ(readable(far->receive(count)), readable(bytes));
    }
    EXPECT_EQ(far->received(), "");
}

TEST_F(SerialLine, WaitsForASlowLine)
{
    const std::string bytes(200'000, 'x'); // far more than the kernel holds
    std::string arrived;
    std::thread reading([&] { arrived = far->receive(bytes.size()); });
    EXPECT_TRUE(write(bytes));
    reading.join();
    EXPECT_EQ(arrived, bytes);
}

TEST_F(SerialLine, GivesUpWhenTheLineTakesNothingForTwoSeconds)
{
    for (const std::size_t pieceBytes : {256U, 100U, 7U, 1000U}) {
        const double lastMs = fillLine(pieceBytes);
        EXPECT_GE(lastMs, 1900) << "pieces of " << pieceBytes;
        EXPECT_LT(lastMs, atMost(4000)) << "pieces of " << pieceBytes;
        if (lastMs < 0) return;
        far->received();
    }
}

TEST_F(SerialLine, GivesUpOnAFullLineWithTabsToo)
{
    ASSERT_TRUE(PtyLine::makePlain(line, OPOST));
    for (const std::size_t pieceBytes : {256U, 100U, 7U}) {
        const double lastMs = fillLine(pieceBytes, '\t');
        EXPECT_GE(lastMs, 1900) << "pieces of " << pieceBytes;
        EXPECT_LT(lastMs, atMost(4000)) << "pieces of " << pieceBytes;
        if (lastMs < 0) return;
        far->received();
    }
}

TEST_F(SerialLine, GivesUpSoonWhenTheDaemonIsToStop)
{
    g_endWaits = true;
    EXPECT_TRUE(write("OK\r\n")) << "a line that takes it needs no wait";
    EXPECT_EQ(far->receive(4), "OK\r\n");
    const double lastMs = fillLine(256);
    EXPECT_GE(lastMs, 0);
    EXPECT_LT(lastMs, atMost(1000));
}

TEST_F(SerialLine, FailsOnALineThatHasHungUp)
{
    far->hangUp();
    EXPECT_FALSE(write("OK\r\n"));
}

TEST_F(SerialLine, FailsOnADescriptorThatIsNotOpenOrNotWritable)
{
    EXPECT_FALSE(writeToLine(1'000'000, "OK", 2));
    const int readOnly = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_FALSE(writeToLine(readOnly, "OK", 2));
    ::close(readOnly);
}
