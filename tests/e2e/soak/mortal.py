"""Processes of the device that die and come back, or take their time, and those who ask them."""

from __future__ import annotations

import contextlib
import os
import socket
import threading
import time

from harness import settings, wire
from harness.queue_process import queue_path
from soak.speech import Speech, answer_to, ipc, xcp
from soak.stage import Actor, Stage

OTHER_ADDRESS = 50  # how far a second address of a process lies above its first
ASKS = "asks-"  # how the names of those begin who are answered, and so their words


class Grave:
    """The words that processes have taken with them."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._words: set[bytes] = set()

    def bury(self, word: bytes) -> None:
        with self._lock:
            self._words.add(word)

    def words(self) -> set[bytes]:
        with self._lock:
            return set(self._words)


class Process:
    """Owns a queue address for a life."""

    def __init__(self, address: int, name: bytes, grave: Grave, mask: int = wire.ALL_PORTS) -> None:
        self._path = queue_path(address)
        self._grave = grave
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self._path)  # of an earlier life that ended in disorder
        self._socket.bind(self._path)
        self.registered = False
        self._confirm(wire.registration(name, mask))
        self.registered = True

    def _confirm(self, request: bytes) -> None:
        """Answers what comes before the confirmation."""
        self._send(request)
        end = time.monotonic() + 60 * settings.SLOW
        while (message := self._receive(1.0)) is None or message.kind != wire.REPLY:
            if message is not None:
                self._answer(message)
            if time.monotonic() > end:
                raise TimeoutError(f"{self._path}: no answer of the daemon to {request!r}")

    def _send(self, record: bytes) -> None:
        self._socket.settimeout(60 * settings.SLOW)
        self._socket.sendto(record, queue_path(wire.DAEMON))

    def _receive(self, seconds: float) -> wire.Message | None:
        self._socket.settimeout(max(seconds, 0.001))
        try:
            datagram, origin = self._socket.recvfrom(65536)
        except (TimeoutError, BlockingIOError):
            return None
        return wire.Message.parse(datagram, origin) if datagram else None

    def _answer(self, message: wire.Message) -> None:
        """Not to what was meant for everybody."""
        word = message.line.rstrip(b"\n")
        if message.kind == wire.TEXT_KIND and word.startswith(ASKS.encode()):
            self._send(wire.record(wire.REPLY, answer_to(word) + b"\r\n\0", tag=message.tag))

    def serve_one(self, within: float) -> bool:
        message = self._receive(within)
        if message is not None:
            self._answer(message)
        return message is not None

    def unregister(self) -> None:
        while self.serve_one(0.0):  # a full queue that is not read gets no answers either
            pass
        self._confirm(wire.record(wire.UNREGISTER))

    def die(self, in_order: bool) -> None:
        """What lies in its queue dies with it."""
        if in_order:
            self.unregister()
        self._socket.shutdown(socket.SHUT_RD)  # from here on a record is refused
        while (message := self._receive(0.0)) is not None:
            self._grave.bury(message.line.rstrip(b"\n"))
        if in_order:
            os.unlink(self._path)
        self._socket.close()


class Mortal(Actor):
    """A process that lives for a while: it answers, stops reading for a moment or for good, and ends, in order or not."""

    pause = (0.0, 0.5)

    def __init__(self, stage: Stage, name: str, address: int, grave: Grave) -> None:
        super().__init__(stage, name)
        self._address = address
        self._grave = grave
        self._process: Process | None = None

    def act(self) -> None:
        # Now and then under another address: a name belongs to who registers it last.
        address = self._address + self.random.choice((0, 0, 0, OTHER_ADDRESS))
        self._process = Process(address, self.name.encode(), self._grave)
        self.tally["lives"] += 1
        for _ in range(self.random.randint(1, 4)):
            self._serve(self.random.uniform(0.2, 3.0))
            if self.random.random() < 0.3:
                self.stage.stay(self.random.uniform(0.0, 1.0))  # and does not read
        self.rest()

    def _serve(self, seconds: float) -> None:
        end = time.monotonic() + seconds
        while self.stage.acting and (left := end - time.monotonic()) > 0:
            self._process.serve_one(min(left, 0.2))

    def rest(self) -> None:
        if self._process is not None:
            self._process.die(in_order=not self.stage.acting or self.random.random() < 0.5)
        self._process = None


class Slow(Actor):
    """A process that takes one command every so often, and now and then none for a while."""

    pause = (0.0, 0.0)

    def __init__(self, stage: Stage, name: str, address: int, grave: Grave, asking: threading.Lock) -> None:
        super().__init__(stage, name)
        self._address = address
        self._grave = grave
        self._asking = asking

    def begin(self) -> None:
        self._process = Process(self._address, self.name.encode(), self._grave)

    def act(self) -> None:
        self._process.serve_one(0.2)
        self.stage.stay(self.random.uniform(0.3, 0.6) if self.random.random() < 0.02 else self.random.uniform(0.0, 0.1))

    def rest(self) -> None:
        while self._process.serve_one(0.5) or self._asking.locked():
            pass

    def end(self) -> None:
        self._process.die(in_order=True)


class Crowd(Actor):
    """Registers and unregisters under many names, which nobody asks for, with masks of all kinds."""

    pause = (2.0, 5.0)
    size = 12

    def __init__(self, stage: Stage, name: str, address: int, grave: Grave) -> None:
        super().__init__(stage, name)
        self._address = address
        self._grave = grave

    def act(self) -> None:
        members = []
        for number in range(self.random.randint(1, self.size)):
            mask = self.random.choice((wire.IPC, wire.XCP, wire.TELNET, wire.COM2, wire.ALL_PORTS))
            members.append(Process(self._address + number, b"CROWD%d" % number, self._grave, mask))
        self.stage.stay(self.random.uniform(0.0, 2.0))
        for member in members:
            while member.serve_one(0.0):
                pass
            member.die(in_order=True)
        self.tally["registered"] += len(members)


class Asker(Actor):
    """Asks processes, and knows what they have taken with them. The lock is taken while an answer is awaited."""

    def __init__(
        self, stage: Stage, name: str, connect, processes: list[bytes], most: int, grave: Grave, asking: threading.Lock
    ) -> None:
        super().__init__(stage, name)
        self._speech = Speech(self, connect)
        self._processes = processes
        self._most = most
        self._grave = grave
        self._asking = asking

    def begin(self) -> None:
        self._speech.open_at_last()

    def act(self) -> None:
        self._speech.keep_open()
        words = self._speech.words(self.random.randint(1, self._most))
        with self._asking:
            self._speech.say(self.random.choice(self._processes), words, self._grave.words)

    def end(self) -> None:
        self._speech.close()


def mortals() -> list:
    """They share a grave, so they are of one crew. The first address is 2100."""
    grave = Grave()
    slow_one = threading.Lock()
    names = [b"MORTAL0", b"MORTAL1", b"MORTAL2"]

    def mortal(number: int):
        return lambda stage: Mortal(stage, names[number].decode(), 2100 + number, grave)

    return [
        *(mortal(number) for number in range(len(names))),
        lambda stage: Slow(stage, "SLOW", 2110, grave, slow_one),
        lambda stage: Crowd(stage, "CROWD", 2120, grave),
        lambda stage: Asker(stage, ASKS + "mortals-ipc", ipc, names, 20, grave, threading.Lock()),
        lambda stage: Asker(stage, ASKS + "mortals-xcp", xcp, names, 4, grave, threading.Lock()),
        lambda stage: Asker(stage, ASKS + "slow", ipc, [b"SLOW"], 20, grave, slow_one),
    ]
