"""How long one client waits for its answers while others are up to something, whatever else the machine does.

What is counted of a wait is only what the daemon is to blame for: the time in which its threads, and the asking one, stood in
line for a processor that others had is taken off. A daemon that sleeps, or computes, in place of answering has no such excuse."""

from __future__ import annotations

import dataclasses
import os
import statistics
import time

from harness import proc, settings
from harness.clients import Client
from harness.daemon import Daemon
from harness.waiting import Deadline


@dataclasses.dataclass
class Answers:
    """Seconds, in the order asked."""

    blamed: list[float] = dataclasses.field(default_factory=list)
    passed: list[float] = dataclasses.field(default_factory=list)  # by the clock on the wall
    processor_share: float = 0.0  # of one processor, by the daemon, meanwhile

    def blamed_at(self, of_100: int) -> float:
        """What `of_100` of 100 answers took at most."""
        ranked = sorted(self.blamed)
        return ranked[max(0, -(-len(ranked) * of_100 // 100) - 1)]

    @property
    def longest(self) -> float:
        return max(self.blamed)

    def __str__(self) -> str:
        return (
            f"{len(self.blamed)} answers in {1000 * statistics.median(self.blamed):.1f} ms at the median,"
            f" {1000 * self.blamed_at(99):.1f} ms at the 99th of 100, {1000 * self.longest:.1f} ms at most"
            f" ({1000 * max(self.passed):.1f} ms by the clock on the wall);"
            f" {100 * self.processor_share:.1f} % of a processor"
        )


class StoodInLine:
    """Seconds in which threads of a process were ready to run and had no processor, since this was made."""

    def __init__(self, pid: int) -> None:
        self._pid = pid
        self._at_first = proc.seconds_in_line(pid)
        self._now = dict(self._at_first)

    def seconds(self) -> float:
        """A process that has ended counts as it was seen last."""
        self._now |= proc.seconds_in_line(self._pid)
        return sum(now - self._at_first.get(task, 0.0) for task, now in self._now.items())


def excuse_standing_in_line(pid: int) -> None:
    """From now on no deadline of this test counts the seconds in which threads of this process, or the one that waits, are ready
    to run and others have the processors."""
    line = StoodInLine(pid)
    Deadline.excuse(lambda: line.seconds() + proc.own_seconds_in_line())


class Blame:
    """A stopwatch that stands still while the daemon, or the process that asks, is ready to run and others have the processors.
    Of that process all threads count: the one that asks waits for another that has the interpreter's lock."""

    def __init__(self, tessd: Daemon) -> None:
        self._in_line, self._own = StoodInLine(tessd.pid), StoodInLine(os.getpid())
        self._began = time.monotonic()

    def seconds(self) -> float:
        """To be asked while the daemon runs."""
        passed = time.monotonic() - self._began
        return max(0.0, passed - self._in_line.seconds() - self._own.seconds())


class ShareOfProcessor:
    """What the daemon uses of one, of the time in which it need not stand in line for it: 1 when it never sleeps, however busy
    the machine is."""

    def __init__(self, tessd: Daemon) -> None:
        self._tessd = tessd
        self._in_line, self._used, self._began = StoodInLine(tessd.pid), proc.cpu_seconds(tessd.pid), time.monotonic()

    def share(self) -> float:
        used = proc.cpu_seconds(self._tessd.pid) - self._used
        return used / max(time.monotonic() - self._began - self._in_line.seconds(), used, 0.1)


def share_of_processor(tessd: Daemon, seconds: float) -> float:
    """While nobody does anything for so long."""
    share = ShareOfProcessor(tessd)
    time.sleep(seconds)
    return share.share()


def ask(tessd: Daemon, clients: list[Client], seconds: float, pause: float = 0.02) -> Answers:
    """Each client asks `*` in its turn, one question in each `pause`, for so long. Gives up at an answer that does not come."""
    answers = Answers()
    end = time.monotonic() + seconds
    share = ShareOfProcessor(tessd)
    number = 0
    while (asked := time.monotonic()) < end:
        blamed, passed = _one_answer(tessd, clients[number % len(clients)])
        answers.blamed.append(blamed)
        answers.passed.append(passed)
        number += 1
        time.sleep(max(0.0, asked + pause - time.monotonic()))
    answers.processor_share = share.share()
    return answers


def _one_answer(tessd: Daemon, client: Client) -> tuple[float, float]:
    blame, asked = Blame(tessd), time.monotonic()
    client.expect_nothing_more()
    passed = time.monotonic() - asked
    return min(passed, blame.seconds()), passed


def expect_prompt(answers: Answers) -> None:
    """Nearly all within 50 ms, and every one within 200."""
    assert answers.blamed_at(99) <= 0.05 * settings.SLOW and answers.longest <= 0.2 * settings.SLOW, str(answers)
