"""In the place of the service manager: what a process that it has started tells it."""

from __future__ import annotations

import socket

from harness import settings


class ServiceManager:
    """Hears whoever has its ENVIRONMENT."""

    ENVIRONMENT = {"NOTIFY_SOCKET": "@manager"}

    def __init__(self) -> None:
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind("\0manager")

    def __enter__(self) -> ServiceManager:
        return self

    def __exit__(self, *_) -> None:
        self._socket.close()

    def expect(self, told: bytes) -> None:
        self._socket.settimeout(20 * settings.SLOW)
        got = self._socket.recv(4096)
        assert got == told, f"expected {told!r}, got {got!r}"

    def expect_nothing_yet(self) -> None:
        """Nothing was told until now; words are there as soon as they are sent."""
        self._socket.setblocking(False)
        try:
            got = self._socket.recv(4096)
        except BlockingIOError:
            return
        raise AssertionError(f"expected nothing, got {got!r}")
