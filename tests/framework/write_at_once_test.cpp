#include "framework/bundled/write_at_once.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <sys/ioctl.h>
#include <thread>
#include <vector>

#include "tests/framework/child_process.h"
#include "tests/framework/fake_system.h"
#include "tests/framework/way.h"
#include "tests/support/allocation_count.h"
#include "tests/support/descriptor_limit.h"

namespace {

/// How a kernel, or a process short of descriptors, comes to it.
enum System { AS_IT_IS, WITHOUT_NOWAIT, WITHOUT_DESCRIPTORS };

struct Case {
    const char* name;
    Way::Kind kind;
    System system;
};

const Case cases[] = {
    {"pipe", Way::PIPE, AS_IT_IS},
    {"pipe, opened again", Way::PIPE, WITHOUT_NOWAIT},
    {"pipe, looked at", Way::PIPE, WITHOUT_DESCRIPTORS},
    {"packet pipe", Way::PACKET_PIPE, AS_IT_IS},
    {"packet pipe, opened again", Way::PACKET_PIPE, WITHOUT_NOWAIT},
    {"packet pipe, looked at", Way::PACKET_PIPE, WITHOUT_DESCRIPTORS},
    {"stream socket", Way::STREAM, AS_IT_IS},
    {"terminal, opened again", Way::TERMINAL, AS_IT_IS},
    {"terminal, looked at", Way::TERMINAL, WITHOUT_DESCRIPTORS},
};

/// The system of a case, for as long as it lives.
class ChosenSystem {
public:
    explicit ChosenSystem(System system)
    {
        if (system != AS_IT_IS) withoutNowait_.emplace();
        if (system == WITHOUT_DESCRIPTORS) withoutDescriptors_.emplace(STDERR_FILENO + 1);
    }

private:
    std::optional<fake_system::NoNowait> withoutNowait_;
    std::optional<DescriptorLimit> withoutDescriptors_;
};

std::ptrdiff_t openDescriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

bool isPending(int signo)
{
    sigset_t pending{};
    ::sigpending(&pending);
    return ::sigismember(&pending, signo) == 1;
}

TEST(WriteAtOnce, WritesWhereThereIsRoom)
{
    for (const Case& c : cases) {
        const Way way(c.kind);
        const auto before = openDescriptors();
        const std::string text(1000, 'x');
        {
            const ChosenSystem system(c.system);
            EXPECT_EQ(writeAtOnce(way.fd(), text), 1000U) << c.name;
            EXPECT_EQ(writeAtOnce(way.fd(), "yz\n"), 3U) << c.name;
        }
        EXPECT_EQ(way.receive("z\n"), text + "yz\n") << c.name;
        EXPECT_EQ(openDescriptors(), before) << c.name;
    }
}

TEST(WriteAtOnce, WritesNothingAndDoesNotWaitWhereThereIsNone)
{
    for (const Case& c : cases) {
        const Way way(c.kind);
        way.fill();
        const int flags = ::fcntl(way.fd(), F_GETFL);
        {
            const ChosenSystem system(c.system);
            for (int i = 0; i < 10; ++i)
                EXPECT_EQ(writeAtOnce(way.fd(), "a line\n"), 0U) << c.name;
        }
        EXPECT_EQ(way.receive().find("a line"), std::string::npos) << c.name;
        EXPECT_EQ(::fcntl(way.fd(), F_GETFL), flags) << c.name << ": others share them";
        EXPECT_EQ(writeAtOnce(way.fd(), "a line\n"), 7U) << c.name << ": there is room again";
        EXPECT_EQ(way.receive("\n"), "a line\n") << c.name;
    }
}

TEST(WriteAtOnce, APacketPipeGetsOnePacketForEach)
{
    for (const System system : {AS_IT_IS, WITHOUT_NOWAIT, WITHOUT_DESCRIPTORS}) {
        const Way way(Way::PACKET_PIPE);
        {
            const ChosenSystem here(system);
            EXPECT_EQ(writeAtOnce(way.fd(), "first"), 5U);
            EXPECT_EQ(writeAtOnce(way.fd(), "second"), 6U);
        }
        EXPECT_EQ(way.receiveOne(), "first");
        EXPECT_EQ(way.receiveOne(), "second");
    }
}

TEST(WriteAtOnce, ManyThreadsGetWhatRoomThereIsAndNoneWaits)
{
    for (const System system : {AS_IT_IS, WITHOUT_NOWAIT}) {
        const Way way(Way::PIPE);
        const ChosenSystem here(system);
        std::atomic<std::size_t> taken{0};
        std::atomic<int> cut{0};
        const auto writeMany = [&] {
            const std::string line(1000, 'x');
            for (int i = 0; i < 500; ++i) {
                const std::size_t written = writeAtOnce(way.fd(), line);
                taken += written;
                if (written != 0 && written != line.size()) ++cut;
            }
        };
        std::vector<std::thread> others;
        for (int i = 0; i < 4; ++i)
            others.emplace_back(writeMany);
        for (std::thread& other : others)
            other.join();
        EXPECT_EQ(cut, 0);
        EXPECT_LT(taken, 4U * 500 * 1000) << "it was never full";
        EXPECT_EQ(way.receive().size(), taken);
    }
}

TEST(WriteAtOnce, WithoutAReaderNoSignalIsRaised)
{
    const auto before = std::signal(SIGPIPE, SIG_DFL); // it would end this process
    for (const Case& c : cases) {
        Way way(c.kind);
        way.closeFar();
        const ChosenSystem system(c.system);
        EXPECT_EQ(writeAtOnce(way.fd(), "a line\n"), 0U) << c.name;
        EXPECT_FALSE(isPending(SIGPIPE)) << c.name;
    }
    std::signal(SIGPIPE, before);
}

TEST(WriteAtOnce, SignalsThatWereHeldBackStaySo)
{
    sigset_t held{};
    sigset_t before{};
    ::sigemptyset(&held);
    ::sigaddset(&held, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &held, &before);
    Way way(Way::PIPE);
    way.closeFar();
    EXPECT_EQ(writeAtOnce(way.fd(), "a line\n"), 0U);
    EXPECT_FALSE(isPending(SIGPIPE)) << "none of its own is left";
    ::pthread_kill(::pthread_self(), SIGPIPE);
    EXPECT_EQ(writeAtOnce(way.fd(), "a line\n"), 0U);
    EXPECT_TRUE(isPending(SIGPIPE)) << "somebody else's is";
    const timespec now{};
    EXPECT_EQ(::sigtimedwait(&held, nullptr, &now), SIGPIPE);
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

/// One process at a time may write to a terminal that wants it so (TOSTOP); others would be
/// stopped.
TEST(WriteAtOnce, InTheBackgroundOfATerminalNobodyIsStopped)
{
    ChildProcess session([] {
        std::signal(SIGHUP, SIG_IGN); // the terminal's end
        if (::setsid() < 0) return 1;
        const Way way(Way::TERMINAL);
        if (::ioctl(way.fd(), TIOCSCTTY, 0) != 0) return 2;
        termios line{};
        ::tcgetattr(way.fd(), &line);
        line.c_lflag |= TOSTOP;
        ::tcsetattr(way.fd(), TCSANOW, &line);
        ChildProcess background([&] {
            ::setpgid(0, 0);
            return writeAtOnce(way.fd(), "a line\n") == 7 ? 0 : 1;
        });
        return background.result() == 0 && way.receive("\n") == "a line\n" ? 0 : 3;
    });
    EXPECT_EQ(session.result(), 0);
}

TEST(WriteAtOnce, AFileIsWrittenAtItsOwnPlace)
{
    std::FILE* const file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    const int fd = ::fileno(file);
    EXPECT_EQ(writeAtOnce(fd, "abc"), 3U);
    EXPECT_EQ(writeAtOnce(fd, "def"), 3U);
    char bytes[16]{};
    EXPECT_EQ(::pread(fd, bytes, sizeof bytes, 0), 6);
    EXPECT_STREQ(bytes, "abcdef");
    std::fclose(file);
}

TEST(WriteAtOnce, AllocatesNothing)
{
    for (const Case& c : cases) {
        const Way way(c.kind);
        const ChosenSystem system(c.system);
        const unsigned before = allocationCount();
        const unsigned mallocsBefore = fake_system::mallocCount();
        (void)writeAtOnce(way.fd(), "a line\n");
        EXPECT_EQ(allocationCount(), before) << c.name;
        EXPECT_EQ(fake_system::mallocCount(), mallocsBefore) << c.name;
    }
}

TEST(WriteAtOnce, WithoutADescriptorNothingIsWritten)
{
    EXPECT_EQ(writeAtOnce(-1, "a line\n"), 0U);
}

} // namespace
