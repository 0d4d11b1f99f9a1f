"""A client of tessd, over its socket for plain lines."""

from __future__ import annotations

import select
import socket
import time
from types import TracebackType

from tess.answers import NoAnswer, checked

MOST_LINE_BYTES = 1023  # with its end; tessd throws longer ones away
PAUSE = 0.2  # seconds; an answer without an end is over when nothing more comes for so long


class Client:
    """Sends command lines and takes their answers, one at a time. For one thread."""

    def __init__(self, path: str = "/tmp/socket") -> None:
        """Connects. Raises OSError when there is no tessd."""
        self._path = path
        self._socket: socket.socket | None = None
        self._connection()

    def ask(self, line: str, seconds: float = 5.0) -> str:
        """Sends a line with one command, and returns the answer: its lines separated by LF, without an end.

        A line for which several answers come ("A|B", or one that several processes take) gives the first of them; the
        others, as far as they have come by the next call, are dropped then.

        Raises CommandRefused or CommandFailed when the answer says that the command was not carried out, NoAnswer when none
        came in time (the connection is then made anew, so that a late answer is not taken for the next one), OSError when
        the connection is lost, ValueError when this is not one line of 1022 bytes at most."""
        data = line.encode(errors="surrogateescape") + b"\n"
        if len(data) > MOST_LINE_BYTES or b"\n" in data[:-1] or b"\r" in data:
            raise ValueError(f"not one line of {MOST_LINE_BYTES - 1} bytes at most: {line!r}")
        try:
            connection = self._connection()
            _drop_what_came(connection)
            connection.settimeout(seconds)
            connection.sendall(data)
            return checked(_answer(connection, time.monotonic() + seconds))
        except OSError as error:
            self.close()
            if isinstance(error, TimeoutError) and not isinstance(error, NoAnswer):
                raise NoAnswer(f"{line!r} was not taken in {seconds:g} s") from None
            raise

    def close(self) -> None:
        """Ends the conversation; the next ask() begins another one."""
        if self._socket is not None:
            self._socket.close()
            self._socket = None

    def __enter__(self) -> Client:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None) -> None:
        self.close()

    def _connection(self) -> socket.socket:
        if self._socket is None:
            connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            try:
                connection.connect(self._path)
            except OSError:
                connection.close()
                raise
            self._socket = connection
        return self._socket


def _ready(connection: socket.socket, seconds: float) -> bool:
    return bool(select.select([connection], [], [], max(seconds, 0))[0])


def _receive(connection: socket.socket) -> bytes:
    data = connection.recv(65536)
    if not data:
        raise ConnectionResetError("tessd has closed the connection")
    return data


def _drop_what_came(connection: socket.socket) -> None:
    while _ready(connection, 0):
        _receive(connection)


def _answer(connection: socket.socket, until: float) -> str:
    """The next answer: it ends with an empty line, or is "?" alone, or is over when nothing more comes."""
    data = b""
    while True:
        left = until - time.monotonic()
        if not _ready(connection, min(left, PAUSE) if data.strip() else left):
            break
        data += _receive(connection)
        lines = data.lstrip(b"\r\n").replace(b"\r\n", b"\n")
        if lines.startswith(b"?\n") or b"\n\n" in lines:
            break
    lines = data.lstrip(b"\r\n").replace(b"\r\n", b"\n")
    if not lines:
        raise NoAnswer("no answer came in time")
    first = b"?" if lines.startswith(b"?\n") else lines.partition(b"\n\n")[0]
    return first.decode(errors="surrogateescape").rstrip("\r\n")
