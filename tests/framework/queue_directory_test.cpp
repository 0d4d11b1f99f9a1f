#include "framework/bundled/queue_directory.h"

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <sys/stat.h>

#include "tests/framework/fake_system.h"
#include "tests/support/temp_dir.h"

namespace {

using testing::HasSubstr;

unsigned modeOf(const std::string& path)
{
    struct stat found {};
    return ::stat(path.c_str(), &found) == 0 ? found.st_mode & 07777U : 0xFFFFU;
}

/// Sets the umask for as long as it lives.
class Umask {
public:
    explicit Umask(mode_t mask) : before_(::umask(mask)) {}
    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;
    ~Umask() { ::umask(before_); }

private:
    mode_t before_;
};

sockaddr_un addressOf(const std::string& name, socklen_t& length)
{
    sockaddr_un result{};
    result.sun_family = AF_UNIX;
    std::memcpy(result.sun_path, name.data(), std::min(name.size(), sizeof result.sun_path));
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + 1);
    return result;
}

TEST(QueueDirectory, ComesFromTheEnvironmentWithoutTrailingSlashes)
{
    const struct {
        const char* value;
        const char* path;
        const char* socketPath;
    } cases[] = {
        {nullptr, "/run/tess/queue", "/run/tess/queue/1001"},
        {"", "/run/tess/queue", "/run/tess/queue/1001"},
        {"/tmp/q", "/tmp/q", "/tmp/q/1001"},
        {"/tmp/q///", "/tmp/q", "/tmp/q/1001"},
        {"/", "/", "/1001"},
        {"///", "/", "/1001"},
        {"/tmp/./q//r", "/tmp/./q//r", "/tmp/./q//r/1001"},
    };
    for (const auto& c : cases) {
        if (c.value != nullptr)
            ::setenv("TESS_QUEUE_DIR", c.value, 1);
        else
            ::unsetenv("TESS_QUEUE_DIR");
        const QueueDirectory& directory = QueueDirectory::fromEnvironment();
        EXPECT_EQ(directory.path(), c.path);
        EXPECT_EQ(directory.socketPath(1001), c.socketPath);
        sockaddr_un to{};
        ASSERT_TRUE(directory.socketAddress(1001, to));
        EXPECT_STREQ(to.sun_path, c.socketPath);
        EXPECT_EQ(&QueueDirectory::fromEnvironment(), &directory) << "the same directory, the same object";
    }
    ::unsetenv("TESS_QUEUE_DIR");
}

/// The working directory for as long as it lives.
class WorkingDirectory {
public:
    explicit WorkingDirectory(const std::string& path) : before_(std::filesystem::current_path())
    {
        std::filesystem::current_path(path);
    }
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;
    ~WorkingDirectory() { std::filesystem::current_path(before_); }

private:
    std::filesystem::path before_;
};

const QueueDirectory& directoryNamed(const char* value)
{
    ::setenv("TESS_QUEUE_DIR", value, 1);
    const QueueDirectory& directory = QueueDirectory::fromEnvironment();
    ::unsetenv("TESS_QUEUE_DIR");
    return directory;
}

TEST(QueueDirectory, ARelativePathIsMadeAbsoluteFromWhereTheProcessIsAtThatMoment)
{
    const TempDir dir;
    const struct {
        const char* value;
        const char* path;
    } cases[] = {
        {"q", "/q"}, {"q//", "/q"}, {"./q", "/q"}, {".//q/./r/", "/q/r"}, {"q/../r", "/r"},
        {".", ""},   {"./", ""},    {"..", "/.."}, {"../q", "/../q"},
    };
    for (const auto& c : cases) {
        const WorkingDirectory here(dir.path());
        const std::string expected = std::filesystem::path(dir.path() + c.path).lexically_normal().string();
        EXPECT_EQ(directoryNamed(c.value).path() + (expected.ends_with('/') ? "/" : ""), expected) << c.value;
    }
    const QueueDirectory& elsewhere = directoryNamed("q");
    EXPECT_EQ(elsewhere.path(), std::filesystem::current_path() / "q");
    const WorkingDirectory here(dir.path());
    EXPECT_NE(&directoryNamed("q"), &elsewhere) << "the same name from another place";
    EXPECT_EQ(directoryNamed("q").path(), dir / "q");
}

TEST(QueueDirectory, WithoutAWorkingDirectoryARelativePathCannotBeMade)
{
    auto gone = std::make_unique<TempDir>();
    const WorkingDirectory here(gone->path());
    gone.reset();
    try {
        directoryNamed("q").create();
        FAIL() << "no error";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "queue directory q: No such file or directory");
    }
}

TEST(QueueDirectory, APathMustFitASocketAddressWithItsNul)
{
    const std::size_t longest = sizeof(sockaddr_un::sun_path) - 1;
    const QueueDirectory fits("/" + std::string(longest - 1 - std::strlen("/1001"), 'd'));
    const QueueDirectory tooLong("/" + std::string(longest - std::strlen("/1001"), 'd'));
    sockaddr_un to{};
    EXPECT_TRUE(fits.socketAddress(1001, to));
    EXPECT_EQ(std::strlen(to.sun_path), longest);
    EXPECT_FALSE(fits.socketAddress(10010, to));
    EXPECT_TRUE(tooLong.socketAddress(101, to));
    EXPECT_FALSE(tooLong.socketAddress(1001, to));
}

