#include "tools/tessctl/likely_cause.h"

#include <cerrno>
#include <gtest/gtest.h>

TEST(LikelyCause, NamesThePathTheReasonAndTheCause)
{
    EXPECT_EQ(failureText("/run/tess/queue/1001", ENOENT, PathOf::daemonQueue),
              "/run/tess/queue/1001: No such file or directory: is tessd running?");
    EXPECT_EQ(failureText("/run/tess/queue", EACCES, PathOf::queueDirectory),
              "/run/tess/queue: Permission denied: are you in group tess?");
    EXPECT_EQ(failureText("/tmp/xcp", ENOENT, PathOf::localSocket),
              "/tmp/xcp: No such file or directory: is tessd running, and with this port?");
    EXPECT_EQ(failureText("/tmp/xcp", EIO, PathOf::localSocket), "/tmp/xcp: Input/output error") << "no cause is known";
}
