#include "connections/line_output.h"

#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <memory>
#include <string>
#include <sys/eventfd.h>
#include <vector>

#include "common/wait_set.h"
#include "tests/support/allocation_count.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_mounts.h"
#include "tests/support/pty_line.h"
#include "tests/support/readable.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using Sent = LineOutput::Sent;
using std::chrono::milliseconds;

namespace {

const LogLine dropped{250007, "COM2 output dropped"};

/// A report as it is compared: "ASKER TAG written", or "... failed".
std::string shown(const LineOutput::Report& report)
{
    return std::to_string(report.ticket.asker) + " " + std::to_string(report.ticket.tag) +
           (report.written ? " written" : " failed");
}

std::size_t openDescriptors()
{
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

bool isOpen(int fd)
{
    return ::fcntl(fd, F_GETFD) != -1;
}

class LineOutputTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (!privateMountsProblem().empty()) GTEST_SKIP() << privateMountsProblem();
        far = std::make_unique<PtyLine>();
        line = open();
        ASSERT_GE(line, 0);
        ASSERT_TRUE(PtyLine::makePlain(line));
    }
    void TearDown() override
    {
        if (line >= 0) ::close(line);
    }

    /// The line, opened once more.
    int open() const
    {
        const int fd = far->open();
        EXPECT_EQ(::fcntl(fd, F_SETFL, O_NONBLOCK), 0);
        return fd;
    }

    /// From here on the line takes nothing, as after a Ctrl-S of the far end.
    void stopLine() const { EXPECT_EQ(::tcflow(line, TCOOFF), 0); }
    void startLine() const { EXPECT_EQ(::tcflow(line, TCOON), 0); }

    Sent report(const std::string& text, std::int32_t asker = 2001, std::uint32_t tag = 7)
    {
        return out.writeReported(Fd(open()), text, {asker, tag});
    }

    std::vector<std::string> reports()
    {
        std::vector<std::string> all;
        for (const LineOutput::Report& report : out.takeReports())
            all.push_back(shown(report));
        return all;
    }

    /// Waits for the line as the service loop does, until `fact()` holds.
    /// @return how often goOn() was called
    unsigned serve(const std::function<bool()>& fact)
    {
        unsigned calls = 0;
        waitUntil([&] {
            WaitSet set;
            const int fd = out.waitsFor();
            const Instant due = out.due();
            set.addOutput(fd);
            set.addDue(due);
            set.wait(milliseconds(1));
            if (set.hasRoom(fd) || set.isDue(due)) {
                out.goOn(set.now());
                ++calls;
            }
            return fact();
        });
        return calls;
    }

    bool isIdle() const { return out.waitsFor() == -1 && out.due() == NEVER; }

    /// What arrives at the far end while the loop serves the line, until that is so much.
    std::string serveAndReceive(std::size_t bytes)
    {
        std::string all;
        serve([&] {
            all += far->received();
            return all.size() >= bytes;
        });
        return all + far->received();
    }

    std::unique_ptr<PtyLine> far;
    int line = -1;
    LineOutput out;
};

} // namespace

