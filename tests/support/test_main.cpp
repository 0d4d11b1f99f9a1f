// main() of the unit tests that may listen on the device's own paths and TCP port.
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/no_reboot.h"
#include "tests/support/private_mounts.h"
#include "tests/support/private_network.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#include <sanitizer/common_interface_defs.h>
#endif

namespace {

/// Tests catch what goes to standard error; a sanitizer's report is to be seen all the same.
void keepReportsVisible()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const long report = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 100);
    if (report >= 0) __sanitizer_set_report_fd(reinterpret_cast<void*>(report));
#endif
}

} // namespace

int main(int argc, char** argv)
{
    keepReportsVisible();
    enterPrivateMounts();
    enterPrivateNetwork();
    giveUpReboot();
    ::signal(SIGPIPE, SIG_IGN); // the daemon's handler does no more
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
