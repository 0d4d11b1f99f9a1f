"""Message records and XCP frames as bytes, in the daemon's byte order, and the numbers that travel in them."""

from __future__ import annotations

import dataclasses
import struct

from harness import settings

DAEMON = 1001
HEADER = 16
RECORD = 8192
TEXT = RECORD - HEADER
FRAME_BUFFER = 1024

STOP, TEXT_KIND, REPLY = 100, 101, 102
REGISTER, UNREGISTER, CLOSE_ALL, COM2_WRITE, CLOSE_TELNET, RESET = 200, 201, 202, 203, 204, 205
STATUS, STATUS_TEXT, WATCH, WATCH_TEXT = 300, 301, 302, 303

COM2, TELNET, XCP, IPC = 1, 2, 4, 8
ALL_PORTS = COM2 | TELNET | XCP | IPC

FIRST_IPC_ID = 0xBB010000
FIRST_XCP_ID = 0x00570000
FIRST_TELNET_ID = 0xAA010000
FIRST_COM2_ID = 0x00560000
ID_STEP = 0x10000

_order = "<" if settings.BYTEORDER == "little" else ">"
_words = struct.Struct(_order + "IIII")


def word(number: int) -> bytes:
    return struct.pack(_order + "I", number & 0xFFFFFFFF)


def header(kind: int, sender: int, tag: int, length: int) -> bytes:
    return _words.pack(*(number & 0xFFFFFFFF for number in (kind, sender, tag, length)))


def record(kind: int, text: bytes = b"", *, tag: int = 0, length: int = 0, sender: int = 0) -> bytes:
    """A message record as one datagram; `text` goes out as it is, without a NUL of its own."""
    return header(kind, sender, tag, length) + text


def registration(name: bytes, mask: int, end: bytes = b"\0") -> bytes:
    return record(REGISTER, word(mask) + name + end)


@dataclasses.dataclass(frozen=True)
class Message:
    """A message record as it was received."""

    kind: int
    sender: int
    tag: int
    length_word: int
    text: bytes  # everything behind the header
    origin: str  # the path it was sent from

    @classmethod
    def parse(cls, datagram: bytes, origin: str) -> Message:
        assert len(datagram) >= HEADER, f"a record of only {len(datagram)} bytes"
        return cls(*_words.unpack_from(datagram), datagram[HEADER:], origin)

    @property
    def size(self) -> int:
        return HEADER + len(self.text)

    @property
    def line(self) -> bytes:
        """The text up to its first NUL."""
        return self.text.split(b"\0", 1)[0]


def frame(text: bytes, tag: int = 0, length: int | None = None, word0: int = 0, word1: int = 0) -> bytes:
    """An XCP frame; `length` is what its header declares, by default the truth."""
    return header(word0, word1, tag, len(text) if length is None else length) + text
