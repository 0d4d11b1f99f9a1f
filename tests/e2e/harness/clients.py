"""Clients of the command ports that are sockets."""

from __future__ import annotations

import socket

from harness import settings, wire
from harness.waiting import Deadline


class Client:
    """A connected client. What is expected must be the very next bytes that come."""

    def __init__(self, address: str | tuple[str, int]) -> None:
        """A path for a local socket, a host and a port for TCP."""
        family = socket.AF_UNIX if isinstance(address, str) else socket.AF_INET
        self.socket = socket.socket(family, socket.SOCK_STREAM)
        self.socket.settimeout(5 * settings.SLOW)
        self.socket.connect(address)

    def close(self) -> None:
        self.socket.close()

    def __enter__(self) -> Client:
        return self

    def __exit__(self, *_) -> None:
        self.close()

    def send(self, data: bytes) -> None:
        """In one piece, as one write."""
        sent = self.socket.send(data)
        assert sent == len(data), f"only {sent} of {len(data)} bytes went out"

    def receive(self, size: int, within: float = 5) -> bytes:
        """Exactly `size` bytes, or what came of them before the time was over or the daemon closed."""
        deadline = Deadline(within)
        data = b""
        while len(data) < size:
            self.socket.settimeout(max(deadline.left(), 0.001))
            try:
                piece = self.socket.recv(size - len(data))
            except TimeoutError:
                if deadline.over():
                    break
                continue
            except ConnectionResetError:
                break
            if not piece:
                break
            data += piece
        return data

    def expect(self, expected: bytes, within: float = 5) -> None:
        actual = self.receive(len(expected), within)
        assert actual == expected, f"expected {expected!r}, got {actual!r}"

    def expect_close(self, within: float = 5) -> None:
        """The daemon closes, and nothing comes before that."""
        self.socket.settimeout(within * settings.SLOW)
        try:
            data = self.socket.recv(4096)
        except ConnectionResetError:
            return
        except TimeoutError:
            raise AssertionError("expected the connection to be closed, it stays open") from None
        assert data == b"", f"expected the connection to be closed, got {data!r}"


class IpcClient(Client):
    """A client of the plain-text socket."""

    def __init__(self, path: str = settings.IPC_PATH) -> None:
        super().__init__(path)

    def ask(self, line: bytes, answer: bytes, within: float = 5) -> None:
        self.send(line + b"\n")
        self.expect(answer, within)

    def expect_nothing_more(self) -> None:
        """Everything sent so far has been interpreted, and no answer to it is outstanding."""
        self.ask(b"*", b"0\r\n\r\n")


class XcpClient(Client):
    """A client of the framed socket."""

    def __init__(self, path: str = settings.XCP_PATH) -> None:
        super().__init__(path)

    def send_frame(self, text: bytes, tag: int = 0, length: int | None = None) -> None:
        self.send(wire.frame(text, tag, length))

    def receive_frame(self, within: float = 5) -> wire.Message:
        head = self.receive(wire.HEADER, within)
        assert len(head) == wire.HEADER, f"expected a frame, got {head!r}"
        length = wire.Message.parse(head, "").length_word
        assert length <= wire.TEXT, f"a frame of {length} bytes"
        return wire.Message.parse(head + self.receive(length, within), "")

    def expect_frame(self, text: bytes, tag: int | None = None, within: float = 5) -> wire.Message:
        """The next frame holds `text` with its NUL, declares that length, and carries `tag`."""
        got = self.receive_frame(within)
        assert got.text == text + b"\0", f"expected the text {text + bytes(1)!r}, got {got.text!r}"
        assert got.length_word == len(text) + 1, f"expected the length {len(text) + 1}, got {got.length_word}"
        if tag is not None:
            assert got.tag == tag, f"expected the tag {tag:#x}, got {got.tag:#x}"
        return got

    def ask(self, line: bytes, answer: bytes, within: float = 5) -> None:
        self.send_frame(line + b"\n")
        self.expect_frame(answer, within=within)

    def expect_nothing_more(self) -> None:
        """Everything sent so far has been interpreted, and no answer to it is outstanding."""
        self.ask(b"*", b"0\r\n\r\n")
