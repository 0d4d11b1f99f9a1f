"""A system log socket that only the test's own namespace sees."""

from __future__ import annotations

import socket


class SystemLog:
    """Owns /dev/log from its construction to the end of the test."""

    def __init__(self) -> None:
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind("/dev/log")

    def received(self) -> list[str]:
        """The lines that came since the last call."""
        lines = []
        self._socket.setblocking(False)
        try:
            while True:
                lines.append(self._socket.recv(8192).decode())
        except BlockingIOError:
            return lines
