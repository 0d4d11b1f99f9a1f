"""The daemon as a process: started, watched through its log, stopped."""

from __future__ import annotations

import contextlib
import dataclasses
import itertools
import os
import re
import select
import signal
import socket
import subprocess
from collections.abc import Iterable, Mapping, Sequence

from harness import preload, proc, settings
from harness.waiting import Deadline, wait_until

# Local ports only: what the tests of these ports need.
LOCAL_PORTS = ("--nocom2", "--notelnet")

# All but the serial line.
SOCKET_PORTS = ("--nocom2",)

INITIALIZE_COM2 = (36101, "Initialize Com2 connection")
INITIALIZE_TELNET = (36004, "Initialize telnet connection")
INITIALIZE_XCP = (36104, "Initialize XCP socket connection")
INITIALIZE_IPC = (36104, "Initialize IPC socket connection")
RUNNING = (51000, "Command listener daemon running")
NORMAL_EXIT = (51001, "Normal application exit")
ERROR_RUNTIME = (51008, "Error runtime")
CLOSING_ALL = (36201, "Closing all connections!")
CLOSING_TELNET = (36201, "Closing all telnet connections!")
COM2_PORT_CLOSED = (36102, "COM2 port closed")
TELNET_PORT_CLOSED = (6001, "telnet port closed")
XCP_PORT_CLOSED = (36105, "XCP Socket port closed")
IPC_PORT_CLOSED = (36105, "Socket port closed")
RECEIVED_SIGTERM = (250009, "Received SIGTERM, proceeding with orderly shutdown")
RECEIVED_SIGQUIT = (250009, "Received SIGQUIT, proceeding with orderly shutdown")
RECEIVED_SIGCHLD = (250009, "Signal 'SIGCHLD' received, but no child exists")

_LINE = re.compile(r"(?P<time>\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)    \[TESS\] (?P<id>\d+) (?P<text>.*)")
_TROUBLE = re.compile(r"Sanitizer|runtime error:|terminate called|Assertion")


@dataclasses.dataclass(frozen=True)
class LogLine:
    time: str
    id: int
    text: str

    @property
    def entry(self) -> tuple[int, str]:
        return self.id, self.text


