"""A process of the device: registers with tessd under a name, and answers what tessd forwards to it."""

from __future__ import annotations

import contextlib
import logging
import os
import select
import signal
import socket
import struct
import sys
import threading
import time
from collections.abc import Callable, Iterator

from tess.answers import pieces, reply
from tess.ports import PORTS_ALL
from tess.queue import TESS_ADDRESS, Queue, Record

TEXT, REPLY, REGISTER, UNREGISTER = 101, 102, 200, 201

REGISTER_EVERY = 10.0  # seconds
ASK_EVERY = 1.0  # while tessd is not there
LEAVE_WITHIN = 2.0
MOST_STOP_SECONDS = 5
OWN_ADDRESSES = 1_000_000_000  # and the process number: nobody chooses these by hand

_log = logging.getLogger("tess")


class Process:
    """Takes commands under a name, and answers each with what a function returns.

    It registers again every ten seconds, because a tessd that is started anew has forgotten who was registered, and every
    second while tessd is not there. Where another process has taken the name, it takes it back by that."""

    def __init__(self, name: str, answer: Callable[[str], str], ports: int = PORTS_ALL, address: int | None = None) -> None:
        """Opens the queue; registering is for run(). Raises QueueError, an OSError, when it cannot be opened.

        name     what clients write behind the dot ("s3.ENC")
        answer   is called with each command, without its address and line end; the command may be empty. What it returns,
                 lines separated by LF, is the answer: "?" refuses what is not understood, "" is answered "OK", and a last
                 line that begins with "Error: " says that the command failed. An exception becomes such a line
        ports    the kinds of port that commands are wanted from: a sum of COM2, TELNET, XCP and IPC
        address  queue address, 1 to 2147483647; None takes one that nobody chooses by hand"""
        self.name = name
        self._answer = answer
        self._ports = ports
        self._queue = Queue(OWN_ADDRESSES + os.getpid() if address is None else address)
        self._stop_reader, self._stop_writer = socket.socketpair()
        self._standing = "unknown"  # then waiting, registered or refused
        self._announced = False
        self._next_registration = time.monotonic()
        self._replies_due = 0  # registering and unregistering that tessd has not answered

    @property
    def address(self) -> int:
        """Its queue address."""
        return self._queue.address

    def run(self) -> int:
        """Registers and answers until stop() is called, then unregisters and closes the queue; it is called once.

        On the main thread SIGTERM and SIGINT stop it as well, and when something has kept it for five seconds after the
        first of them (a tessd that is halted, an answer that takes its time), SIGALRM ends the program.

        Returns the exit status: 0 stopped, 1 tessd refused to register it; the reason has been logged."""
        try:
            with self._signals():
                return self._serve()
        finally:
            self._queue.close()
            _forget_lost_log()

    def stop(self) -> None:
        """Ends run(), from any thread or signal handler."""
        with contextlib.suppress(OSError):  # full: it was asked before
            self._stop_writer.send(b".", socket.MSG_DONTWAIT)

    @contextlib.contextmanager
    def _signals(self) -> Iterator[None]:
        def request_stop(number: int, frame: object) -> None:
            signal.signal(number, signal.SIG_IGN)  # once is enough
            # A tessd that is halted with a full queue would keep us waiting for room: then SIGALRM ends this program.
            signal.alarm(MOST_STOP_SECONDS)
            self.stop()

        if threading.current_thread() is not threading.main_thread():
            yield
            return
        before = {number: signal.signal(number, request_stop) for number in (signal.SIGTERM, signal.SIGINT)}
        try:
            yield
        finally:
            for number, handler in before.items():
                signal.signal(number, handler)
            signal.alarm(0)

    def _serve(self) -> int:
        while self._standing != "refused":
            left = self._next_registration - time.monotonic()
            if left <= 0:
                self._register()
                continue
            ready, _, _ = select.select([self._queue, self._stop_reader], [], [], left)
            if self._stop_reader in ready:
                self._unregister()
                return 0
            if ready:
                self._serve_one()
        return 1

    def _register(self) -> None:
        text = struct.pack("=I", self._ports) + self.name.encode() + b"\0"
        if self._queue.send(TESS_ADDRESS, REGISTER, 0, text):
            self._replies_due = 1  # what tessd has not answered by now it never will
            self._next_registration = time.monotonic() + REGISTER_EVERY
            return
        if self._standing != "waiting":
            _log.warning("tessd is not there, asking again every second")
        self._standing = "waiting"
        self._next_registration = time.monotonic() + ASK_EVERY

    def _unregister(self) -> None:
        if not self._queue.send(TESS_ADDRESS, UNREGISTER, 0, b""):
            _log.warning("tessd is not there, nothing to unregister from")
            return
        self._replies_due += 1
        # What tessd forwarded before it read this still wants its answer; tessd's reply comes behind it.
        give_up = time.monotonic() + LEAVE_WITHIN
        while self._replies_due > 0 and (left := give_up - time.monotonic()) > 0:
            if select.select([self._queue], [], [], left)[0]:
                self._serve_one()

    def _serve_one(self) -> None:
        record = self._queue.receive()
        if record is None or record.sender != TESS_ADDRESS:
            return  # nobody else gives orders here
        if record.kind == TEXT:
            self._reply(record)
        elif record.kind == REPLY:
            self._on_reply(record)

    def _reply(self, record: Record) -> None:
        # The tag names the connection that asked: it goes back as it came.
        for piece in pieces(reply(self._answer_to(_text_of(record).rstrip("\r\n")))):
            if not self._queue.send(TESS_ADDRESS, REPLY, record.tag, piece + b"\0"):
                _log.warning("an answer did not reach tessd")
                return

    def _answer_to(self, command: str) -> str:
        try:
            return self._answer(command)
        except Exception as error:  # whoever asked is to know it, and the next one is to be answered
            _log.exception("no answer to %r", command)
            return "Error: " + (" ".join(str(error).split()) or type(error).__name__)

    def _on_reply(self, record: Record) -> None:
        self._replies_due = max(self._replies_due - 1, 0)
        if record.tag != 0:
            self._standing = "refused"
            _log.error("tessd refused: %s", _text_of(record))
        elif self._standing != "registered":
            self._standing = "registered"
            _log.info("registered at tessd as %s", self.name)
            self._announce()

    def _announce(self) -> None:
        """Tells whoever started the program that it is up, once: READY=1, as sd_notify(3) does."""
        path = os.environ.get("NOTIFY_SOCKET", "")
        if self._announced or path[:1] not in ("/", "@"):
            return
        self._announced = True
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as teller:
            teller.settimeout(2)
            try:
                teller.sendto(b"READY=1", "\0" + path[1:] if path.startswith("@") else path)
            except OSError as error:
                _log.warning("the service manager was not told READY=1: %s", error)


def _forget_lost_log() -> None:
    """Where nobody reads standard error any more, what is left for it would make the program's status 120."""
    try:
        if sys.stderr is not None:
            sys.stderr.flush()
    except BrokenPipeError:
        nowhere = os.open(os.devnull, os.O_WRONLY)
        os.dup2(nowhere, sys.stderr.fileno())
        os.close(nowhere)


def _text_of(record: Record) -> str:
    return record.text.split(b"\0")[0].decode(errors="surrogateescape")
