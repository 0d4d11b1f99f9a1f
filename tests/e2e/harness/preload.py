"""What is loaded into the daemon before its own libraries."""

from __future__ import annotations

import functools
import os
import re
import subprocess

from harness import settings

_SANITIZER = re.compile(r"=> (\S*/lib[at]san\.so\S*)")


def path_of(name: str) -> str:
    """The path of one of the tests' libraries."""
    path = os.path.join(settings.BIN_DIR, name)
    assert os.path.exists(path), f"{path} is missing"
    return path


def environment(*libraries: str, **variables: str) -> dict[str, str]:
    """For a daemon with these libraries and those of TESSD_PRELOAD, in the order in which they are given, and with variables
    that they read."""
    if not libraries and not settings.PRELOAD:
        return {}
    wanted = {"LD_PRELOAD": " ".join([*_sanitizer_libraries(), *libraries, *settings.PRELOAD]), **variables}
    if settings.emulated():  # for the program in the emulator, not for the emulator
        return {"QEMU_SET_ENV": ",".join(f"{name}={value}" for name, value in wanted.items())}
    return wanted


@functools.cache
def _sanitizer_libraries() -> list[str]:
    """Those that insist on being the first of the preloaded ones."""
    if not settings.sanitized():
        return []
    listing = subprocess.run(["ldd", settings.TESSD], check=True, capture_output=True, text=True).stdout
    return _SANITIZER.findall(listing)
