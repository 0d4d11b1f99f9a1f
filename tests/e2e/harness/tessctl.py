"""tessctl, run as a user would run it."""

from __future__ import annotations

import contextlib
import os
import shutil
import signal
import subprocess
from collections.abc import Iterator

import pytest

from harness import proc, settings
from harness.daemon import Daemon
from harness.terminal import Terminal
from harness.waiting import wait_until

PROGRAM = os.path.join(settings.BIN_DIR, "tessctl")

# Whoever started the tests may ignore SIGHUP, which a program inherits and tessctl respects.
HEEDING_SIGHUP = ("env", "--default-signal=HUP")

DONE, REFUSED, NO_ANSWER, NO_CONNECTION, WRONG_USAGE = 0, 1, 2, 3, 64

needs_tessctl = pytest.mark.skipif(
    not os.path.exists(PROGRAM) or settings.emulated(), reason="tessctl is run without what emulates the daemon's processor"
)


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
def running(*arguments: str, until: str, launcher: tuple[str, ...] = ()) -> Iterator[subprocess.Popen]:
    """Starts it, waits until it says `until`, and ends it as a user does when it is not ended yet.

    launcher    a program that becomes tessctl, or ends when that does"""
    with open("/tmp/tessctl.errors", "w+", encoding="utf-8") as errors:
        process = subprocess.Popen(
            [*HEEDING_SIGHUP, *launcher, PROGRAM, *arguments],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=errors,
            text=True,
        )
        process.errors = lambda: open("/tmp/tessctl.errors", encoding="utf-8").read()  # type: ignore[attr-defined]
        try:
            wait_until(lambda: until in process.errors(), f"tessctl says {until!r}", 10)
            yield process
        finally:
            if process.poll() is None:
                for child in proc.children(process.pid) if "strace" in launcher else [process.pid]:
                    os.kill(child, signal.SIGTERM)
                process.wait(20 * settings.SLOW)
            process.stdout.close()


def serving(
    name: str, *program: str, options: tuple[str, ...] = (), launcher: tuple[str, ...] = ()
) -> contextlib.AbstractContextManager[subprocess.Popen]:
    """`tessctl serve`."""
    return running("serve", name, *options, "--", *program, until=f"{name} is served", launcher=launcher)


def tampered(call: str, how: str) -> tuple[str, ...]:
    """A launcher: the system treats this call as strace(1) is told."""
    return ("strace", "-f", "--seccomp-bpf", "-qq", "-o", "/dev/null", "-e", f"trace={call}", "-e", f"inject={call}:{how}")


needs_tracer = pytest.mark.skipif(
    settings.emulated() or settings.sanitized() or shutil.which("strace") is None,
    reason="strace is not installed, or emulators and sanitizers suffer no tracer",
)


@contextlib.contextmanager
def held(daemon: Daemon) -> Iterator[None]:
    """A daemon that does nothing at all."""
    daemon.hold()
    try:
        yield
    finally:
        daemon.release()


def on_terminal(*arguments: str) -> Terminal:
    # libedit does not free the names of the functions that it is given.
    return Terminal("/usr/bin/env", "ASAN_OPTIONS=detect_leaks=0", PROGRAM, *arguments)
