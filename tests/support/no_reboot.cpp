#include "tests/support/no_reboot.h"

#include <cstdlib>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

void giveUpReboot()
{
    __user_cap_header_struct header{};
    header.version = _LINUX_CAPABILITY_VERSION_3;
    __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3]{};
    if (::syscall(SYS_capget, &header, sets) != 0) return;
    constexpr unsigned bit = 1U << CAP_SYS_BOOT;
    static_assert(CAP_SYS_BOOT < 32);
    for (auto* set : {&sets[0].effective, &sets[0].permitted, &sets[0].inheritable})
        *set &= ~bit;
    if (::syscall(SYS_capset, &header, sets) != 0) std::abort();
}
