"""A monotonic clock for the daemon that the test sets ahead, so that minutes pass at once."""

from __future__ import annotations

import mmap
import os
import re
import struct
import subprocess

from harness import settings

_difference = struct.Struct("<i" if settings.BYTEORDER == "little" else ">i")
_SANITIZER = re.compile(r"=> (\S*/lib[at]san\.so\S*)")


class ShiftedClock:
    """Give `environment` to one or more daemons. What sleeps in the kernel takes its time all the same."""

    def __init__(self) -> None:
        path = "/run/shifted_clock"
        with open(path, "wb") as file:
            file.write(bytes(mmap.PAGESIZE))
        with open(path, "r+b") as file:
            self._map = mmap.mmap(file.fileno(), mmap.PAGESIZE)
        self._ahead = 0
        self.environment = preloaded("libshifted_clock.so", SHIFTED_CLOCK=path)

    def advance(self, seconds: float) -> None:
        """The clock goes ahead by so much more, to the millisecond."""
        self._ahead += round(seconds * 1000)
        self._map[: _difference.size] = _difference.pack(self._ahead)


def preloaded(library: str, **variables: str) -> dict[str, str]:
    """The environment of a daemon that runs with one of the tests' libraries and the variables that this one wants."""
    path = os.path.join(settings.BIN_DIR, library)
    assert os.path.exists(path), f"{path} is missing"
    environment = {"LD_PRELOAD": " ".join([*_sanitizer_libraries(), path]), **variables}
    if settings.emulated():  # for the program in the emulator, not for the emulator
        environment = {"QEMU_SET_ENV": ",".join(f"{name}={value}" for name, value in environment.items())}
    return environment


def _sanitizer_libraries() -> list[str]:
    """Those that insist on being the first of the preloaded ones."""
    if not settings.sanitized():
        return []
    listing = subprocess.run(["ldd", settings.TESSD], check=True, capture_output=True, text=True).stdout
    return _SANITIZER.findall(listing)
