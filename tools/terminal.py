"""A program on a pseudo-terminal, driven as a person would drive it: by what is on the screen, and by typing."""

from __future__ import annotations

import fcntl
import os
import select
import struct
import subprocess
import termios
import time


class TerminalError(OSError):
    """The program ended, or did not show what was waited for; the text holds the screen."""


class Terminal:
    """A program with a terminal of 80 columns and 24 rows of its own; `shown` is everything written there so far.

    Of our environment it sees the search path only: what a user has set up must not change what it does."""

    def __init__(self, *command: str) -> None:
        """Starts the program. Errors are OSError."""
        self._command = command
        environment = {"PATH": os.environ["PATH"], "TERM": "xterm", "HOME": "/tmp", "LC_ALL": "C"}
        self._master, slave = os.openpty()
        try:
            self.resize(80, 24)
            self.process = subprocess.Popen(
                command,
                stdin=slave,
                stdout=slave,
                stderr=slave,
                start_new_session=True,
                env=environment,
                preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0),
            )
        except BaseException:
            os.close(self._master)
            raise
        finally:
            os.close(slave)
        self.shown = b""
        self._taken = 0  # how much of it wait_for() has gone past

    def resize(self, columns: int, rows: int) -> None:
        fcntl.ioctl(self._master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def settings(self) -> list:
        """How the terminal treats keys and text now, as termios has it."""
        return termios.tcgetattr(self._master)

    def type(self, keys: bytes) -> None:
        """Presses keys; Enter is a carriage return."""
        while keys:
            keys = keys[os.write(self._master, keys) :]

    def wait_for(self, text: bytes, seconds: float) -> bytes:
        """Returns what has come on the screen since the last call, up to and with `text`."""
        end = time.monotonic() + seconds
        while (found := self.shown.find(text, self._taken)) < 0:
            if not self.look(end - time.monotonic()):
                raise TerminalError(f"{' '.join(self._command)}: no {text!r} on the screen:\n{self.shown!r}")
        shown = self.shown[self._taken : found + len(text)]
        self._taken = found + len(text)
        return shown

    def wait_end(self, seconds: float) -> int:
        """Returns the program's exit status; `shown` then holds its last words too."""
        end = time.monotonic() + seconds
        while self.look(end - time.monotonic()):
            pass
        try:
            return self.process.wait(max(end - time.monotonic(), 0.1))
        except subprocess.TimeoutExpired:
            raise TerminalError(f"{' '.join(self._command)} did not end:\n{self.shown!r}") from None

    def look(self, seconds: float = 0) -> bool:
        """Takes in what the program shows; False when it shows nothing more in this time, or has ended."""
        if not select.select([self._master], [], [], max(seconds, 0))[0]:
            return False
        try:
            piece = os.read(self._master, 65536)
        except OSError:  # nobody holds the terminal open any more
            return False
        self.shown += piece
        return bool(piece)

    def close(self) -> None:
        """Takes the terminal away from a program that still runs, and ends it."""
        if self._master < 0:
            return
        os.close(self._master)
        self._master = -1
        self.process.kill()
        self.process.wait()

    def __enter__(self) -> Terminal:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()
