"""Actors: threads that act again and again, in a few processes, and rest and end together."""

from __future__ import annotations

import collections
import json
import multiprocessing
import os
import random
import threading
import time
import traceback
from collections.abc import Callable, Sequence

from harness import settings
from harness.waiting import Deadline

ACT, REST, END = range(3)
MOST_NOTES = 20
SLICE = 0.2  # seconds, after which whoever stays somewhere looks whether he is to rest

_fork = multiprocessing.get_context("fork")


class Stage:
    """What the actors of all processes share. Make it before the processes."""

    def __init__(self, seed: int) -> None:
        self.seed = seed
        self.began = time.monotonic()
        # Two who log in at the same time overwrite each other's name (deliberate): one at a time.
        self.login = _fork.Lock()
        self._phase = _fork.Value("i", REST)
        self._resting = _fork.Value("i", 0)
        self._failed = _fork.Value("i", 0)
        self._passwords = _fork.Value("i", 0)

    def seconds(self) -> float:
        return time.monotonic() - self.began

    # For the actors

    @property
    def acting(self) -> bool:
        return self._phase.value == ACT

    @property
    def ended(self) -> bool:
        return self._phase.value == END

    def stay(self, seconds: float) -> None:
        """Or to the end of the act."""
        end = time.monotonic() + seconds
        while self.acting and (left := end - time.monotonic()) > 0:
            time.sleep(min(left, SLICE))

    def wait_for_act(self) -> None:
        """Rests until it goes on or ends."""
        with self._resting.get_lock():
            self._resting.value += 1
        while self._phase.value == REST:
            time.sleep(0.05)
        with self._resting.get_lock():
            self._resting.value -= 1

    def count_password(self) -> None:
        """One that the daemon looks at, of a user that there is: each keeps a few bytes of its memory (deliberate)."""
        with self._passwords.get_lock():
            self._passwords.value += 1

    def fail(self) -> None:
        self._failed.value = 1

    # For who directs them

    @property
    def failed(self) -> bool:
        return self._failed.value != 0

    @property
    def passwords(self) -> int:
        return self._passwords.value

    def act(self) -> None:
        self._phase.value = ACT

    def rest(self, actors: int) -> None:
        """Returns when so many rest."""
        self._phase.value = REST
        deadline = Deadline(120)
        while self._resting.value < actors and not self.failed:
            assert not deadline.over(), f"{self._resting.value} of {actors} actors rest"
            time.sleep(0.05)

    def end(self) -> None:
        self._phase.value = END


class Actor:
    """Acts in a thread of its own. What it has to tell is in `tally`, by name, and in `notes`."""

    pause = (0.05, 0.3)  # seconds between two acts, at random

    def __init__(self, stage: Stage, name: str) -> None:
        self.stage = stage
        self.name = name
        self.random = random.Random(f"{stage.seed} {name}")
        self.tally: collections.Counter[str] = collections.Counter()
        self.worst = 0.0  # seconds from a command to its answer
        self.samples: list[tuple] = []
        self.notes: list[str] = []

    def begin(self) -> None:
        """Takes its place, before anybody acts."""

    def act(self) -> None:
        raise NotImplementedError

    def rest(self) -> None:
        """Leaves everything as it was behind begin()."""

    def end(self) -> None:
        """Leaves."""

    def note(self, text: str) -> None:
        if len(self.notes) < MOST_NOTES:
            self.notes.append(f"{self.stage.seconds():.1f} s: {self.name}: {text}")

    def run(self) -> None:
        try:
            while not self.stage.ended:
                self.rest()
                self.stage.wait_for_act()
                while self.stage.acting:
                    self.act()
                    self.stage.stay(self.random.uniform(*self.pause))
            self.end()
        except BaseException:
            self.notes.append(f"{self.stage.seconds():.1f} s: {self.name} broke off: {traceback.format_exc()}")
            self.tally["broken off"] += 1
            self.stage.fail()


class Crew:
    """A process, with its actors."""

    def __init__(self, stage: Stage, name: str, makers: Sequence[Callable[[Stage], Actor]]) -> None:
        self.size = len(makers)
        self._name = name
        self._result = f"/run/soak.{name}"
        self._pid = os.fork()
        if self._pid == 0:
            self._run(stage, makers)

    def _run(self, stage: Stage, makers: Sequence[Callable[[Stage], Actor]]) -> None:
        """The child. Does not return."""
        status = 1
        try:
            actors = [maker(stage) for maker in makers]
            for actor in actors:
                actor.begin()
            threads = [threading.Thread(target=actor.run, name=actor.name) for actor in actors]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
            self._tell(actors)
            status = 0
        except BaseException:
            traceback.print_exc()
            stage.fail()
        finally:
            os._exit(status)

    def _tell(self, actors: list[Actor]) -> None:
        told = {
            actor.name: {"tally": actor.tally, "worst": actor.worst, "samples": actor.samples, "notes": actor.notes}
            for actor in actors
        }
        with open(self._result, "w", encoding="utf-8") as file:
            json.dump(told, file)

    def join(self) -> dict[str, dict]:
        """What each actor has told, when all have ended."""
        deadline = Deadline(120)
        while not (ended := os.waitpid(self._pid, os.WNOHANG))[0]:
            if deadline.over():
                os.kill(self._pid, 9)
                os.waitpid(self._pid, 0)
                return {self._name: _trouble(f"the {self._name} did not end within {120 * settings.SLOW:g} s")}
            time.sleep(0.05)
        if ended[1] != 0:
            return {self._name: _trouble(f"the {self._name} ended with {os.waitstatus_to_exitcode(ended[1])}")}
        with open(self._result, encoding="utf-8") as file:
            return json.load(file)


def _trouble(what: str) -> dict:
    return {"tally": {"broken off": 1}, "worst": 0.0, "samples": [], "notes": [what]}
