"""A program on a terminal of its own, the keys typed there and what its screen shows."""

from __future__ import annotations

import fcntl
import os
import select
import signal
import struct
import subprocess
import termios
from collections.abc import Sequence

from harness.waiting import Deadline


class Terminal:
    """The terminal has 24 lines of 80 columns; `shown` is everything written to it so far."""

    def __init__(self, *command: str) -> None:
        self._command: Sequence[str] = command
        self._master, slave = os.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 80, 0, 0))
        self.process = subprocess.Popen(
            command,
            stdin=slave,
            stdout=slave,
            stderr=slave,
            env={"PATH": os.environ["PATH"], "TERM": "xterm", "HOME": "/tmp", "LC_ALL": "C"},
            preexec_fn=_take_terminal,
        )
        os.close(slave)
        self.shown = b""
        self._taken = 0

    def __enter__(self) -> Terminal:
        return self

    def __exit__(self, *_) -> None:
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGKILL)
            self.process.wait()
        os.close(self._master)

    def type(self, keys: bytes) -> None:
        os.write(self._master, keys)

    def expect(self, text: bytes, within: float = 10) -> None:
        """Waits until `text` is shown, behind what was expected before."""
        deadline = Deadline(within)
        while (found := self.shown.find(text, self._taken)) < 0:
            if not self._read(deadline.left()):
                raise AssertionError(f"{self._command}: expected {text!r} on the screen, got {self.shown[self._taken:]!r}")
        self._taken = found + len(text)

    def expect_end(self, within: float = 10) -> int:
        """Waits for the program's end and returns its status."""
        deadline = Deadline(within)
        while self._read(deadline.left()):
            pass
        try:
            return self.process.wait(max(deadline.left(), 0.001))
        except subprocess.TimeoutExpired:
            raise AssertionError(f"{self._command} does not end; its screen shows {self.shown!r}") from None

    def _read(self, seconds: float) -> bool:
        """Takes in what is shown next; False when the time is over or the program has gone."""
        if not select.select([self._master], [], [], seconds)[0]:
            return False
        try:
            piece = os.read(self._master, 4096)
        except OSError:  # EIO: nobody has the terminal open any more
            return False
        self.shown += piece
        return bool(piece)


def _take_terminal() -> None:
    os.setsid()
    fcntl.ioctl(0, termios.TIOCSCTTY, 0)
