"""tessctl, run as a user would run it."""

from __future__ import annotations

import contextlib
import os
import signal
import subprocess
from collections.abc import Iterator

import pytest

from harness import settings
from harness.terminal import Terminal
from harness.waiting import wait_until

PROGRAM = os.path.join(settings.BIN_DIR, "tessctl")

DONE, REFUSED, NO_ANSWER, NO_CONNECTION, WRONG_USAGE = 0, 1, 2, 3, 64

needs_tessctl = pytest.mark.skipif(not os.path.exists(PROGRAM), reason="tessctl is a program of the host, not of the target")


class Result:
    """How a run has ended."""

    def __init__(self, run: subprocess.CompletedProcess) -> None:
        self.status, self.output, self.errors = run.returncode, run.stdout, run.stderr
        self._what = f"tessctl {' '.join(run.args[1:])}"

    def expect(self, status: int, output: str | None = None, errors: str | None = None) -> Result:
        """Output and errors must be exactly so, where given."""
        everything = f"{self._what}: status {self.status}, output\n{self.output}\nerrors\n{self.errors}"
        assert self.status == status, f"expected status {status}, got\n{everything}"
        assert output is None or self.output == output, f"expected the output\n{output}\ngot\n{everything}"
        assert errors is None or self.errors == errors, f"expected the errors\n{errors}\ngot\n{everything}"
        return self


def run(*arguments: str, lines: str | None = None, within: float = 20, **options: object) -> Result:
    """Runs it to its end; standard input is empty when there are no lines."""
    return Result(
        subprocess.run(
            [PROGRAM, *arguments], input=lines or "", capture_output=True, text=True, timeout=within * settings.SLOW, **options
        )
    )


@contextlib.contextmanager
def running(*arguments: str, until: str) -> Iterator[subprocess.Popen]:
    """Starts it, waits until it says `until`, and ends it as a user does when it is not ended yet."""
    with open("/tmp/tessctl.errors", "w+", encoding="utf-8") as errors:
        process = subprocess.Popen([PROGRAM, *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=errors, text=True)
        process.errors = lambda: open("/tmp/tessctl.errors", encoding="utf-8").read()  # type: ignore[attr-defined]
        try:
            wait_until(lambda: until in process.errors(), f"tessctl says {until!r}", 10)
            yield process
        finally:
            if process.poll() is None:
                process.send_signal(signal.SIGTERM)
                process.wait(20 * settings.SLOW)
            process.stdout.close()


def serving(name: str, *program: str, options: tuple[str, ...] = ()) -> contextlib.AbstractContextManager[subprocess.Popen]:
    """`tessctl serve`."""
    return running("serve", name, *options, "--", *program, until=f"{name} is served")


def on_terminal(*arguments: str) -> Terminal:
    # libedit does not free the names of the functions that it is given.
    return Terminal("/usr/bin/env", "ASAN_OPTIONS=detect_leaks=0", PROGRAM, *arguments)
