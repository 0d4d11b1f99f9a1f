"""A process of the device: a socket in the queue directory, and what it says to the daemon."""

from __future__ import annotations

import contextlib
import fcntl
import itertools
import mmap
import os
import signal
import socket
import sys
import termios
import traceback
from collections.abc import Callable, Iterator

from harness import settings, wire
from harness.waiting import Deadline, wait_until


def queue_path(address: int | str) -> str:
    return f"{settings.QUEUE_DIR}/{address}"


class QueueProcess:
    """Owns one queue address."""

    def __init__(self, address: int | str) -> None:
        self.address = address
        self.path = queue_path(address)
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(self.path)
        os.chmod(self.path, 0o660)

    def close(self) -> None:
        """A clean end: the address is free again."""
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self.path)
        self.socket.close()

    def die(self) -> None:
        """The end of a process that was killed: its file stays behind."""
        self.socket.close()

    def __enter__(self) -> QueueProcess:
        return self

    def __exit__(self, *_) -> None:
        self.close()

    def send(self, datagram: bytes, to: int = wire.DAEMON) -> None:
        """Waits while the destination's queue is full."""
        self.socket.settimeout(10 * settings.SLOW)
        self.socket.sendto(datagram, queue_path(to))

    def fill(self, to: int) -> None:
        """Until the destination's queue has no room left."""
        self.socket.setblocking(False)
        with contextlib.suppress(BlockingIOError):
            while True:
                self.socket.sendto(wire.record(wire.TEXT), queue_path(to))

    def wait_taken(self) -> None:
        """Until the daemon has taken out of its queue what was sent."""

        def unread() -> int:
            return int.from_bytes(fcntl.ioctl(self.socket, termios.TIOCOUTQ, bytes(4)), sys.byteorder)

        wait_until(lambda: unread() == 0, "the daemon takes what was sent", 10)

    def receive(self, within: float = 5) -> wire.Message:
        deadline = Deadline(within)
        while True:
            self.socket.settimeout(max(deadline.left(), 0.001))
            try:
                return wire.Message.parse(*self.socket.recvfrom(65536))
            except TimeoutError:
                if deadline.over():
                    raise AssertionError(f"no message for {self.address} within {deadline.seconds:g} s") from None

    def waiting(self) -> list[wire.Message]:
        """What lies in the queue now."""
        messages = []
        self.socket.setblocking(False)
        with contextlib.suppress(BlockingIOError):
            while True:
                messages.append(wire.Message.parse(*self.socket.recvfrom(65536)))
        return messages

    def register(self, name: bytes, mask: int = wire.ALL_PORTS) -> wire.Message:
        """Registers and requires success."""
        self.send(wire.registration(name, mask))
        return self._expect_status(0, f"registering {name!r}")

    def unregister(self) -> wire.Message:
        self.send(wire.record(wire.UNREGISTER))
        return self._expect_status(0, "unregistering")

    def expect_daemon_done(self) -> None:
        """The daemon has handled every message sent to it before this one.

        Asks for a registration that the daemon refuses, so nothing is changed by it."""
        self.send(wire.registration(b"", 0))
        self._expect_status(0xFFFFFFFF, "the refusal of an empty mask")

    def expect_command(self, body: bytes, tag: int | None = None, within: float = 5) -> wire.Message:
        """The next message is a command as the daemon forwards them."""
        got = self.receive(within)
        text = body + b"\n\0"
        actual = (got.kind, got.text)
        assert actual == (wire.TEXT_KIND, text), f"expected the command {text!r}, got kind {got.kind} {got.text!r}"
        if tag is not None:
            assert got.tag == tag, f"expected the tag {tag:#010x}, got {got.tag:#010x}"
        return got

    def reply(self, tag: int, text: bytes) -> None:
        self.send(wire.record(wire.REPLY, text + b"\0", tag=tag))

    def _expect_status(self, tag: int, what: str) -> wire.Message:
        got = self.receive()
        actual = (got.kind, got.tag, got.length_word)
        assert actual == (wire.REPLY, tag, 0), f"{what}: expected kind 102 and tag {tag:#x}, got {got}"
        return got


class AnsweringProcess(QueueProcess):
    """Answers every command at once, in a process of its own. Only its address is used from here on."""

    def __init__(self, address: int, name: bytes, answer: Callable[[bytes], bytes], mask: int = wire.ALL_PORTS) -> None:
        super().__init__(address)
        self.register(name, mask)
        self.socket.settimeout(None)
        self._answered = mmap.mmap(-1, mmap.PAGESIZE)
        self._child = os.fork()
        if self._child == 0:
            self._run(answer)
        self.socket.close()

    @property
    def answered(self) -> int:
        """Commands answered so far: at least those whose answers have been seen."""
        return int.from_bytes(self._answered[:8], "little")

    def _run(self, answer: Callable[[bytes], bytes]) -> None:
        """The child. Does not return."""
        status = 1
        try:
            _close_all_but(0, 1, 2, self.socket.fileno())
            with contextlib.suppress(OSError):
                os.nice(-10)  # a healthy process, also where the machine is overloaded
            daemon = queue_path(wire.DAEMON)
            for count in itertools.count(1):
                command = wire.Message.parse(*self.socket.recvfrom(65536))
                if command.kind == wire.TEXT_KIND:
                    text = answer(command.line.rstrip(b"\n"))
                    self._answered[:8] = count.to_bytes(8, "little")
                    self.socket.sendto(wire.record(wire.REPLY, text + b"\0", tag=command.tag), daemon)
        except (FileNotFoundError, ConnectionRefusedError):
            status = 0  # the daemon has ended; whoever waits for an answer will say so
        except BaseException:
            traceback.print_exc()
        finally:
            os._exit(status)

    def close(self) -> None:
        ended, status = os.waitpid(self._child, os.WNOHANG)
        if not ended:
            os.kill(self._child, signal.SIGKILL)
            os.waitpid(self._child, 0)
        super().close()
        assert not ended or status == 0, "the answering process failed"


def _close_all_but(*kept: int) -> None:
    for name in os.listdir("/proc/self/fd"):
        if int(name) not in kept:
            with contextlib.suppress(OSError):
                os.close(int(name))


@contextlib.contextmanager
def unbound_sender() -> Iterator[socket.socket]:
    """A socket without an address, connected to the daemon's queue."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as anonymous:
        anonymous.settimeout(5 * settings.SLOW)
        anonymous.connect(queue_path(wire.DAEMON))
        yield anonymous
