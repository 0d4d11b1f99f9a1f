"""What one client, process or device can be up to that must be nobody else's trouble, each to be begun and ended."""

from __future__ import annotations

import contextlib
import fcntl
import os
import resource
import socket
import sys
import termios
import threading
import time
from collections.abc import Callable, Iterator

from harness import accounts, com2, proc, settings, wire
from harness.clients import Client, IpcClient, XcpClient
from harness.com2 import SerialLine
from harness.daemon import RUNNING, Daemon
from harness.log_pipe import LogPipe
from harness.queue_process import QueueProcess
from harness.telnet import GREETING, IAC, NOP, PASSWORD_PROMPT, WILL_ECHO, LinemodeClient, TelnetClient
from harness.waiting import wait_until

REINIT_PROGRAM = "/run/reinit"
REINIT_STARTED = "/run/reinit.started"


class Scene:
    """A daemon with all its ports, one end of its serial line, and what the nuisances need on the device."""

    def __init__(self, start: Callable[..., Daemon], with_log_pipe: bool = False) -> None:
        """`start` starts a daemon as Daemon() does."""
        accounts.install()
        write_reinit_program("exec sleep 30")
        self.line = SerialLine()
        self.log_pipe = LogPipe() if with_log_pipe else None
        self.tessd = start(
            environment={"TESS_REINIT": REINIT_PROGRAM},
            standard_error=self.log_pipe.write_end if self.log_pipe else None,
        )
        if self.log_pipe:
            self.log_pipe.attach(self.tessd)
            self.log_pipe.read_until(com2.opened(1))
            self.log_pipe.read_until(RUNNING)
            self.tessd.wait_asleep()
        else:
            self.tessd.wait_running()
            self.tessd.wait_log(*com2.opened(1))
        self._addresses = iter(range(2001, 2999))

    def process(self) -> QueueProcess:
        return QueueProcess(next(self._addresses))


def write_reinit_program(what: str) -> None:
    """What a re-initialisation does, once it has said that it runs."""
    with contextlib.suppress(FileNotFoundError):
        os.unlink(REINIT_STARTED)
    with open(REINIT_PROGRAM, "w", encoding="ascii") as program:
        program.write(f"#!/bin/sh\necho >>{REINIT_STARTED}\n{what}\n")
    os.chmod(REINIT_PROGRAM, 0o755)


def wait_reinitialising() -> None:
    wait_until(lambda: os.path.exists(REINIT_STARTED), "the re-initialisation runs")


def wait_taken(client: socket.socket) -> None:
    """Until the daemon has taken what a client of a local socket has sent."""

    def unread() -> int:
        return int.from_bytes(fcntl.ioctl(client, termios.TIOCOUTQ, bytes(4)), sys.byteorder)

    wait_until(lambda: unread() == 0, "the daemon takes what was sent")


class Nuisance:
    """Is going on from the return of begin() to end(), which may also come when the daemon has ended."""

    asks: type[Client] = IpcClient  # another client that must be served, on another port
    computes = False  # uses the processor by its nature
    needs_log_pipe = False

    def __init__(self, scene: Scene) -> None:
        self.scene = scene
        self._ending = threading.Event()
        self._threads: list[threading.Thread] = []
        self._stack = contextlib.ExitStack()

    def begin(self) -> None:
        raise NotImplementedError

    def end(self) -> None:
        self._ending.set()
        for thread in self._threads:
            thread.join()
        self._stack.close()

    def __enter__(self) -> Nuisance:
        self.begin()
        return self

    def __exit__(self, *_: object) -> None:
        self.end()

    def keep(self, what: contextlib.AbstractContextManager) -> object:
        """Until the end."""
        return self._stack.enter_context(what)

    def again_and_again(self, what: Callable[[], None], pause: float = 0.05) -> None:
        """In a thread of its own. What does not come as expected is for the tests of that to tell."""

        def run() -> None:
            while not self._ending.is_set():
                with contextlib.suppress(OSError, AssertionError):
                    what()
                self._ending.wait(pause)

        self._threads.append(threading.Thread(target=run, daemon=True))
        self._threads[-1].start()

    def wait_for(self, event: threading.Event, what: str) -> None:
        assert event.wait(10 * settings.SLOW), f"not within {10 * settings.SLOW:g} s: {what}"

    def stay(self, seconds: float) -> None:
        """Or to the end."""
        self._ending.wait(seconds)


# Processes


