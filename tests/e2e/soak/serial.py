"""The terminal on the serial line, and a process that writes to that line."""

from __future__ import annotations

import time

from harness import settings, wire
from harness.com2 import MUTE_SECONDS, SerialLine
from harness.queue_process import QueueProcess
from harness.waiting import Deadline
from soak.speech import PATIENCE, REFUSAL, answer_to
from soak.stage import Actor, Stage
from soak.well import HEALTHY

LATE = 3.0  # seconds for an answer, when one before it has come: the last command may have been refused
SURE = 1.5  # seconds of the mute in which what is typed must be thrown away


class Terminal(Actor):
    """Types commands; and has something written to its line, which is mute for a while then."""

    pause = (0.05, 0.3)

    def __init__(self, stage: Stage, line: SerialLine) -> None:
        super().__init__(stage, "com2")
        self._line = line
        self._number = 0

    def begin(self) -> None:
        self._process = QueueProcess(2300)

    def act(self) -> None:
        chance = self.random.random()
        if chance < 0.03:
            self._write(b"menu %d\r\n" % self._number, patience=0)
        elif chance < 0.04:
            # More than the line holds at once, for a terminal that looks away for a moment.
            self._write(bytes(65 + number % 26 for number in range(8000)), patience=self.random.uniform(0.1, 0.5))
        else:
            self._ask()

    def _type(self, what: bytes) -> bytes:
        """A command for the healthy process. Returns its answer."""
        self._number += 1
        word = b"%s-%d" % (what, self._number)
        self._line.type(b"s3." + HEALTHY + b" " + word + b"\r")
        return answer_to(word)

    def _read(self, seconds: float) -> bytes:
        """The next line that is not empty; what has come of it when the time is over."""
        end = time.monotonic() + seconds
        line = b""
        while not line.endswith(b"\n") and (left := end - time.monotonic()) > 0:
            line += self._line.receive(1, left / settings.SLOW)
            if line == b"\r\n":
                line = b""
        return line.rstrip(b"\r\n")

    def _ask(self) -> None:
        began = time.monotonic()
        answer = self._type(b"com2")
        self.tally["sent"] += 1
        got = self._read(PATIENCE * settings.SLOW)
        if got == answer:
            self.worst = max(self.worst, time.monotonic() - began)
            self.tally["answered"] += 1
        elif got == REFUSAL:
            self.tally["refused"] += 1
        else:
            self.tally["lost"] += 1
            self.note(f"waited for {answer!r}, got {got!r}")
            self._find_its_feet([])

    def _write(self, text: bytes, patience: float) -> None:
        """Has a process write to the line. What is typed then is thrown away, until the line is mute no more."""
        began = time.monotonic()
        self._process.send(wire.record(wire.COM2_WRITE, text, tag=self._number, length=len(text)))
        self.stage.stay(patience)
        got = self._line.receive(len(text), within=2 * MUTE_SECONDS)
        reply = self._process.receive(within=PATIENCE)
        self.tally["texts written"] += 1
        if got != text and reply.length_word == 0:
            self.tally["lost"] += 1
            self.note(f"{len(got)} of {len(text)} bytes of a text that was written")
        self.tally["texts given up"] += reply.length_word
        muted = self._type(b"muted")
        self._find_its_feet([muted] if time.monotonic() - began < SURE else [])

    def _find_its_feet(self, unwanted: list[bytes]) -> None:
        """Types until it is heard again, and has read all that there is. The unwanted answers must not come."""
        tried: list[bytes] = []
        deadline = Deadline(PATIENCE)
        heard = False
        while not deadline.over():
            tried.append(self._type(b"tried"))
            while text := self._read(LATE if heard else 0.5):
                heard = heard or text in tried
                if text in unwanted:
                    self.tally["wrong"] += 1
                    self.note(f"typed while the line was mute, and answered: {text!r}")
                if text == tried[-1]:
                    return
        self.tally["lost"] += 1
        self.note("the line is not heard again")

    def end(self) -> None:
        self._process.close()
