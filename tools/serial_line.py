"""A serial line made of pseudo-terminals, for the inside of the private namespaces: the daemon's end is /dev/ttyS1."""

from __future__ import annotations

import os
import select
import signal
import tty

import device_ns

DEVICE = "/dev/ttyS1"


def make_device() -> int:
    """Makes a pseudo-terminal appear as the serial line, in the place of the one before; returns the descriptor of its far
    end. When that is closed, the line hangs up and does not come back."""
    far_end, near_end = os.openpty()
    if os.path.lexists(DEVICE):
        device_ns.unbind(DEVICE)
    device_ns.bind(os.ttyname(near_end), DEVICE)
    os.close(near_end)
    return far_end


class SerialCable:
    """Joins the serial line with a terminal device for the program of a user, as long as it is open.

    Whoever opens and closes the two ends, the line never hangs up."""

    def __init__(self) -> None:
        near_end = make_device()
        far_end, user_end = os.openpty()
        self.user_device = os.ttyname(user_end)
        tty.setraw(user_end)
        # An end that nobody holds open would look like one that has hung up.
        self._held = [user_end, os.open(DEVICE, os.O_RDWR | os.O_NOCTTY | os.O_CLOEXEC)]
        self._child = os.fork()
        if self._child == 0:
            _carry(near_end, far_end)
        os.close(near_end)
        os.close(far_end)

    def close(self) -> None:
        os.kill(self._child, signal.SIGKILL)
        os.waitpid(self._child, 0)
        for end in self._held:
            os.close(end)

    def __enter__(self) -> SerialCable:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


def _carry(one: int, other: int) -> None:
    """The child: carries bytes both ways until it is killed. Does not return."""
    try:
        signal.signal(signal.SIGINT, signal.SIG_IGN)  # typed at the terminal; not meant for a cable
        across = {one: other, other: one}
        while True:
            for end in select.select(list(across), [], [])[0]:
                os.write(across[end], os.read(end, 1024))
    finally:
        os._exit(1)
