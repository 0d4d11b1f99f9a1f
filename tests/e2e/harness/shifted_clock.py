"""A monotonic clock for the daemon that the test sets ahead, so that minutes pass at once."""

from __future__ import annotations

import mmap
import struct

from harness import preload, settings

_difference = struct.Struct("<i" if settings.BYTEORDER == "little" else ">i")


class ShiftedClock:
    """Give `environment` to one or more daemons. What sleeps in the kernel takes its time all the same."""

    def __init__(self) -> None:
        path = "/run/shifted_clock"
        with open(path, "wb") as file:
            file.write(bytes(mmap.PAGESIZE))
        with open(path, "r+b") as file:
            self._map = mmap.mmap(file.fileno(), mmap.PAGESIZE)
        self._ahead = 0
        self.environment = preload.environment(preload.path_of("libshifted_clock.so"), SHIFTED_CLOCK=path)

    def advance(self, seconds: float) -> None:
        """The clock goes ahead by so much more, to the millisecond."""
        self._ahead += round(seconds * 1000)
        self._map[: _difference.size] = _difference.pack(self._ahead)
