"""Those who keep to the rules."""

from __future__ import annotations

import itertools
import time
from collections.abc import Callable

from harness.answers import Blame
from harness.clients import Client
from harness.daemon import Daemon
from soak.speech import Lost, Speech
from soak.stage import Actor, Stage

HEALTHY = b"ENC"  # the process that answers at once


class Talker(Actor):
    """Stays connected for minutes, and sends a few commands at a time."""

    pause = (0.02, 0.2)
    most = 8

    def __init__(self, stage: Stage, name: str, connect: Callable[[Actor], Client]) -> None:
        super().__init__(stage, name)
        self.speech = Speech(self, connect)

    def begin(self) -> None:
        self.speech.open_at_last()

    def act(self) -> None:
        self.speech.keep_open()
        self.speech.say(HEALTHY, self.speech.words(self.random.randint(1, self.most)))

    def end(self) -> None:
        self.speech.close()


class Visitor(Talker):
    """Comes, talks for a while and leaves, again and again."""

    pause = (0.2, 1.0)

    def begin(self) -> None:
        pass

    def act(self) -> None:
        self.speech.open_at_last()
        self.tally["visits"] += 1
        for _ in range(self.random.randint(1, 5)):
            if not self.speech.say(HEALTHY, self.speech.words(self.random.randint(1, self.most))):
                break
            self.stage.stay(self.random.uniform(0.0, 0.2))
        self.rest()

    def rest(self) -> None:
        if self.name.startswith("telnet") and self.random.random() < 0.5:
            self.speech.quit()
        self.speech.close()


class AsksForNobody(Talker):
    """Asks a process that there is not, and must be refused."""

    pause = (0.3, 1.0)

    def act(self) -> None:
        self.speech.keep_open()
        words = self.speech.words(self.random.randint(1, self.most))
        refused_before = self.tally["refused"]
        self.speech.say(b"NOBODY", words)
        if self.tally["refused"] - refused_before != len(words):
            raise Lost(f"{self.tally['refused'] - refused_before} of {len(words)} commands for nobody were refused")


class Caller(Talker):
    """Sends commands to everybody. The healthy process answers each, unless it is refused."""

    pause = (0.5, 1.5)
    _numbers = itertools.count()

    def act(self) -> None:
        self.speech.keep_open()
        self.speech.call(b"all-%d" % next(Caller._numbers), HEALTHY)


class Witness(Actor):
    """Asks at an even pace, and tells how long each answer took.

    A sample: seconds since the begin, those until the daemon's own answer, those of them that the daemon is to blame for, and
    those until the answer of a process."""

    pause = (0.15, 0.25)

    def __init__(self, stage: Stage, name: str, connect: Callable[[Actor], Client], tessd: Daemon) -> None:
        super().__init__(stage, name)
        self.speech = Speech(self, connect)
        self._tessd = tessd

    def begin(self) -> None:
        self.speech.open_at_last()

    def act(self) -> None:
        self.speech.keep_open()
        blame, asked = Blame(self._tessd), time.monotonic()
        if not self.speech.ask():
            return
        passed = time.monotonic() - asked
        blamed = min(passed, blame.seconds())
        asked = time.monotonic()
        if self.speech.say(HEALTHY, self.speech.words(1)):
            self.samples.append((round(self.stage.seconds(), 3), passed, blamed, time.monotonic() - asked))

    def end(self) -> None:
        self.speech.close()
