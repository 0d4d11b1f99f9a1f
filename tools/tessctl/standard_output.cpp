#include "tools/tessctl/standard_output.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <iostream>
#include <poll.h>
#include <system_error>
#include <unistd.h>

#include "tools/tessctl/exit_status.h"

void keepStandardDescriptors()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(fd, F_GETFD) >= 0) continue;
        // For the wrong direction, so that its use fails. It gets the lowest free number, which is
        // this one.
        (void)::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
}

int flushOutput()
{
    errno = 0;
    std::cout.flush();
    const bool lost = std::fflush(stdout) != 0 || std::ferror(stdout) != 0 || !std::cout;
    if (!lost) return 0;
    return errno != 0 ? errno : EIO;
}

void requireOutput()
{
    if (const int error = flushOutput()) failOutput(error);
}

bool outputIsUnread()
{
    pollfd output{STDOUT_FILENO, 0, 0};
    return ::poll(&output, 1, 0) > 0 && (output.revents & (POLLERR | POLLHUP)) != 0;
}

void failOutput(int error)
{
    throw CtlError(STATUS_REFUSED, "standard output: " + std::generic_category().message(error));
}
