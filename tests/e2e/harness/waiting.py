"""Deadlines: a test waits for facts, and says what it waited for when they do not come."""

from __future__ import annotations

import time
from collections.abc import Callable

from harness import settings


class Deadline:
    """A point in time; `seconds` are those of a release build on an idle machine.

    When they are over, what is excused (see excuse()) is added, up to MOST_EXCUSED times as much: a process that never sleeps
    stands in line for ever on a busy machine."""

    MOST_EXCUSED = 4

    _excused: Callable[[], float] = staticmethod(lambda: 0.0)

    def __init__(self, seconds: float) -> None:
        self.seconds = seconds * settings.SLOW
        self._end = time.monotonic() + self.seconds
        self._excused_before = Deadline._excused()

    def left(self) -> float:
        left = self._end - time.monotonic()
        if left <= 0:
            left += min(Deadline._excused() - self._excused_before, self.MOST_EXCUSED * self.seconds)
        return max(0.0, left)

    def over(self) -> bool:
        return self.left() <= 0

    @classmethod
    def excuse(cls, seconds: Callable[[], float]) -> None:
        """From now on, for all of them: so many seconds, which only grow, have not counted since the test began."""
        cls._excused = staticmethod(seconds)


def wait_until(fact: Callable[[], object], what: str, within: float = 5) -> object:
    """Looks until fact() is true and returns what it gave; fails with `what` when the time is over."""
    deadline = Deadline(within)
    while True:
        last_look = deadline.over()
        result = fact()
        if result:
            return result
        assert not last_look, f"not within {deadline.seconds:g} s: {what}"
        time.sleep(0.002)


class Stopwatch:
    def __init__(self) -> None:
        self._start = time.monotonic()

    def seconds(self) -> float:
        return time.monotonic() - self._start
