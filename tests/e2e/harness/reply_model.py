"""What the daemon's one reply record must hold, byte for byte, after any row of messages."""

from __future__ import annotations

from harness import wire


class ReplyRecord:
    """Starts all zero. No answer clears what an earlier one left, so the tail of a longer text stays behind a shorter
    one."""

    def __init__(self) -> None:
        self.kind = 0
        self.tag = 0
        self.length_word = 0
        self.text = bytearray(wire.TEXT)

    def status_text(self, status: int, text: str) -> bytes:
        """Answer to a registration or its end. Returns the whole text that is sent, its NUL included."""
        self.kind, self.tag, self.length_word = wire.REPLY, status & 0xFFFFFFFF, 0
        self.text[: len(text)] = text.encode()
        return bytes(self.text[: self.text.index(0) + 1])

    def reset_text(self, text: str, received: int) -> bytes:
        """Answer to a reset message of `received` bytes: as long as that message, tag and len as they were."""
        self.kind = wire.REPLY
        self.text[: len(text) + 1] = text.encode() + b"\0"
        return bytes(self.text[: received - wire.HEADER])

    def no_serial_line(self, tag: int, received: int) -> bytes:
        """Answer to a COM2 write without a COM2 connection: kind as it was."""
        self.tag, self.length_word = tag, 1
        return bytes(self.text[: received - wire.HEADER])

    def check(self, got: wire.Message, text: bytes, what: str) -> None:
        actual = (got.kind, got.tag, got.length_word, got.text)
        expected = (self.kind, self.tag, self.length_word, text)
        assert actual == expected, f"{what}: expected kind, tag, len, text\n{expected}\ngot\n{actual}"
