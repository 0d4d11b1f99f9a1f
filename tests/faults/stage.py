"""A daemon with all its ports, and everybody who talks to it: what each of them gets while calls fail, and afterwards."""

from __future__ import annotations

import contextlib
import fcntl
import os
import re
import socket
import sys
import termios
import time
from collections.abc import Callable, Iterator

from fault_library import EVERY, FIRST, Fault, FaultControl
from harness import com2, items, settings, wire
from harness.answers import excuse_standing_in_line
from harness.clients import Client, IpcClient, XcpClient
from harness.com2 import SerialLine
from harness.daemon import RUNNING, Daemon
from harness.nuisances import REINIT_PROGRAM, write_reinit_program
from harness.queue_process import AnsweringProcess, QueueProcess, queue_path
from harness.telnet import TelnetClient
from harness.waiting import Deadline, wait_until

PATIENCE = 2.5  # seconds for an answer that may be late by the second for which a port rests, or a lost wake-up
ANSWERED, UNANSWERED, CLOSED, REFUSED = "answered", "unanswered", "closed", "refused"
_TOGETHER = 10  # answers; as many fit the daemon's queue
_FULL = 14  # records; a queue takes 11 and then no more
HEARD = b"*", b"0\r\n\r\n"  # a question that the daemon itself answers
COMMAND, ANSWER = b"s3.ENC GETX", b"5\r\n\r\n"

# Who is connected, as the daemon tells it.
_LOCAL_PEER = re.compile(rb"pid \d+ [^ ].* uid \d+")
_PEERS = {b"telnet": re.compile(rb"127\.0\.0\.1:\d+"), b"ipc": _LOCAL_PEER, b"xcp": _LOCAL_PEER}
_OF_STATUS = ("getpeername/telnet", "getsockopt/ipc", "getsockopt/xcp", "open/other", "read/other", "close/other")

# Log lines that tell of no trouble.
_NORMAL = (36101, 36004, 36104, 51000, 36103, 6000, 36106, 6001, 36102, 36105, 36201, 51001)
_NORMAL_TEXTS = ("Received SIGTERM", "Signal 'SIGCHLD' received")


def trouble(tessd: Daemon, after: int = 0) -> list[str]:
    """What the log tells of what went wrong, from the `after`-th line on: each line once, in no order."""
    lines = [
        f"{number} {text}"
        for number, text in tessd.entries()[after:]
        if (number not in _NORMAL and not text.startswith(_NORMAL_TEXTS)) or text.startswith("Error")
    ]
    return sorted({line.strip() for line in lines})


