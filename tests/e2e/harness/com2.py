"""The far end of the serial line COM2, what is typed there and what arrives."""

from __future__ import annotations

import os
import select
import termios
import time

import serial_line  # of tools/
from harness.waiting import Deadline

DEVICE = serial_line.DEVICE
SerialCable = serial_line.SerialCable

IFLAG, OFLAG, CFLAG, LFLAG, ISPEED, OSPEED, CC = range(7)  # of the list of tcgetattr(3)
MUTE_SECONDS = 2
CONNECTION_CLOSED = (36102, "COM2 connection closed")


def opened(number: int) -> tuple[int, str]:
    """Log line of the `number`-th connection since the start; the first is 1."""
    return 36103, f"Open connection Com2 with ID = 0x{0x550000 + (number - 1) * 0x10000:x}"


class SerialLine:
    """Makes the line appear on its construction, before the daemon starts. What is expected must be the very next bytes
    that come."""

    def __init__(self) -> None:
        self._far_end = serial_line.make_device()

    def hang_up(self) -> None:
        """The cable is pulled out; it does not come back."""
        if self._far_end >= 0:
            os.close(self._far_end)
        self._far_end = -1

    def __enter__(self) -> SerialLine:
        return self

    def __exit__(self, *_) -> None:
        self.hang_up()

    def type(self, keys: bytes) -> None:
        assert os.write(self._far_end, keys) == len(keys)

    def fileno(self) -> int:
        return self._far_end

    def wait_arrived(self) -> None:
        """Until all that was typed is at the daemon's end; whoever looks there makes the system carry it over."""
        near_end = os.open(DEVICE, os.O_RDONLY | os.O_NOCTTY | os.O_NONBLOCK)
        select.select([near_end], [], [], 0)
        os.close(near_end)

    def receive(self, size: int, within: float = 5) -> bytes:
        """Exactly `size` bytes, or what came of them before the time was over."""
        deadline = Deadline(within)
        data = b""
        while len(data) < size:
            if not select.select([self._far_end], [], [], deadline.left())[0]:
                if deadline.over():
                    break
                continue
            try:
                data += os.read(self._far_end, size - len(data))
            except OSError:  # EIO: the daemon has the device not open just now
                if deadline.over():
                    break
                time.sleep(0.002)
        return data

    def expect(self, expected: bytes, within: float = 5) -> None:
        actual = self.receive(len(expected), within)
        assert actual == expected, f"expected {expected!r} on the line, got {actual!r}"

    def ask(self, line: bytes, answer: bytes, within: float = 5) -> None:
        self.type(line + b"\r")
        self.expect(answer, within)

    def fill(self) -> int:
        """Writes to the line, as a program on the daemon's side, until it takes no more because nobody reads at the far
        end. Returns the number of bytes."""
        count = 0
        near_end = os.open(DEVICE, os.O_WRONLY | os.O_NOCTTY | os.O_NONBLOCK)
        try:
            full = 0
            while full < 50:  # what the line holds goes from one buffer to the next in its own time
                try:
                    count += os.write(near_end, b"." * 1024)
                    full = 0
                except BlockingIOError:
                    full += 1
                    time.sleep(0.01)
        finally:
            os.close(near_end)
        return count

    def expect_nothing_more(self) -> None:
        """Everything typed so far has been interpreted, and no answer to it is outstanding."""
        self.ask(b"*", b"0\r\n\r\n")

    def get_attributes(self) -> list:
        """Of the daemon's end, as tcgetattr(3)."""
        return termios.tcgetattr(self._far_end)

    def set_attributes(self, attributes: list) -> None:
        termios.tcsetattr(self._far_end, termios.TCSANOW, attributes)
