#include "tests/support/private_mounts.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <string_view>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string problem = "enterPrivateMounts() was not called";

std::string failed(const char* what)
{
    return std::string("no private mounts: ") + what + ": " + std::strerror(errno);
}

bool writeFile(const char* path, std::string_view text)
{
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    return written;
}

/// An ordinary user needs a user namespace too, and is root in it (user_namespaces(7)).
bool becomeRootInside(uid_t user, gid_t group)
{
    return writeFile("/proc/self/setgroups", "deny") &&
           writeFile("/proc/self/uid_map", "0 " + std::to_string(user) + " 1") &&
           writeFile("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
}

/// Pseudo-terminals of its own, see devpts in the kernel's documentation.
bool furnishTerminals(const std::string& dev)
{
    return ::mkdir((dev + "/pts").c_str(), 0755) == 0 && ::symlink("pts/ptmx", (dev + "/ptmx").c_str()) == 0 &&
           ::mount("devpts", (dev + "/pts").c_str(), "devpts", 0, "newinstance,ptmxmode=0666") == 0;
}

/// A /dev that holds nothing of the machine but what is harmless.
bool furnishDev()
{
    const char* const made = "/tmp/dev";
    if (::mkdir(made, 0755) != 0) return false;
    for (const std::string name : {"/null", "/zero", "/urandom"}) {
        const int place = ::open((made + name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (place < 0) return false;
        ::close(place);
        if (::mount(("/dev" + name).c_str(), (made + name).c_str(), nullptr, MS_BIND, nullptr) != 0) return false;
    }
    return furnishTerminals(made) && ::mount(made, "/dev", nullptr, MS_BIND | MS_REC, nullptr) == 0;
}

} // namespace

void enterPrivateMounts()
{
    const uid_t user = ::geteuid();
    const gid_t group = ::getegid();
    if (::unshare(user == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) != 0)
        problem = failed("unshare");
    else if (user != 0 && !becomeRootInside(user, group))
        problem = failed("user namespace");
    else if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        problem = failed("private mounts");
    else if (::mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0)
        problem = failed("tmpfs on /tmp");
    else if (!furnishDev())
        problem = failed("/dev");
    else
        problem.clear();
}

const std::string& privateMountsProblem()
{
    return problem;
}
