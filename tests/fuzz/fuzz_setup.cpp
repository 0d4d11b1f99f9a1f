#include "tests/fuzz/fuzz_setup.h"

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

#include "tests/support/private_mounts.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#include <sanitizer/common_interface_defs.h>
#endif

namespace {

int reportFd = STDERR_FILENO;

} // namespace

void setUpFuzzing()
{
    enterPrivateMounts();
    ::signal(SIGPIPE, SIG_IGN); // the daemon's handler does no more
}

int fuzzReportFd()
{
    return reportFd;
}

void silenceLog()
{
    const int kept = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 100);
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (kept < 0 || nowhere < 0) return;
    reportFd = kept;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<long>(kept)));
#endif
    ::dup2(nowhere, STDERR_FILENO);
    ::close(nowhere);
}

// libFuzzer calls this first; the driver does it too.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    setUpFuzzing();
    return 0;
}
