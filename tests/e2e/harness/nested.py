"""A daemon in process numbers of its own, so that a restart of the device ends that daemon and nothing else."""

from __future__ import annotations

import os
import re

# unshare(1) ends with the signal that ended its child, SIGHUP when the kernel was asked for a restart.
OWN_DEVICE = ("unshare", "--pid", "--fork", "--kill-child")

# The same without the right to restart it, CAP_SYS_BOOT.
OWN_DEVICE_WITHOUT_RESTART = (*OWN_DEVICE, "setpriv", "--bounding-set", "-sys_boot", "--inh-caps", "-sys_boot", "--")


def has_boot_capability(pid: int) -> bool:
    """Whether a process may ask for a restart: bit 22, CAP_SYS_BOOT, of its effective capabilities."""
    with open(f"/proc/{pid}/status", encoding="ascii", errors="replace") as status:
        effective = re.search(r"^CapEff:\s*([0-9a-f]+)$", status.read(), re.MULTILINE)
    return bool(int(effective[1], 16) >> 22 & 1)


def in_own_device(pid: int) -> bool:
    """Whether a process is in a process namespace that is not this one's."""
    return os.readlink(f"/proc/{pid}/ns/pid") != os.readlink("/proc/self/ns/pid")
