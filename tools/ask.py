#!/usr/bin/python3
"""Sends command lines to tessd over one of its ports and shows the answers.

    tools/ask.py PORT LINE...      PORT is socket or xcp

Ends with status 0 when every line was answered, 1 when one was not, in two seconds.
"""

from __future__ import annotations

import argparse
import socket
import struct
import sys
from typing import Protocol

SECONDS = 2.0  # longer than a process of the device takes to answer; tessd itself waits 250 ms at most
HEADER = struct.Struct("=IIII")  # word 0, word 1, tag, payload length; the host's byte order
TAG = 7  # any number to be found again in the answer


class Port(Protocol):
    """A client of one port. The constructor connects; errors are OSError."""

    name: str

    def ask(self, line: str) -> str:
        """Sends one line and returns the first answer as it came, line ends and all."""


class LineSocket:
    """Plain text lines over /tmp/socket."""

    name = "/tmp/socket"

    def __init__(self) -> None:
        self._stream = _connect(self.name)

    def ask(self, line: str) -> str:
        self._stream.sendall(line.encode() + b"\r\n")
        answer = b""
        while not (answer.endswith(b"\r\n\r\n") or answer == b"?\r\n"):
            answer += _some(self._stream, 1024)
        return answer.decode()


class FramedSocket:
    """Lines in frames of a 16-byte header and a payload over /tmp/xcp."""

    name = "/tmp/xcp"

    def __init__(self) -> None:
        self._stream = _connect(self.name)

    def ask(self, line: str) -> str:
        payload = line.encode() + b"\r\n"
        self._stream.sendall(HEADER.pack(0, 0, TAG, len(payload)) + payload)
        _, _, tag, length = HEADER.unpack(self._exactly(HEADER.size))
        text = self._exactly(length)
        if tag != TAG:
            raise OSError(f"{self.name}: an answer with tag {tag} to a frame with tag {TAG}")
        return text.removesuffix(b"\0").decode()

    def _exactly(self, size: int) -> bytes:
        data = b""
        while len(data) < size:
            data += _some(self._stream, size - len(data))
        return data


PORTS: dict[str, type[Port]] = {"socket": LineSocket, "xcp": FramedSocket}


def _connect(path: str) -> socket.socket:
    stream = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    stream.settimeout(SECONDS)
    stream.connect(path)
    return stream


def _some(stream: socket.socket, most: int) -> bytes:
    data = stream.recv(most)
    if not data:
        raise OSError("tessd closed the connection")
    return data


def main() -> int:
    parser = argparse.ArgumentParser(description="Sends command lines to tessd and shows the answers.")
    parser.add_argument("port", choices=PORTS)
    parser.add_argument("line", nargs="+", help="a command line, quoted: 's3.ENC GETX'")
    options = parser.parse_args()
    try:
        port = PORTS[options.port]()
        for line in options.line:
            print(port.ask(line).replace("\r\n", "\n"), end="")
    except TimeoutError:
        print(f"ask: no answer in {SECONDS:g} s", file=sys.stderr)
        return 1
    except OSError as error:
        print(f"ask: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
