#include "tools/tessctl/history_file.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;

namespace {

/// A home of its own.
class HistoryFile : public testing::Test {
protected:
    void SetUp() override
    {
        ::setenv("HOME", home_.c_str(), 1);
        ::unsetenv("XDG_STATE_HOME");
    }
    void TearDown() override { ::unsetenv("XDG_STATE_HOME"); }

    const TempDir dir_;
    const fs::path home_ = dir_.path();
};

} // namespace

TEST_F(HistoryFile, IsAmongTheStateOfTheUser)
{
    EXPECT_EQ(historyFile(), home_ / ".local/state/tessctl/history");
    struct stat folder {};
    ASSERT_EQ(::stat((home_ / ".local/state/tessctl").c_str(), &folder), 0);
    EXPECT_EQ(folder.st_mode & 0777, 0700U);
}

TEST_F(HistoryFile, IsWhereTheUserWantsIt)
{
    ::setenv("XDG_STATE_HOME", (home_ / "state").c_str(), 1);
    EXPECT_EQ(historyFile(), home_ / "state/tessctl/history");
    ::setenv("XDG_STATE_HOME", "relative", 1);
    EXPECT_EQ(historyFile(), home_ / ".local/state/tessctl/history");
}

TEST_F(HistoryFile, TakesOverThatOfEarlierVersionsOnce)
{
    std::ofstream(home_ / ".tessctl_history") << "old";
    const fs::path file = historyFile();
    EXPECT_TRUE(fs::exists(file));
    EXPECT_FALSE(fs::exists(home_ / ".tessctl_history"));
    std::ofstream(home_ / ".tessctl_history") << "of an earlier version, used again";
    EXPECT_EQ(historyFile(), file);
    EXPECT_TRUE(fs::exists(home_ / ".tessctl_history"));
}

TEST_F(HistoryFile, IsNoneWhereThereIsNoPlace)
{
    ::setenv("XDG_STATE_HOME", "/proc/nowhere", 1);
    EXPECT_EQ(historyFile(), "");
    ::unsetenv("XDG_STATE_HOME");
    ::unsetenv("HOME");
    EXPECT_EQ(historyFile(), "");
}