class SlowProcess:
    """Takes a record out of its queue every so often, in a thread of its own."""

    def __init__(self, process: QueueProcess, pace: float) -> None:
        self.process = process
        self._pace = pace
        self._ending = threading.Event()
        self._lock = threading.Lock()
        self._taken: list[bytes] = []
        self.longest_pause = 0.0
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self) -> None:
        last = time.monotonic()
        while not self._ending.wait(self._pace):
            with contextlib.suppress(AssertionError):
                message = self.process.receive()
                now = time.monotonic()
                with self._lock:
                    self._taken.append(message.line.rstrip(b"\n"))
                    self.longest_pause = max(self.longest_pause, now - last)
                    last = now

    def taken(self) -> list[bytes]:
        with self._lock:
            return list(self._taken)

    def hurry(self) -> None:
        """Takes what comes as fast as it can from now on."""
        self._pace = 0

    def end(self) -> None:
        self._ending.set()
        self._thread.join()


BURST = [bytes([97 + number % 26]) for number in range(500)]


class Burst(Nuisance):
    """Hundreds of one-letter lines in one write to a process that takes its time."""

    asks = XcpClient
    pace = 0.1

    def begin(self) -> None:
        process = self.keep(self.scene.process())
        process.register(b"SLOW", wire.IPC)
        self.client = self.keep(IpcClient())
        self.slow = SlowProcess(process, self.pace)
        self._stack.callback(self.slow.end)
        self.client.send(b"".join(line + b"\n" for line in BURST))
        wait_until(self.slow.taken, "the burst reaches the process")


# The framed socket


class FrameInTwoWrites(Nuisance):
    """The header in one write, and when the daemon has taken it, a short payload in another."""

    def begin(self) -> None:
        self._served = threading.Event()
        self.again_and_again(self._one)
        self.wait_for(self._served, "a header is taken")

    def _one(self) -> None:
        with XcpClient() as client:
            client.send(wire.header(0, 0, 1, 3))
            wait_taken(client.socket)
            client.send(b"*\r\n")
            self._served.set()
            client.expect_close(within=1)


class HalfHeaders(Nuisance):
    """Two clients that send half a header, again when the daemon has closed."""

    def begin(self) -> None:
        for _ in range(2):
            self.again_and_again(self._one, 0.01)

    def _one(self) -> None:
        with XcpClient() as client:
            client.send(wire.frame(b"*\n")[:8])
            client.expect_close(within=1)


class UrgentFrames(Nuisance):
    """A client that has sent one byte of urgent data, and stays."""

    def begin(self) -> None:
        self.client = self.keep(XcpClient())
        self.client.expect_nothing_more()
        self.client.socket.send(b"!", socket.MSG_OOB)


# Telnet


def leave_urgently(prepare: Callable[[TelnetClient], None]) -> None:
    """One byte of urgent data, then a reset."""
    client = TelnetClient()
    try:
        prepare(client)
        client.socket.send(b"!", socket.MSG_OOB)
    finally:
        client.reset()


def at_once(_client: TelnetClient) -> None:
    pass


def greeted(client: TelnetClient) -> None:
    """Without half a line, behind which nobody is missed before his time is out."""
    LinemodeClient.negotiate(client)


class UrgentResets(Nuisance):
    """Telnet clients that send a byte of urgent data and reset: at once, when they are greeted, and when they have logged in."""

    def begin(self) -> None:
        for prepare in (at_once, greeted, TelnetClient.log_in):
            leave_urgently(prepare)
        self._round = 0
        self.again_and_again(self._one, 0.3)

    def _one(self) -> None:
        self._round += 1
        if self._round <= 4:
            leave_urgently((at_once, greeted)[self._round % 2])


class SilentTelnet(Nuisance):
    """Telnet clients that connect and say nothing, and again when they are greeted."""

    count = 3

    def begin(self) -> None:
        for _ in range(self.count):
            self.again_and_again(self._one)

    def _one(self) -> None:
        with TelnetClient() as client:
            client.expect(GREETING, within=3)


class DeafToEcho(Nuisance):
    """A LINEMODE client that is asked for its echo and sends anything else."""

    def begin(self) -> None:
        self._asked = threading.Event()
        self.again_and_again(self._one)
        self.wait_for(self._asked, "a client is asked for its echo")

    def _one(self) -> None:
        with LinemodeClient() as client:
            client.negotiate()
            client.send(b"alice\r\n")
            client.expect(WILL_ECHO)
            self._asked.set()
            for _ in range(5):
                self.stay(0.4)
                client.send(IAC + NOP + b"x")
            client.expect(PASSWORD_PROMPT)


