"""A system log socket that only the test's own namespace sees."""

from __future__ import annotations

import os
import socket
import subprocess


class SystemLog:
    """Owns /dev/log from its construction to the end of the test."""

    def __init__(self) -> None:
        path = os.path.realpath("/dev/log")
        if path.startswith("/run/"):
            os.makedirs(os.path.dirname(path), exist_ok=True)  # /run is the test's own
        else:
            _private_dev()
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(path)

    def received(self) -> list[str]:
        """The lines that came since the last call."""
        lines = []
        self._socket.setblocking(False)
        try:
            while True:
                lines.append(self._socket.recv(8192).decode())
        except BlockingIOError:
            return lines


def _private_dev() -> None:
    """Puts a /dev of a few devices in the place of the machine's."""
    _run("mount", "-t", "tmpfs", "tmpfs", "/mnt")
    for name in ("null", "zero", "urandom"):
        with open(f"/mnt/{name}", "w", encoding="ascii"):
            pass
        _run("mount", "--bind", f"/dev/{name}", f"/mnt/{name}")
    _run("mount", "--rbind", "/mnt", "/dev")


def _run(*command: str) -> None:
    subprocess.run(command, check=True)