TEST_F(LineOutputTest, SendsWhatTheLineTakesAtOnceWithoutAllocating)
{
    for (const std::size_t count : {0U, 1U, 255U, 256U, 257U, 3000U}) {
        std::string bytes;
        for (std::size_t i = 0; i < count; ++i)
            bytes += static_cast<char>(i * 7);
        const int once = open();
        const unsigned before = allocationCount();
        EXPECT_EQ(out.write(line, bytes), Sent::whole) << count;
        EXPECT_EQ(out.writeReported(Fd(once), bytes, {2001, 7}), Sent::whole) << count;
        EXPECT_EQ(allocationCount(), before) << count;
        EXPECT_FALSE(isOpen(once));
        EXPECT_EQ(readable(far->receive(2 * count)), readable(bytes + bytes));
    }
    EXPECT_TRUE(isIdle());
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(LineOutputTest, KeepsWhatTheLineDoesNotTakeAndSendsItInOrder)
{
    std::string sent;
    for (int i = 0; sent.size() < 60'000; ++i) {
        const std::string text = std::to_string(i) + std::string(static_cast<std::size_t>(i * 37 % 900), 'x') + "\r\n";
        ASSERT_NE(i % 3 == 0 ? report(text) : out.write(line, text), Sent::refused);
        sent += text;
    }
    EXPECT_EQ(serveAndReceive(sent.size()), sent);
    EXPECT_TRUE(isIdle());
    for (const std::string& text : reports())
        EXPECT_EQ(text, "2001 7 written");
}

TEST_F(LineOutputTest, SendsMoreThanItKeepsAsLongAsTheLineTakesIt)
{
    std::string sent;
    std::string arrived;
    const LogCapture log;
    for (int i = 0; i < 100; ++i) {
        const std::string text(8000, static_cast<char>('a' + i % 26));
        ASSERT_NE(out.write(line, text), Sent::refused);
        sent += text;
        serve([&] {
            arrived += far->received();
            return out.waitsFor() == -1 && out.due() == NEVER;
        });
    }
    arrived += far->receive(sent.size() - arrived.size());
    EXPECT_TRUE(arrived == sent) << arrived.size() << " of " << sent.size() << " bytes, or others";
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(LineOutputTest, RefusesATextThatDoesNotFitWholeAndLogsThat)
{
    stopLine();
    const LogCapture log;
    EXPECT_EQ(out.write(line, std::string(LineOutput::CAPACITY + 1, 'x')), Sent::refused)
        << "even when nothing is kept";
    EXPECT_EQ(log.count(dropped), 1);
    EXPECT_EQ(out.write(line, std::string(LineOutput::CAPACITY - 3, 'x')), Sent::kept);
    EXPECT_EQ(out.write(line, "four"), Sent::refused);
    EXPECT_EQ(log.count(dropped), 2);
    EXPECT_EQ(report("four"), Sent::refused);
    EXPECT_EQ(log.count(dropped), 3);
    EXPECT_EQ(out.write(line, "end"), Sent::kept) << "what fits is kept all the same";
    EXPECT_EQ(out.write(line, "x"), Sent::refused);
    EXPECT_EQ(out.write(line, ""), Sent::whole);
    EXPECT_EQ(log.lines().size(), 4U);
    startLine();
    const std::string all = serveAndReceive(LineOutput::CAPACITY);
    EXPECT_EQ(all.size(), LineOutput::CAPACITY);
    EXPECT_EQ(all.substr(LineOutput::CAPACITY - 4), "xend");
    EXPECT_EQ(out.write(line, "again"), Sent::whole);
    EXPECT_THAT(reports(), IsEmpty()) << "a refused text is not reported";
}

TEST_F(LineOutputTest, KeepsAsManyBytesInSmallTexts)
{
    stopLine();
    const LogCapture log;
    for (std::size_t i = 0; i < LineOutput::CAPACITY; ++i)
        ASSERT_EQ(out.write(line, "x"), Sent::kept) << i;
    EXPECT_EQ(out.write(line, "x"), Sent::refused);
    EXPECT_THAT(log.lines(), ElementsAre(dropped));
    startLine();
    EXPECT_EQ(serveAndReceive(LineOutput::CAPACITY).size(), LineOutput::CAPACITY);
}

TEST_F(LineOutputTest, WaitsForRoomOnly)
{
    stopLine();
    EXPECT_EQ(out.write(line, "A"), Sent::kept);
    EXPECT_EQ(out.waitsFor(), line);
    EXPECT_EQ(out.due(), NEVER);
    WaitSet set;
    set.addOutput(line);
    set.wait(milliseconds(0));
    EXPECT_FALSE(set.hasRoom(line));
    startLine();
    EXPECT_EQ(serveAndReceive(1), "A");
}

TEST_F(LineOutputTest, ReportsAKeptTextWhenItIsWhole)
{
    stopLine();
    EXPECT_EQ(report("first ", 2001, 1), Sent::kept);
    EXPECT_EQ(out.write(line, "plain "), Sent::kept);
    EXPECT_EQ(report("second", 2002, 2), Sent::kept);
    EXPECT_THAT(reports(), IsEmpty());
    startLine();
    EXPECT_EQ(serveAndReceive(18), "first plain second");
    EXPECT_THAT(reports(), ElementsAre("2001 1 written", "2002 2 written"));
    EXPECT_THAT(reports(), IsEmpty()) << "once";
}

TEST_F(LineOutputTest, FailsAReportedTextWhenTheLineHasTakenNothingForTwoSeconds)
{
    stopLine();
    EXPECT_EQ(out.write(line, "plain "), Sent::kept);
    const Instant before = instantNow();
    EXPECT_EQ(report("reported "), Sent::kept);
    const Instant due = out.due();
    EXPECT_GE(due, before + std::chrono::seconds(2));
    EXPECT_LE(due, instantNow() + std::chrono::seconds(2));
    EXPECT_EQ(out.write(line, "and so on"), Sent::kept);

    out.goOn(due - milliseconds(200));
    out.goOn(due - milliseconds(100)); // ends the pause
    EXPECT_THAT(reports(), IsEmpty()) << "too early";
    out.goOn(due);
    EXPECT_THAT(reports(), ElementsAre("2001 7 failed"));
    startLine();
    out.goOn(out.due()); // ends the pause
    EXPECT_EQ(serveAndReceive(15), "plain and so on") << "the others are kept";
}

TEST_F(LineOutputTest, GivesEveryReportedTextItsOwnTwoSeconds)
{
    stopLine();
    EXPECT_EQ(report("A", 1), Sent::kept);
    const Instant first = out.due();
    ASSERT_TRUE(waitUntil([&] { return instantNow() > first - LineOutput::PATIENCE + milliseconds(60); }));
    EXPECT_EQ(report("B", 2), Sent::kept);
    out.goOn(first);
    EXPECT_THAT(reports(), ElementsAre("1 7 failed"));
    out.goOn(out.due()); // ends the pause
    const Instant second = out.due();
    EXPECT_GE(second, first + milliseconds(60));
    out.goOn(second);
    EXPECT_THAT(reports(), ElementsAre("2 7 failed"));
    EXPECT_TRUE(isIdle());
    out.goOn(instantNow());
    EXPECT_TRUE(isIdle()) << "a call too many does no harm";
}

TEST_F(LineOutputTest, FailsNoTextWhileTheLineTakesSomething)
{
    const std::string text(60'000, 'x'); // more than the line takes before somebody reads
    EXPECT_EQ(report(text), Sent::kept);
    std::size_t taken = far->received().size();
    ASSERT_GT(taken, 0U);
    for (int i = 1; i < 3; ++i) {
        const Instant later = instantNow() + i * std::chrono::seconds(100);
        serve([&] {
            taken += far->received().size();
            WaitSet set;
            set.addOutput(line);
            set.wait(milliseconds(0));
            return set.hasRoom(line) || isIdle();
        });
        if (isIdle()) break; // a line that takes all of it: nothing to see here
        out.goOn(later);
        if (out.due() == NEVER) break;
        EXPECT_EQ(out.due(), later + LineOutput::PATIENCE) << "counted from the last bytes that were taken";
    }
    EXPECT_EQ(taken + serveAndReceive(text.size() - taken).size(), text.size());
    EXPECT_THAT(reports(), ElementsAre("2001 7 written"));
}

TEST_F(LineOutputTest, DropsTheRestOfATextThatFailedAlthoughPartOfItHasGone)
{
    const std::string text(60'000, 'x');
    EXPECT_EQ(report(text), Sent::kept);
    EXPECT_EQ(out.write(line, "END"), Sent::kept);
    stopLine();
    out.goOn(out.due());
    EXPECT_THAT(reports(), ElementsAre("2001 7 failed"));
    startLine();
    out.goOn(out.due()); // ends the pause
    std::string arrived;
    serve([&] {
        arrived += far->received();
        return arrived.ends_with("END");
    });
    EXPECT_GT(arrived.size(), 3U);
    EXPECT_LT(arrived.size(), text.size());
    EXPECT_EQ(arrived, std::string(arrived.size() - 3, 'x') + "END");
}

TEST_F(LineOutputTest, HoldsOneDescriptorForAllReportedTexts)
{
    stopLine();
    const std::size_t before = openDescriptors();
    std::vector<std::string> written;
    for (std::uint32_t i = 0; i < 50; ++i) {
        EXPECT_EQ(report("x", 2001, i), Sent::kept);
        EXPECT_EQ(openDescriptors(), before + 1);
        written.push_back("2001 " + std::to_string(i) + " written");
    }
    EXPECT_EQ(out.writeReported(Fd(), "x", {2001, 50}), Sent::refused) << "though another text has one";
    startLine();
    EXPECT_EQ(serveAndReceive(50), std::string(50, 'x'));
    EXPECT_THAT(reports(), ElementsAreArray(written));
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(LineOutputTest, ClosesTheDescriptorOfAReportedTextWhateverBecomesOfIt)
{
    const std::size_t before = openDescriptors();
    stopLine();
    EXPECT_EQ(report("failed"), Sent::kept);
    out.goOn(out.due());
    EXPECT_EQ(openDescriptors(), before) << "failed";
    {
        LineOutput other;
        EXPECT_EQ(other.writeReported(Fd(open()), "left", {1, 1}), Sent::kept);
        EXPECT_EQ(openDescriptors(), before + 1);
    }
    EXPECT_EQ(openDescriptors(), before) << "at the end of the object";
    EXPECT_EQ(out.write(line, std::string(LineOutput::CAPACITY, 'x')), Sent::kept);
    const LogCapture log;
    const std::size_t withLog = openDescriptors();
    EXPECT_EQ(report("refused"), Sent::refused);
    EXPECT_EQ(openDescriptors(), withLog) << "refused";
}

TEST_F(LineOutputTest, EndsEverythingWhenItIsToFail)
{
    stopLine();
    const std::size_t before = openDescriptors();
    out.write(line, "plain");
    report("A", 1);
    report("B", 2);
    out.goOn(instantNow()); // a pause
    out.fail();
    EXPECT_TRUE(isIdle());
    EXPECT_THAT(reports(), ElementsAre("1 7 failed", "2 7 failed"));
    EXPECT_EQ(openDescriptors(), before);
    startLine();
    EXPECT_EQ(out.write(line, "new"), Sent::whole);
    EXPECT_EQ(far->receive(3), "new");
}

TEST_F(LineOutputTest, PausesWhenTheLineTakesNothingThoughItHasReportedRoom)
{
    stopLine();
    EXPECT_EQ(out.write(line, "A"), Sent::kept);
    const Instant now = instantNow();
    out.goOn(now);
    EXPECT_EQ(out.waitsFor(), -1);
    EXPECT_EQ(out.due(), now + milliseconds(50));
    startLine();
    out.goOn(now + milliseconds(49));
    EXPECT_EQ(far->received(), "") << "not yet";
    EXPECT_EQ(out.waitsFor(), -1);
    out.goOn(now + milliseconds(50));
    EXPECT_EQ(out.waitsFor(), line) << "it is the line's turn again";
    EXPECT_EQ(out.due(), NEVER);
    EXPECT_EQ(serveAndReceive(1), "A");
}

TEST_F(LineOutputTest, DoesNotSpinOnALineThatReportsRoomAndTakesNothing)
{
    // Such is an event counter that has room for 1 when it is given 2 (eventfd(2)); such is a
    // terminal at a tab.
    const int counter = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    const std::uint64_t nearlyFull = 0xFFFF'FFFF'FFFF'FFFD;
    const std::uint64_t two = 2;
    ASSERT_EQ(::write(counter, &nearlyFull, sizeof nearlyFull), 8);
    EXPECT_EQ(out.write(counter, {reinterpret_cast<const char*>(&two), sizeof two}), Sent::kept);
    const Instant begin = instantNow();
    const unsigned calls = serve([&] { return instantNow() > begin + milliseconds(200); });
    const auto pauses = (instantNow() - begin) / LineOutput::RETRY_TIME + 1;
    EXPECT_GE(calls, 2U) << "it is tried again";
    EXPECT_LE(calls, static_cast<unsigned>(2 * pauses)) << "a try, and the end of its pause";
    std::uint64_t count = 0;
    ASSERT_EQ(::read(counter, &count, sizeof count), 8);
    serve([this] { return isIdle(); });
    ASSERT_EQ(::read(counter, &count, sizeof count), 8) << "then it takes it";
    EXPECT_EQ(count, two);
    ::close(counter);
}

TEST_F(LineOutputTest, DropsEverythingWhenTheLineHasHungUp)
{
    stopLine();
    EXPECT_EQ(out.write(line, "plain"), Sent::kept);
    EXPECT_EQ(report("reported"), Sent::kept);
    const LogCapture log;
    far->hangUp();
    EXPECT_LE(serve([this] { return isIdle(); }), 1U) << "one look is enough";
    EXPECT_TRUE(isIdle());
    EXPECT_THAT(reports(), ElementsAre("2001 7 failed"));
    EXPECT_EQ(out.write(line, "more"), Sent::refused);
    EXPECT_TRUE(isIdle());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(LineOutputTest, RefusesSilentlyWhatIsNoLine)
{
    const LogCapture log;
    const int readOnly = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (const int fd : {-1, 1'000'000, readOnly})
        EXPECT_EQ(out.write(fd, "OK"), Sent::refused) << fd;
    EXPECT_EQ(out.writeReported(Fd(), "OK", {1, 1}), Sent::refused);
    EXPECT_EQ(out.writeReported(Fd(readOnly), "OK", {1, 1}), Sent::refused);
    EXPECT_FALSE(isOpen(readOnly));
    stopLine();
    EXPECT_EQ(out.write(line, "kept"), Sent::kept);
    EXPECT_EQ(out.write(-1, "OK"), Sent::refused) << "though something is on its way";
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(LineOutputTest, GoesOnWithTheNextTextWhenOneLineIsGone)
{
    stopLine();
    const int gone = open();
    EXPECT_EQ(out.write(gone, "lost"), Sent::kept);
    EXPECT_EQ(report("sent"), Sent::kept);
    ::close(gone);
    startLine();
    out.goOn(instantNow());
    EXPECT_EQ(far->receive(4), "sent");
    EXPECT_THAT(reports(), ElementsAre("2001 7 written"));
}
