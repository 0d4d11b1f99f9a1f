#!/usr/bin/python3
"""Sends command lines to tessd over one of its ports and shows the answers.

    tools/ask.py PORT LINE...      PORT is telnet, com2, socket or xcp

telnet logs in with a real client, as the user of the demo; com2 is the user's end of the demo's serial line. Ends with
status 0 when every line was answered, 1 when one was not, in two seconds.
"""

from __future__ import annotations

import argparse
import os
import select
import socket
import struct
import sys
import time
import tty
from typing import Protocol

from terminal import Terminal

SECONDS = 2.0  # longer than a process of the device takes to answer; tessd itself waits 250 ms at most
HEADER = struct.Struct("=IIII")  # word 0, word 1, tag, payload length; the host's byte order
TAG = 7  # any number to be found again in the answer
HOST = "127.0.0.1"  # by number: a bare system has no names of hosts
USER, PASSWORD = "alice", "wonderland"
SERIAL_TERMINAL = "/tmp/com2"  # a link that the demo makes


class Port(Protocol):
    """A client of one port. The constructor connects; errors are OSError."""

    name: str

    def ask(self, line: str) -> str:
        """Sends one line and returns the first answer as it came, line ends and all."""

    def close(self) -> None:
        """Ends the conversation as a user would."""


class LineSocket:
    """Plain text lines over /tmp/socket."""

    name = "/tmp/socket"

    def __init__(self) -> None:
        self._stream = _connect(self.name)

    def ask(self, line: str) -> str:
        self._stream.sendall(line.encode() + b"\r\n")
        answer = b""
        while not _complete(answer):
            answer += _some(self._stream, 1024)
        return answer.decode()

    def close(self) -> None:
        self._stream.close()


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

    def close(self) -> None:
        self._stream.close()

    def _exactly(self, size: int) -> bytes:
        data = b""
        while len(data) < size:
            data += _some(self._stream, size - len(data))
        return data


class TelnetSession:
    """A session in a real client, from login to quit."""

    name = "telnet"

    def __init__(self) -> None:
        self._client = Terminal("telnet", HOST)  # with a port it would neither speak first nor edit lines
        for prompt, keys in (("UserName:\r\n", USER), ("PassWord:\r\n", PASSWORD)):
            self._client.wait_for(prompt.encode(), SECONDS)
            self._client.type(keys.encode() + b"\r")
        self._client.wait_for(f"User {USER} connected\r\n".encode(), SECONDS)

    def ask(self, line: str) -> str:
        self._client.type(line.encode() + b"\r")
        self._client.wait_for(line.encode() + b"\r\n", SECONDS)  # the client shows what is typed
        answer = b""
        while not _complete(answer):
            answer += self._client.wait_for(b"\r\n", SECONDS)
        return answer.decode()

    def close(self) -> None:
        self._client.type(b"quit\r")
        self._client.wait_end(SECONDS)
        self._client.close()


class SerialTerminal:
    """The terminal at the other end of the serial line."""

    name = "/dev/ttyS1"

    def __init__(self) -> None:
        self._line = os.open(SERIAL_TERMINAL, os.O_RDWR | os.O_NOCTTY)
        tty.setraw(self._line)

    def ask(self, line: str) -> str:
        os.write(self._line, line.encode() + b"\r")
        answer = b""
        end = time.monotonic() + SECONDS
        while not _complete(answer):
            if not select.select([self._line], [], [], max(end - time.monotonic(), 0))[0]:
                raise TimeoutError
            answer += os.read(self._line, 1024)
        return answer.decode()

    def close(self) -> None:
        os.close(self._line)


PORTS: dict[str, type[Port]] = {
    "telnet": TelnetSession,
    "com2": SerialTerminal,
    "socket": LineSocket,
    "xcp": FramedSocket,
}


def _complete(answer: bytes) -> bool:
    return answer.endswith(b"\r\n\r\n") or answer == b"?\r\n"


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
        port.close()
    except TimeoutError:
        print(f"ask: no answer in {SECONDS:g} s", file=sys.stderr)
        return 1
    except OSError as error:
        print(f"ask: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
