"""A standard error that is a pipe, which nobody reads until the test does."""

from __future__ import annotations

import contextlib
import fcntl
import os
import threading
from collections.abc import Iterator

from harness.daemon import Daemon
from harness.waiting import wait_until

_SIZE = 4096  # the least that a pipe holds
_FILLER = b"\n"


class LogPipe:
    """Give `write_end` to a daemon as its standard error, and then the daemon to `attach`."""

    def __init__(self) -> None:
        self._read_end, self.write_end = os.pipe()
        fcntl.fcntl(self._read_end, fcntl.F_SETPIPE_SZ, _SIZE)
        os.set_blocking(self._read_end, False)
        self._daemon: Daemon | None = None

    def attach(self, daemon: Daemon) -> None:
        self._daemon = daemon
        os.close(self.write_end)

    def read_until(self, entry: tuple[int, str]) -> None:
        """What the daemon logs, up to this line."""

        def seen() -> bool:
            self.read()
            return entry in self._daemon.entries()

        wait_until(seen, f"log line {entry}", 10)

    @contextlib.contextmanager
    def reading(self) -> Iterator[None]:
        """Somebody does read it meanwhile, and it holds what is written until he comes."""
        fcntl.fcntl(self._read_end, fcntl.F_SETPIPE_SZ, 1 << 18)
        ending = threading.Event()

        def run() -> None:
            while not ending.wait(0.002):
                self.read()

        thread = threading.Thread(target=run, daemon=True)
        thread.start()
        try:
            yield
        finally:
            ending.set()
            thread.join()
            self.read()

    def read(self) -> None:
        """Hands what is in the pipe now to the daemon's log, without what filled it."""
        with contextlib.suppress(BlockingIOError):
            while piece := os.read(self._read_end, 1 << 16):
                lines = (line for line in piece.splitlines(keepends=True) if line != _FILLER)
                self._daemon.take_log(b"".join(lines))

    def fill(self) -> None:
        """Until it takes no more. The daemon's own end stays as it is, as far as waiting is concerned."""
        self.read()
        filling = os.open(f"/proc/self/fd/{self._read_end}", os.O_WRONLY | os.O_NONBLOCK | os.O_CLOEXEC)
        try:
            with contextlib.suppress(BlockingIOError):
                while True:
                    os.write(filling, _FILLER * _SIZE)
            with contextlib.suppress(BlockingIOError):
                while True:
                    os.write(filling, _FILLER)
        finally:
            os.close(filling)
