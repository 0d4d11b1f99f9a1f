"""A monotonic clock for the daemon that stands where the test has set it: no time passes but what the test gives."""

from __future__ import annotations

import mmap

from harness import preload, settings


class StoppedClock:
    """Give `environment` to the daemon. What sleeps in the kernel takes its time all the same, and looks at the clock then."""

    def __init__(self, nanoseconds: int) -> None:
        path = "/run/stopped_clock"
        with open(path, "wb") as file:
            file.write(bytes(mmap.PAGESIZE))
        with open(path, "r+b") as file:
            self._map = mmap.mmap(file.fileno(), mmap.PAGESIZE)
        self.set(nanoseconds)
        self.environment = preload.environment(preload.path_of("libstopped_clock.so"), STOPPED_CLOCK=path)

    def set(self, nanoseconds: int) -> None:
        self._map[:8] = nanoseconds.to_bytes(8, settings.BYTEORDER)