TEST(QueueDirectory, TellsQueuesOfThisDirectoryFromEverythingElse)
{
    const TempDir dir;
    const TempDir other;
    const std::string here = dir.path();
    const std::string link = other / "link";
    ASSERT_EQ(::symlink(here.c_str(), link.c_str()), 0);
    const QueueDirectory directory(here);
    const struct {
        std::string name;
        long queue;
    } cases[] = {
        {here + "/1", 1},
        {here + "/1001", 1001},
        {here + "/2147483647", 2147483647},
        {here + "/2147483648", 0},
        {here + "/99999999999999999999", 0},
        {here + "/0", 0},
        {here + "/007", 0},
        {here + "/+7", 0},
        {here + "/-7", 0},
        {here + "/7x", 0},
        {here + "/ 7", 0},
        {here + "/", 0},
        {here, 0},
        {here + "/sub/7", 0},
        {here + "x/7", 0},
        {here + "//7", 0},
        {here + "/./7", 0},
        {here + "/.//007", 0},
        {link + "/7", 0},
        {link + "/007", 0},
        {other.path() + "/7", 0},
        {"/7", 0},
        {"7", 0},
        {"./7", 0},
        {std::string("\0", 1) + here + "/7", 0},
        {"/tmp/" + std::string(sizeof(sockaddr_un::sun_path) - 5, '7'), 0},
    };
    for (const auto& c : cases) {
        socklen_t length = 0;
        const sockaddr_un from = addressOf(c.name, length);
        EXPECT_EQ(directory.queueOf(from, length), c.queue) << c.name;
    }
}

TEST(QueueDirectory, ARelativePathIsNotLookedUpInTheReceiversOwnWorkingDirectory)
{
    const TempDir dir;
    const QueueDirectory directory(dir.path());
    const WorkingDirectory here(dir.path());
    for (const char* name : {"./7", "7", ".//7"}) {
        socklen_t length = 0;
        const sockaddr_un from = addressOf(name, length);
        EXPECT_EQ(directory.queueOf(from, length), 0) << name;
    }
}

TEST(QueueDirectory, AnUnboundSocketBelongsToNoQueue)
{
    const QueueDirectory directory("/tmp");
    sockaddr_un from{};
    EXPECT_EQ(directory.queueOf(from, 0), 0);
    from.sun_family = AF_UNIX;
    EXPECT_EQ(directory.queueOf(from, offsetof(sockaddr_un, sun_path)), 0);
}

TEST(QueueDirectory, TheRootDirectoryWorksToo)
{
    const QueueDirectory directory("/");
    socklen_t length = 0;
    const sockaddr_un from = addressOf("/7", length);
    EXPECT_EQ(directory.queueOf(from, length), 7);
    const sockaddr_un twice = addressOf("//7", length);
    EXPECT_EQ(directory.queueOf(twice, length), 0);
}

TEST(QueueDirectory, MakesWhatIsMissingWithItsModeWhateverTheUmask)
{
    for (const mode_t mask : {0U, 022U, 077U, 0777U}) {
        const TempDir dir;
        ASSERT_EQ(::chmod(dir.path().c_str(), 0711), 0);
        const Umask umaskNow(mask);
        QueueDirectory(dir / "a/b/c").create();
        for (const char* made : {"a", "a/b", "a/b/c"})
            EXPECT_EQ(modeOf(dir / made), 0770U) << made << " under umask " << std::oct << mask;
        EXPECT_EQ(modeOf(dir.path()), 0711U) << "what was there keeps its mode";
        QueueDirectory(dir / "a/b/c").create();
    }
}

TEST(QueueDirectory, ALinkPutInThePlaceOfWhatWasMadeIsNotFollowed)
{
    const TempDir dir;
    const std::string other = dir / "other";
    ASSERT_EQ(::mkdir(other.c_str(), 0700), 0);
    const fake_system::AfterMkdir swap([&](const char* made) {
        ASSERT_EQ(::rmdir(made), 0);
        ASSERT_EQ(::symlink(other.c_str(), made), 0);
    });
    try {
        QueueDirectory(dir / "q").create();
        ADD_FAILURE() << "no error";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), HasSubstr("queue directory " + dir / "q"));
    }
    EXPECT_EQ(modeOf(other), 0700U);
}

TEST(QueueDirectory, KeepsAnInheritedGroupBit)
{
    const TempDir dir;
    ASSERT_EQ(::chmod(dir.path().c_str(), 02750), 0);
    if (modeOf(dir.path()) != 02750U) GTEST_SKIP() << "this file system has no set-group-ID directories";
    QueueDirectory(dir / "a/b").create();
    EXPECT_EQ(modeOf(dir / "a"), 02770U);
    EXPECT_EQ(modeOf(dir / "a/b"), 02770U);
}

TEST(QueueDirectory, SaysWhichPathCannotBeMade)
{
    const TempDir dir;
    std::ofstream(dir / "file") << "x";
    try {
        QueueDirectory(dir / "file/q").create();
        FAIL() << "no error";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), HasSubstr(dir / "file/q"));
        EXPECT_THAT(error.what(), HasSubstr("Not a directory"));
    }
}

} // namespace
