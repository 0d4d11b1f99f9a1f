#include "common/std_descriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

bool isDevNull(int fd)
{
    struct stat found {};
    return ::fstat(fd, &found) == 0 && S_ISCHR(found.st_mode) && found.st_rdev == ::makedev(1, 3);
}

/// What is wrong in a process that starts with these descriptors closed: 0 nothing.
int problemIn(const std::vector<int>& closed)
{
    int pipeEnds[2];
    if (::pipe(pipeEnds) != 0) return 1;
    for (const int fd : {0, 1, 2})
        ::dup2(pipeEnds[0], fd); // something that is not /dev/null
    for (const int fd : closed)
        ::close(fd);
    openStdDescriptors();
    for (const int fd : {0, 1, 2}) {
        const bool wasClosed = std::find(closed.begin(), closed.end(), fd) != closed.end();
        if (isDevNull(fd) != wasClosed) return 10 + fd;
        if (wasClosed && (::fcntl(fd, F_GETFL) & O_ACCMODE) != O_RDWR) return 20 + fd;
    }
    const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    return next > 2 ? 0 : 30;
}

int statusOfChild(const std::vector<int>& closed)
{
    const pid_t child = ::fork();
    if (child == 0) ::_exit(problemIn(closed));
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

} // namespace

TEST(StdDescriptors, AreOpenedOnDevNullWhereTheyAreClosed)
{
    const std::vector<int> rows[] = {{}, {0}, {1}, {2}, {0, 1}, {0, 2}, {1, 2}, {0, 1, 2}};
    for (const std::vector<int>& closed : rows)
        EXPECT_EQ(statusOfChild(closed), 0) << "closed: " << testing::PrintToString(closed);
}
