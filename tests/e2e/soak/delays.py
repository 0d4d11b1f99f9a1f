"""Delayed commands: each is run once, and not before its time."""

from __future__ import annotations

import re
import threading
import time

from harness import settings, wire
from harness.clients import XcpClient
from harness.queue_process import QueueProcess
from soak.speech import PATIENCE, arrive
from soak.stage import Actor, Stage

MOST_PENDING = 20
LISTING = re.compile(rb"OK\r\n(-?\d+:-?\d+:-?\d+\.\d+ [^\r\n]*\r\n)*\r\n")


class Delays(Actor):
    """Sets, lists and clears delays, and is the process that the delayed commands are for."""

    pause = (0.1, 0.6)

    def __init__(self, stage: Stage) -> None:
        super().__init__(stage, "delays")
        self._pending: dict[bytes, float] = {}  # and when each may be run
        self._cleared: set[bytes] = set()
        self._number = 0

    def begin(self) -> None:
        self._process = QueueProcess(2200)
        self._process.register(b"LATE")
        self._client = arrive(XcpClient)
        self._client.expect_nothing_more()
        self._lock = threading.Lock()
        self._ending = threading.Event()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self) -> None:
        while not self._ending.is_set():
            self._process.socket.settimeout(0.2)
            try:
                message = wire.Message.parse(*self._process.socket.recvfrom(65536))
            except TimeoutError:
                continue
            if message.kind == wire.TEXT_KIND and message.line.startswith(b"late-"):
                self._run(message.line.rstrip(b"\n"), time.monotonic())

    def _run(self, word: bytes, now: float) -> None:
        with self._lock:
            due = self._pending.pop(word, None)
            if due is None:
                # Cleared, it may have been on its way.
                self.tally["delayed, wrong"] += word not in self._cleared
                self._cleared.discard(word)
                return
        self.tally["delayed, run"] += 1
        if now < due:
            self.tally["delayed, wrong"] += 1
            self.note(f"{word!r} was run {due - now:.3f} s early")

    def act(self) -> None:
        chance = self.random.random()
        if chance < 0.1:
            self._list()
        elif chance < 0.12:
            self._clear()
        elif len(self._pending) < MOST_PENDING:
            self._set(self.random.randint(1, 5))
        self._miss()

    def _ask(self, line: bytes) -> bytes:
        self.tally["sent"] += 1
        self._client.send_frame(line)
        text = self._client.receive_frame(within=PATIENCE).text.rstrip(b"\0")
        self.tally["answered"] += 1
        return text

    def _set(self, seconds: int) -> None:
        self._number += 1
        word = b"late-%d" % self._number
        with self._lock:
            # Full seconds of the device's clock count, so up to one of them may be over already.
            self._pending[word] = time.monotonic() + seconds - 1.001
        answer = self._ask(b"DELAY %d.0|s3.LATE %s" % (seconds, word))
        assert answer == b"OK\r\n\r\n", f"a delay was answered with {answer!r}"
        self.tally["delayed, set"] += 1

    def _list(self) -> None:
        answer = self._ask(b"DELAY")
        assert LISTING.fullmatch(answer), f"the listing is {answer!r}"

    def _clear(self) -> None:
        answer = self._ask(b"DELAY CLEAR")
        assert answer == b"OK\r\n\r\n", f"clearing was answered with {answer!r}"
        with self._lock:
            self.tally["delayed, cleared"] += len(self._pending)
            self._cleared |= set(self._pending)
            self._pending.clear()

    def _miss(self) -> None:
        """What is overdue by far is lost."""
        with self._lock:
            overdue = [word for word, due in self._pending.items() if time.monotonic() > due + PATIENCE * settings.SLOW]
            for word in overdue:
                del self._pending[word]
        self.tally["lost"] += len(overdue)
        if overdue:
            self.note(f"never run: {overdue!r}")

    def rest(self) -> None:
        while self._pending:
            time.sleep(0.1)
            self._miss()

    def end(self) -> None:
        self._ending.set()
        self._reader.join()
        self._client.close()
        self._process.unregister()
        self._process.close()
