"""Message queues: a process's own, a datagram socket named for its address, and the way to everybody else's."""

from __future__ import annotations

import contextlib
import fcntl
import logging
import os
import re
import socket
import stat
import struct
import time
from collections.abc import Iterator
from typing import NamedTuple

TESS_ADDRESS = 1001
MAX_ADDRESS = 2147483647

RECORD_BYTES = 8192
LOCK_SECONDS = 2.0

_HEADER = struct.Struct("=IiIi")  # kind, sender, tag, len; the processor's byte order
_log = logging.getLogger("tess")


class QueueError(OSError):
    """A queue cannot be opened; the text says why."""


class Record(NamedTuple):
    kind: int
    sender: int  # queue address of who has sent it, 0 for a sender without one
    tag: int
    text: bytes


def queue_directory() -> str:
    """Absolute, because receivers know a sender by the absolute path of its socket."""
    directory = os.environ.get("TESS_QUEUE_DIR") or "/run/tess/queue"
    return (directory if directory.startswith("/") else os.path.abspath(directory)).rstrip("/")


class Queue:
    """A process's own queue. close() gives the address back."""

    def __init__(self, address: int) -> None:
        """Opens it. Raises QueueError."""
        if not 1 <= address <= MAX_ADDRESS:
            raise QueueError(f"queue address {address} is not between 1 and {MAX_ADDRESS}")
        self.address = address
        self.directory = queue_directory()
        self._path = f"{self.directory}/{address}"
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        try:
            _make_directory(self.directory)
            with self._directory_locked():
                self._bind()
        except OSError as error:
            self._socket.close()
            raise error if isinstance(error, QueueError) else QueueError(f"queue address {address}: {error}") from None

    def fileno(self) -> int:
        """For select(): readable when a record is there."""
        return self._socket.fileno()

    def send(self, address: int, kind: int, tag: int, text: bytes) -> bool:
        """Waits while the other queue is full, however long: nothing is to be lost. True when the record is in it."""
        record = _HEADER.pack(kind, 0, tag, 0) + text
        try:
            self._socket.sendto(record[:RECORD_BYTES], f"{self.directory}/{address}")
        except OSError:
            return False
        return True

    def receive(self) -> Record | None:
        """Takes the next record, waits for one where there is none. None for a datagram that is no record."""
        record, path = self._socket.recvfrom(RECORD_BYTES + 1)
        if not _HEADER.size <= len(record) <= RECORD_BYTES:
            _log.warning("dropped a datagram that is no record, %d bytes or more", len(record))
            return None
        kind, _, tag, _ = _HEADER.unpack_from(record)  # the sender word proves nothing, the kernel's path does
        return Record(kind, self._address_of(path), tag, record[_HEADER.size :])

    def close(self) -> None:
        """A file that stays behind all the same is replaced by the next owner."""
        with contextlib.suppress(OSError), self._directory_locked():
            with contextlib.suppress(FileNotFoundError):
                if os.path.samestat(os.stat(self._path), self._file):
                    os.unlink(self._path)
        self._socket.close()

    def _bind(self) -> None:
        if self._held():
            raise QueueError(f"queue address {self.address} is in use")
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self._path)
        self._socket.bind(self._path)
        os.chmod(self._path, 0o660)
        self._file = os.stat(self._path)

    @contextlib.contextmanager
    def _directory_locked(self) -> Iterator[None]:
        """Of two processes that find the same stale file only one may replace it: looking and binding are one step."""
        directory = os.open(self.directory, os.O_RDONLY | os.O_DIRECTORY)
        try:
            _lock(directory)
            yield
        finally:
            os.close(directory)

    def _held(self) -> bool:
        """True when a live process holds the path; False when nothing is there, or the file of one that died."""
        with contextlib.suppress(FileNotFoundError):
            if not stat.S_ISSOCK(os.lstat(self._path).st_mode):
                raise QueueError(f"{self._path} is not a socket")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as probe:
            try:
                probe.connect(self._path)
            except (FileNotFoundError, ConnectionRefusedError):
                return False
        return True

    def _address_of(self, path: object) -> int:
        """0 for a sender that has no queue in this directory."""
        directory, _, name = path.rpartition("/") if isinstance(path, str) else ("", "", "")
        if directory != self.directory:  # compared as text: the sender chose it, so nothing is looked up
            return 0
        if not re.fullmatch("[1-9][0-9]{0,9}", name, re.ASCII) or int(name) > MAX_ADDRESS:
            return 0
        return int(name)


def _make_directory(path: str) -> None:
    """With mode 0770 whatever the umask, its missing parents too."""
    if os.path.isdir(path):
        return
    _make_directory(os.path.dirname(path))
    try:
        os.mkdir(path, 0o770)
    except FileExistsError:
        return  # somebody else was faster
    # Whoever may write to the parent can put a link in its place meanwhile; what that leads to keeps its mode.
    made = os.open(path, os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW)
    try:
        os.fchmod(made, 0o770 | os.fstat(made).st_mode & stat.S_ISGID)
    finally:
        os.close(made)


def _lock(directory: int) -> None:
    """Others hold the lock for a moment only. Whoever keeps it all the same holds nobody up for long."""
    give_up = time.monotonic() + LOCK_SECONDS
    while True:
        try:
            return fcntl.flock(directory, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            if time.monotonic() > give_up:
                raise TimeoutError("another process has kept the directory locked") from None
        time.sleep(0.01)
