#include "tests/fuzz/fuzz_setup.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include "tests/support/no_reboot.h"
#include "tests/support/private_mounts.h"
#include "tests/support/private_network.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#include <sanitizer/common_interface_defs.h>
#endif

namespace {

int reportFd = STDERR_FILENO;

/// As inputs have it, which were made on other machines.
void takeDeviceName()
{
    if (::unshare(CLONE_NEWUTS) != 0 || ::sethostname("s3", 2) != 0) ::perror("no host name of its own");
}

} // namespace

int fuzzReportFd()
{
    return reportFd;
}

void silenceLog()
{
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere < 0) return;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<long>(reportFd)));
#endif
    ::dup2(nowhere, STDERR_FILENO);
    ::close(nowhere);
}

void needNamespaces()
{
    const std::string& problem = privateMountsProblem().empty() ? privateNetworkProblem() : privateMountsProblem();
    if (problem.empty()) return;
    std::printf("skipped: %s\n", problem.c_str());
    std::exit(77);
}

// Whatever calls the target calls this first.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    const int kept = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 100);
    if (kept >= 0) reportFd = kept;
    enterPrivateMounts();
    enterPrivateNetwork();
    takeDeviceName();
    giveUpReboot();
    ::signal(SIGPIPE, SIG_IGN); // the daemon's handler does no more
    return 0;
}
