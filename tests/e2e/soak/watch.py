"""What the daemon holds and uses."""

from __future__ import annotations

import collections
import re
import time

from harness import proc, settings
from harness.daemon import Daemon
from harness.measure import AllocationCounter
from harness.waiting import Deadline
from soak.stage import Stage

QUIET = 1.5  # seconds in which nothing may change, for the daemon to count as at rest


def kinds_of_descriptors(pid: int) -> dict[str, int]:
    """How many there are of each: sockets, files, whatever they are called."""
    return dict(collections.Counter(re.sub(r":?\[.*", "", what) for what in proc.descriptors(pid).values()))


class Watch:
    """Looks at the daemon once a second."""

    def __init__(self, tessd: Daemon, stage: Stage, heap: AllocationCounter | None) -> None:
        self._tessd = tessd
        self._stage = stage
        self._heap = heap
        self.samples: list[tuple] = []  # seconds, memory in KiB, bytes in use of the heap, descriptors, processor seconds

    def look(self) -> None:
        pid = self._tessd.pid
        heap = self._heap.live_bytes() if self._heap else None
        descriptors = len(proc.descriptors(pid))
        self.samples.append(
            (round(self._stage.seconds(), 1), self.resident(), heap, descriptors, round(proc.cpu_seconds(pid), 2))
        )

    def resident(self) -> int:
        return int(proc.status_field(self._tessd.pid, self._tessd.pid, "VmRSS").split()[0])

    def look_for(self, seconds: float) -> bool:
        """Once a second. Returns whether it came to the end: not when the daemon or an actor has failed."""
        end = time.monotonic() + seconds
        while (left := end - time.monotonic()) > 0:
            time.sleep(min(left, 1.0))
            if self._stage.failed or self._tessd.ended():
                return False
            self.look()
        return True

    def at_rest(self) -> dict:
        """What it holds when nobody does anything, once that does not change any more."""
        deadline = Deadline(30)
        since, last = time.monotonic(), self._holds()
        while time.monotonic() - since < QUIET and not deadline.over():
            time.sleep(0.1)
            if (now := self._holds()) != last:
                since, last = time.monotonic(), now
        self.look()
        return last | {"resident KiB": self.resident(), "seconds": round(self._stage.seconds(), 1)}

    def _holds(self) -> dict:
        pid = self._tessd.pid
        return {
            "descriptors": kinds_of_descriptors(pid),
            "threads": len(proc.tasks(pid)),
            "heap bytes": self._heap.live_bytes() if self._heap else None,
        }


def heap_counter() -> AllocationCounter | None:
    """Not beside a sanitizer, which has a heap of its own."""
    return None if settings.sanitized() else AllocationCounter()