class Daemon:
    """One tessd. Its log is a file in `artefacts`, a folder given by its descriptor, which outlives the test."""

    artefacts: int | None = None
    _numbers = itertools.count(1)

    def __init__(
        self,
        *arguments: str,
        environment: Mapping[str, str | None] = {},
        launcher: Sequence[str] = (),
        closed_streams: Iterable[int] = (),
        occupied: Iterable[int] = (),
        standard_error: int | None = None,
    ) -> None:
        """Starts the program; wait_ready() says when it serves.

        environment     added to the tests' own; None takes a variable away
        launcher        a program that runs the daemon as its one child
        closed_streams  which of the descriptors 0, 1 and 2 are closed when the program starts
        occupied        descriptors that are open on /dev/null when the program starts
        standard_error  what it gets in the place of the log file; who reads from it hands on to take_log()
        """
        self.number = next(Daemon._numbers)
        self._log_file = self._artefact("log")
        self._output_file = self._artefact("output")
        self._notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        notify_path = f"/run/notify.{self.number}"
        self._notify.bind(notify_path)
        self.argv0 = settings.TESSD
        self.command = [*launcher, *settings.WRAPPER, settings.TESSD, *arguments]
        closed, taken = tuple(closed_streams), tuple(occupied)

        def prepare() -> None:
            for descriptor in taken:
                os.dup2(0, descriptor)
            for stream in closed:
                os.close(stream)

        self.process = subprocess.Popen(
            self.command,
            stdin=subprocess.DEVNULL,
            stdout=self._output_file,
            stderr=self._log_file if standard_error is None else standard_error,
            env=_environment(environment, notify_path),
            preexec_fn=prepare if closed or taken else None,
            close_fds=not taken,
        )
        self._launched = bool(launcher)
        self._pidfd = os.pidfd_open(self.process.pid)
        self._read = 0
        self._rest = b""
        self.lines: list[LogLine] = []
        self.other_output: list[str] = []
        self.end_seen = False

    def _artefact(self, kind: str) -> int:
        name = f"tessd-{self.number}.{kind}"
        return os.open(name, os.O_RDWR | os.O_CREAT | os.O_APPEND | os.O_CLOEXEC, 0o600, dir_fd=Daemon.artefacts)

    @property
    def pid(self) -> int:
        """Process number of the daemon itself, also behind a launcher."""
        return proc.children(self.process.pid)[0] if self._launched else self.process.pid

    # Start

    def wait_ready(self, within: float = 10) -> Daemon:
        """Returns once the daemon has said that it is up. Its log line follows a moment later: wait_running()."""
        deadline = Deadline(within)
        poller = select.poll()
        poller.register(self._notify, select.POLLIN)
        poller.register(self._pidfd, select.POLLIN)
        while not (ready := {fd for fd, _ in poller.poll(deadline.left() * 1000)}) and not deadline.over():
            pass
        if self._notify.fileno() in ready:
            message = self._notify.recv(4096)
            assert message.split(b"\n")[0] == b"READY=1", f"expected READY=1, got {message!r}"
            return self
        if ready:
            raise AssertionError(f"tessd ended with {self.process.wait()} before it was ready\n{self.log_text()}")
        raise AssertionError(f"tessd was not ready within {deadline.seconds:g} s\n{self.log_text()}")

    def has_told_manager(self) -> bool:
        """Whether it has said that it is up, where nobody has waited for that."""
        return bool(select.select([self._notify], [], [], 0)[0])

    def wait_running(self, within: float = 10) -> Daemon:
        """Returns once the daemon has said that it is up, has logged so, and both its threads wait for work.

        The thread sanitizer does not survive a signal that hits a thread in its first instructions."""
        self.wait_ready(within)
        self.wait_log(*RUNNING)
        self.wait_asleep()
        return self

    def wait_asleep(self, within: float = 10) -> None:
        """Returns once no thread of the daemon has anything to do."""
        wait_until(self._asleep, "all threads of tessd asleep", within)

    def _asleep(self) -> bool:
        assert not self.ended(), f"tessd has ended\n{self.log_text()}"
        try:
            return all(proc.status_field(self.pid, task, "State").startswith("S") for task in proc.tasks(self.pid))
        except (FileNotFoundError, ProcessLookupError):
            return False  # one of its threads has ended

    # Log

    def log_text(self) -> str:
        """Everything the daemon has written to standard error."""
        return os.pread(self._log_file, 1 << 26, 0).decode(errors="replace")

    def output_text(self) -> str:
        """Everything the daemon has written to standard output."""
        return os.pread(self._output_file, 1 << 26, 0).decode(errors="replace")

    def take_log(self, piece: bytes) -> None:
        """Something that the daemon has written to another standard error than its log file."""
        os.write(self._log_file, piece)

    def read_log(self) -> list[LogLine]:
        """The log lines so far."""
        while piece := os.pread(self._log_file, 1 << 20, self._read):
            self._read += len(piece)
            *whole, self._rest = (self._rest + piece).split(b"\n")
            for line in whole:
                text = line.decode(errors="replace")
                if match := _LINE.fullmatch(text):
                    self.lines.append(LogLine(match["time"], int(match["id"]), match["text"]))
                else:
                    self.other_output.append(text)
        return self.lines

    def entries(self) -> list[tuple[int, str]]:
        """Identifier and text of the log lines so far."""
        return [line.entry for line in self.read_log()]

    def wait_log(self, identifier: int, text: str | re.Pattern, within: float = 5, count: int = 1) -> str:
        """Returns the text of the `count`-th line with this identifier and text."""

        def matching() -> list[str]:
            found = [entry[1] for entry in self.entries() if entry[0] == identifier and _matches(text, entry[1])]
            return found if len(found) >= count else []

        return wait_until(matching, f"log line {identifier} {text!r} (x{count})\n{self.log_text()}", within)[count - 1]

    def expect_entries(self, expected: Sequence[tuple[int, str]]) -> None:
        """The whole log so far is exactly this."""
        actual = self.entries()
        assert actual == list(expected), f"expected the log\n{_listing(expected)}\ngot\n{_listing(actual)}"

    # End

    def signal(self, number: int) -> None:
        os.kill(self.pid, number)

    def hold(self) -> None:
        """Stops every thread of it; release() lets them go on. One may still run for a moment after the signal."""
        self.signal(signal.SIGSTOP)
        wait_until(
            lambda: all(proc.status_field(self.pid, task, "State")[0] == "T" for task in proc.tasks(self.pid)), "it is held"
        )

    def release(self) -> None:
        self.signal(signal.SIGCONT)

    def ended(self) -> bool:
        return bool(select.select([self._pidfd], [], [], 0)[0])

    def wait_end(self, within: float = 10) -> int:
        """Exit status; negative for a signal."""
        deadline = Deadline(within)
        while not select.select([self._pidfd], [], [], deadline.left())[0]:
            if not deadline.over():
                continue
            raise AssertionError(f"tessd still runs after {deadline.seconds:g} s\n{self.where()}\n{self.log_text()}")
        self.end_seen = True
        return self.process.wait()

    def expect_end(self, status: int, within: float = 10) -> None:
        actual = self.wait_end(within)
        assert actual == status, f"expected exit status {status}, got {actual}\n{self.log_text()}"
        self.expect_no_trouble()

    def expect_normal_end(self, within: float = 10) -> None:
        self.expect_end(0, within)
        last = self.entries()[-1:]
        assert last == [NORMAL_EXIT], f"expected the log to end with {NORMAL_EXIT}, got\n{self.log_text()}"

    def stop(self) -> None:
        """SIGTERM, and everything about the end must be in order."""
        self.signal(signal.SIGTERM)
        self.expect_normal_end()

    def kill(self) -> None:
        """The end of a daemon that cannot clean up."""
        self.signal(signal.SIGKILL)
        self.wait_end()

    def forget(self) -> None:
        """Of a daemon that has ended, for tests that start thousands: nothing of it is left, its log neither."""
        for kind in ("log", "output"):
            os.unlink(f"tessd-{self.number}.{kind}", dir_fd=Daemon.artefacts)
        for descriptor in (self._log_file, self._output_file, self._pidfd):
            os.close(descriptor)
        os.unlink(self._notify.getsockname())
        self._notify.close()

    def expect_no_trouble(self) -> None:
        """No sanitizer report, nothing else on standard error but log lines, nothing on standard output."""
        self.read_log()
        trouble = self.other_output + [self._rest.decode(errors="replace")] * bool(self._rest)
        assert not trouble, "unexpected output of tessd:\n" + "\n".join(trouble)
        assert self.output_text() == "", f"tessd wrote to standard output: {self.output_text()!r}"

    def expect_no_sanitizer_report(self) -> None:
        found = [line for line in self.log_text().splitlines() if _TROUBLE.search(line)]
        assert not found, "tessd ended in trouble:\n" + self.log_text()

    def where(self) -> str:
        """What each thread of a daemon that does not end is doing."""
        lines = []
        for task in proc.tasks(self.pid):
            with contextlib.suppress(OSError), open(f"/proc/{self.pid}/task/{task}/wchan", encoding="ascii") as wchan:
                state = proc.status_field(self.pid, task, "State")
                lines.append(f"thread {task}: {state} in {wchan.read() or '?'}")
        return "\n".join(lines)


def _environment(changes: Mapping[str, str | None], notify_path: str) -> dict[str, str]:
    environment = dict(os.environ)
    for name in ("TESS_QUEUE_DIR", "TESS_LOG", "TESS_REINIT"):
        environment.pop(name, None)
    environment.setdefault("LSAN_OPTIONS", f"suppressions={settings.PROJECT}/tests/lsan.supp:print_suppressions=0")
    environment["NOTIFY_SOCKET"] = notify_path
    environment.update(preload.environment())
    for name, value in changes.items():
        if value is None:
            environment.pop(name, None)
        else:
            environment[name] = value
    return environment


def _matches(expected: str | re.Pattern, text: str) -> bool:
    return text == expected if isinstance(expected, str) else bool(expected.fullmatch(text))


def _listing(entries: Iterable[tuple[int, str]]) -> str:
    return "\n".join(f"    {identifier} {text}" for identifier, text in entries)
