"""Deadlines: a test waits for facts, and says what it waited for when they do not come."""

from __future__ import annotations

import time
from collections.abc import Callable

from harness import settings


class Deadline:
    """A point in time; `seconds` are those of a release build on an idle machine."""

    def __init__(self, seconds: float) -> None:
        self.seconds = seconds * settings.SLOW
        self._end = time.monotonic() + self.seconds

    def left(self) -> float:
        return max(0.0, self._end - time.monotonic())

    def over(self) -> bool:
        return time.monotonic() >= self._end


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