class ExpensivePassword(Nuisance):
    """Log-ins one after the other with a password that takes a second to look at."""

    computes = True

    def begin(self) -> None:
        self._given = threading.Event()
        self.again_and_again(self._one)
        self.wait_for(self._given, "a password is given")

    def _one(self) -> None:
        with TelnetClient() as client:
            client.give_name(accounts.PATIENT.name)
            client.send(accounts.PATIENT.password + b"\r\n")
            self._given.set()
            client.expect_connected(accounts.PATIENT.name, within=60)


# The serial line


class StalledLine(Nuisance):
    """The serial line takes nothing, and there are answers for it, and processes that write to it."""

    def begin(self) -> None:
        self.scene.line.fill()
        self._process = self.keep(self.scene.process())
        self._process.reply(wire.FIRST_COM2_ID, b"x" * 8000)
        self.again_and_again(self._one)

    def _one(self) -> None:
        self._process.send(wire.record(wire.COM2_WRITE, b"menu", length=4))
        self._process.reply(wire.FIRST_COM2_ID, b"y" * 100)
        self._process.receive(within=3)


# Long work


class TypedReinitialisation(Nuisance):
    """RESET REINIT, with a program that runs for 30 seconds."""

    asks = XcpClient

    def begin(self) -> None:
        self.client = self.keep(IpcClient())
        self.client.send(b"RESET REINIT s3\n")
        wait_reinitialising()


class ReinitialisationByMessage(Nuisance):
    """The same by a message of a process."""

    def begin(self) -> None:
        self.process = self.keep(self.scene.process())
        self.process.send(wire.record(wire.RESET, b"RESET REINIT s3" + bytes(60)))
        wait_reinitialising()


# What there is not enough of


def lowest_free(pid: int) -> int:
    used = proc.descriptors(pid)
    return next(number for number in range(len(used) + 1) if number not in used)


@contextlib.contextmanager
def without_descriptors(pid: int) -> Iterator[None]:
    """The process can open nothing more."""
    before = resource.prlimit(pid, resource.RLIMIT_NOFILE)
    resource.prlimit(pid, resource.RLIMIT_NOFILE, (lowest_free(pid), before[1]))
    try:
        yield
    finally:
        with contextlib.suppress(ProcessLookupError):
            resource.prlimit(pid, resource.RLIMIT_NOFILE, before)


class NoDescriptors(Nuisance):
    """A client of each socket port that cannot be accepted, and another that asks all the time."""

    asks = XcpClient
    computes = True

    def begin(self) -> None:
        busy = self.keep(IpcClient())
        busy.expect_nothing_more()
        self.again_and_again(busy.expect_nothing_more, 0)
        self.keep(without_descriptors(self.scene.tessd.pid))
        for opened in (TelnetClient, XcpClient, IpcClient):
            self.keep(opened())


class UnreadLog(Nuisance):
    """Standard error is a full pipe that nobody reads, and there is something to log."""

    needs_log_pipe = True

    def begin(self) -> None:
        self.scene.log_pipe.fill()
        self.again_and_again(self._one)

    def _one(self) -> None:
        with XcpClient() as client:
            client.expect_nothing_more()


ROWS: dict[str, type[Nuisance]] = {
    "burst": Burst,
    "frame in two writes": FrameInTwoWrites,
    "half headers": HalfHeaders,
    "urgent frames": UrgentFrames,
    "urgent resets": UrgentResets,
    "silent telnet": SilentTelnet,
    "deaf to echo": DeafToEcho,
    "expensive password": ExpensivePassword,
    "stalled line": StalledLine,
    "typed re-initialisation": TypedReinitialisation,
    "re-initialisation by message": ReinitialisationByMessage,
    "unread log": UnreadLog,
    "no descriptors": NoDescriptors,  # the last: what others open would be missing too
}


class AllAtOnce(Nuisance):
    """Everything above, but for the second of the re-initialisations, which would be refused, and the missing descriptors,
    which would keep the others out."""

    computes = True
    needs_log_pipe = True

    def begin(self) -> None:
        for row in ROWS.values():
            if row not in (ReinitialisationByMessage, NoDescriptors):
                self.keep(row(self.scene))