class Stage:
    """Everything that a daemon with all ports has around it."""

    def __init__(self, launch: Callable[..., Daemon], fault: Fault | None, armed: bool = False, leftovers: bool = False) -> None:
        """armed        calls fail from the start on
        leftovers    there are the files of a daemon that was killed; else there is not even a queue directory"""
        prepare_files(leftovers)
        self.line = SerialLine()
        self.control = FaultControl(fault, armed)
        self.tessd = launch(environment={**self.control.environment, "TESS_REINIT": REINIT_PROGRAM})
        excuse_standing_in_line(self.tessd.process.pid)
        self.process: AnsweringProcess | None = None
        self.clients: dict[str, Client] = {}
        self._number = 2100

    def wait_started(self) -> bool:
        """Waits until the daemon says that it is up.

        Returns False when it has ended before that."""
        deadline = Deadline(10)
        while not deadline.over():
            if self.tessd.ended():
                return False
            if RUNNING in self.tessd.entries() or self.tessd.has_told_manager():
                return True
            time.sleep(0.002)
        raise AssertionError(f"neither up nor ended\n{self.tessd.where()}\n{self.tessd.log_text()}")

    def wait_settled(self) -> bool:
        """Waits until the daemon has nothing to do.

        Returns False when it has ended in place of that."""

        def settled() -> bool:
            if self.tessd.ended():
                return True
            with contextlib.suppress(AssertionError):
                self.tessd.wait_asleep(0)
                return True
            return False

        wait_until(settled, "tessd has nothing to do, or has ended", 10)
        return not self.tessd.ended()

    def populate(self) -> None:
        """A process, and a client of each port that stays."""
        self.tessd.wait_asleep()
        self.process = AnsweringProcess(2001, b"ENC", lambda _command: ANSWER)
        self.clients = {"ipc": IpcClient(), "xcp": XcpClient(), "telnet": TelnetClient()}
        self.clients["telnet"].log_in()
        for client in (*self.clients.values(), self.line):
            client.ask(COMMAND, ANSWER)
        self.tessd.wait_asleep()

    def close(self) -> None:
        if not self.tessd.end_seen:
            self.tessd.kill()
        for client in self.clients.values():
            client.close()
        self.line.hang_up()
        if self.process is not None:
            self.process.close()

    # What they do, and what they get

    def _asked(self, client: Client | SerialLine, line: bytes = COMMAND, answer: bytes = ANSWER) -> str:
        """Asks, and tells what came in place of the answer."""
        try:
            if isinstance(client, XcpClient):
                client.send_frame(line + b"\n")
                got = self._received(client, lambda got: got[wire.HEADER :] == answer + b"\0")[wire.HEADER : -1]
            elif isinstance(client, TelnetClient):
                client.send(line + b"\r\n")
                echo = line + b"\r\n"
                got = self._received(client, lambda got: got.removeprefix(echo) == answer).removeprefix(echo)
            elif isinstance(client, SerialLine):
                client.type(line + b"\r")
                got = self._received(client, lambda got: got == answer)
            else:
                client.send(line + b"\n")
                got = self._received(client, lambda got: got == answer)
        except (BrokenPipeError, ConnectionResetError):
            return CLOSED
        if got == answer:
            return ANSWERED
        if got:
            return f"gets {got.decode(errors='replace').strip().partition(chr(13))[0]!r}"
        return CLOSED if isinstance(client, Client) and self.is_closed(client) else UNANSWERED

    @staticmethod
    def _received(client: Client | SerialLine, whole: Callable[[bytes], bool]) -> bytes:
        """What comes until it is whole, or is the answer to a command that nobody takes, or the time is over."""
        deadline = Deadline(PATIENCE)
        got = b""
        while not whole(got) and not got.rstrip(b"\0").endswith((b"?\r\n", b"Arguments.\r\n\r\n")):
            piece = client.receive(1, deadline.left() / settings.SLOW)
            if not piece:
                break
            got += piece
        return got

    @staticmethod
    def is_closed(client: Client) -> bool:
        client.socket.settimeout(0.001)
        with contextlib.suppress(TimeoutError):
            try:
                while client.socket.recv(4096):
                    pass
                return True
            except (ConnectionResetError, BrokenPipeError):
                return True
        return False

    def _newcomer(self, kind: type[Client], line: bytes = COMMAND, answer: bytes = ANSWER) -> str:
        try:
            with kind() as client:
                if isinstance(client, TelnetClient) and (state := self._logged_in(client)) != ANSWERED:
                    return state
                return self._asked(client, line, answer)
        except (ConnectionRefusedError, FileNotFoundError):
            return REFUSED

    def _logged_in(self, client: TelnetClient) -> str:
        try:
            client.log_in(within=PATIENCE)
        except (AssertionError, BrokenPipeError, ConnectionResetError):
            return CLOSED if self.is_closed(client) else UNANSWERED
        return ANSWERED

    def _registered(self) -> str:
        self._number += 1
        with QueueProcess(self._number) as process:
            try:
                process.register(b"NEW")
                process.unregister()
            except AssertionError:
                return UNANSWERED
            except (FileNotFoundError, ConnectionRefusedError):
                return REFUSED
        return ANSWERED

    def _wrote_to_line(self) -> str:
        self._number += 1
        with QueueProcess(self._number) as process:
            process.send(wire.record(wire.COM2_WRITE, b"menu", length=4))
            try:
                answer = process.receive(PATIENCE)
                if answer.length_word != 0:
                    return "fails"
                got = b""
                while not got.endswith(b"menu") and (piece := self.line.receive(1, PATIENCE)):
                    got += piece
            except AssertionError:
                return UNANSWERED
        return ANSWERED if got.endswith(b"menu") else UNANSWERED

    def _filled_queue(self) -> str:
        """More commands than a queue holds, to a process that takes them when there is no room left. Each arrives, or is
        refused because the process has taken too long."""
        self._number += 1
        with QueueProcess(self._number) as process, IpcClient() as client:
            try:
                process.register(b"FULL")
                client.send(b"s3.FULL X\n" * _FULL)
                wait_until(lambda: unread(client.socket) == 0, "the daemon takes the commands", PATIENCE)
                arrived, refused = 0, b""
                deadline = Deadline(PATIENCE)
                while arrived + refused.count(b"?\r\n") < _FULL and not deadline.over():
                    arrived += len(process.waiting())
                    refused += client.receive(3, 0.02)
                process.unregister()
            except AssertionError:
                return UNANSWERED
        return ANSWERED if arrived + refused.count(b"?\r\n") == _FULL else UNANSWERED

    def _answered_together(self) -> str:
        """Answers that come while the daemon is halted are there all at once when it goes on. It looks for more than one only
        now and then, so there are three rounds."""
        self._number += 1
        with QueueProcess(self._number) as process, IpcClient() as client:
            try:
                process.register(b"MANY")
                client.send(b"s3.MANY X\n")
                tag = process.expect_command(b"X").tag
                got = b""
                for _ in range(3):
                    self.tessd.hold()
                    for _ in range(_TOGETHER):
                        process.reply(tag, ANSWER)
                    self.tessd.release()
                    got += client.receive(_TOGETHER * len(ANSWER), PATIENCE)
                process.unregister()
            except AssertionError:
                return UNANSWERED
        return ANSWERED if got == 3 * _TOGETHER * ANSWER else UNANSWERED

    def _told_status(self) -> str:
        """What is told of itself and of those who are connected; ports whose client is not named are listed."""
        self._number += 1
        with QueueProcess(self._number) as process:
            try:
                told = items.of(items.status(process), "connection")
            except AssertionError:
                return UNANSWERED
        named = {name for name in _PEERS if any(_PEERS[name].fullmatch(conn["peer"]) for conn in told if conn["port"] == name)}
        missing = sorted(name.decode() for name in _PEERS.keys() - named)
        return f"does not name {', '.join(missing)}" if missing else ANSWERED

    def _set_delay(self) -> str:
        with IpcClient() as client:
            set_one = self._asked(client, b"DELAY 1.0|s3.ENC LATER", b"OK\r\n\r\n")
            return set_one if set_one != ANSWERED else self._asked(client)

    def _re_initialised(self) -> str:
        """By a program that fails, so that no restart follows."""
        with IpcClient() as client:
            return self._asked(client, b"RESET REINIT s3", b"Error Processing Reset Command.\r\n\r\n")

    def _restarted(self) -> str:
        """Only while no child can be made."""
        with IpcClient() as client:
            return self._asked(client, b"RESET", b"Error Processing Reset Command.\r\n\r\n")

    def steps(self, fault: Fault | None) -> Iterator[tuple[str, Callable[[], str]]]:
        """What happens while faults are armed, in this order. A client that has got no answer is not asked again."""
        lost: set[str] = set()

        def stays(name: str) -> Callable[[], str]:
            def ask() -> str:
                if name in lost:
                    return ANSWERED
                got = self._asked(self.line if name == "com2" else self.clients[name])
                if got != ANSWERED:
                    lost.add(name)
                return got

            return ask

        for number in ("", " again"):
            for name in ("ipc", "xcp", "telnet", "com2"):
                yield name + number, stays(name)
        yield "new ipc", lambda: self._newcomer(IpcClient)
        yield "new xcp", lambda: self._newcomer(XcpClient)
        yield "new telnet", lambda: self._newcomer(TelnetClient)
        yield "registration", self._registered
        if fault is None or fault.call.partition("/")[2] in ("", "com2", "queue"):
            yield "line write", self._wrote_to_line  # mutes the line for two seconds
        if fault is None or fault.call in _OF_STATUS:
            yield "status", self._told_status
        yield "full queue", self._filled_queue
        if fault is None or fault.call.partition("/")[0] in ("recvmmsg", "sendmsg"):
            yield "answers together", self._answered_together
        yield "delay", self._set_delay
        yield "re-initialisation", self._re_initialised
        if fault is not None and fault.call == "fork" and fault.which in (FIRST, EVERY):
            yield "restart", self._restarted

    def talk(self, fault: Fault | None) -> dict[str, str]:
        """Every step, and what came of it; of those that got no answer only."""
        found = {}
        for name, step in self.steps(fault):
            if self.tessd.ended():
                break
            try:
                outcome = step()
            except (FileNotFoundError, ConnectionRefusedError):
                outcome = REFUSED
            if outcome != ANSWERED:
                found[name] = outcome
        return found

    def calls_when_idle(self) -> int:
        """How many calls the daemon makes in 0.3 s in which nobody asks anything of it."""
        before, began = sum(self.control.counts().values()), time.monotonic()
        time.sleep(0.3)  # or longer, on a busy machine
        calls, seconds = sum(self.control.counts().values()) - before, time.monotonic() - began
        return round(calls * 0.3 / seconds)

    # Afterwards

    def _recovered(self, client: Client | SerialLine) -> str:
        """Whether somebody who stayed is served on, whatever is still on its way to him."""
        deadline = Deadline(PATIENCE + com2.MUTE_SECONDS)  # what is typed into a muted line is thrown away
        got = b""
        try:
            while HEARD[1] not in got and not deadline.over():
                if isinstance(client, XcpClient):
                    client.send_frame(b"*\n")
                elif isinstance(client, SerialLine):
                    client.type(b"\r*\r")
                else:
                    client.send(b"\r\n*\r\n")
                got += self._received_up_to_mark(client)
        except (BrokenPipeError, ConnectionResetError):
            return CLOSED
        if HEARD[1] in got:
            return ANSWERED
        return CLOSED if isinstance(client, Client) and self.is_closed(client) else UNANSWERED

    @staticmethod
    def _received_up_to_mark(client: Client | SerialLine) -> bytes:
        got = b""
        while not got.endswith(HEARD[1]) and (piece := client.receive(1, 0.5)):
            got += piece
        return got

    def closed_clients(self) -> list[str]:
        """Which of those that stayed have lost their connection. All others must be served on."""
        closed = []
        for name, client in (*self.clients.items(), ("com2", self.line)):
            state = self._recovered(client)
            assert state != UNANSWERED, f"{name} is connected and not served\n{self.tessd.log_text()}"
            if state == CLOSED:
                closed.append(name)
        return closed

    def missing_ports(self) -> list[str]:
        """Those that do not serve somebody who comes now."""
        missing = [
            name
            for name, kind in (("telnet", TelnetClient), ("xcp", XcpClient), ("ipc", IpcClient))
            if self._newcomer(kind, *HEARD) != ANSWERED
        ]
        if self._recovered(self.line) != ANSWERED:
            missing.insert(0, "com2")
        if self._registered() != ANSWERED:
            missing.append("queue")
        return missing


def prepare_files(leftovers: bool) -> None:
    """What a daemon leaves that was killed, or no trace of any."""
    write_reinit_program("exit 1")
    for path in left_files():
        os.unlink(path)
    with contextlib.suppress(FileNotFoundError):
        os.rmdir(settings.QUEUE_DIR)
    if not leftovers:
        return
    os.mkdir(settings.QUEUE_DIR)
    for path, kind in (
        (queue_path(wire.DAEMON), socket.SOCK_DGRAM),
        (settings.IPC_PATH, socket.SOCK_STREAM),
        (settings.XCP_PATH, socket.SOCK_STREAM),
    ):
        with socket.socket(socket.AF_UNIX, kind) as left:
            left.bind(path)


def unread(client: socket.socket) -> int:
    """Bytes that a client of a local socket has sent and the daemon has not taken."""
    return int.from_bytes(fcntl.ioctl(client, termios.TIOCOUTQ, bytes(4)), sys.byteorder)


def left_files() -> list[str]:
    return [path for path in (queue_path(wire.DAEMON), settings.IPC_PATH, settings.XCP_PATH) if os.path.lexists(path)]
