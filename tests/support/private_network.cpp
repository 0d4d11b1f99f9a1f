#include "tests/support/private_network.h"

#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "framework/fixed_text.h"

namespace {

std::string problem = "enterPrivateNetwork() was not called";

std::string failed(const char* what)
{
    return std::string("no private network: ") + what + ": " + std::strerror(errno);
}

bool startLoopback()
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    ifreq request{};
    putText(request.ifr_name, "lo");
    bool started = ::ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    started = started && ::ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    ::close(fd);
    return started;
}

} // namespace

void enterPrivateNetwork()
{
    if (::unshare(CLONE_NEWNET) != 0)
        problem = failed("unshare");
    else if (!startLoopback())
        problem = failed("loopback interface");
    else
        problem.clear();
}

const std::string& privateNetworkProblem()
{
    return problem;
}
