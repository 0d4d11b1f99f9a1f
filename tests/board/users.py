"""Those who use the board from outside, and what is asked on its console."""

from __future__ import annotations

import os
import re
import socket
import time
from collections.abc import Callable

from board import HOST, PASSWORD, USER, Board
from harness.accounts import Account
from harness.clients import Client
from harness.telnet import TelnetClient

SECONDS = float(os.environ.get("TESSD_BOARD_SECONDS") or 60)  # for anything that is to come; generous: a loaded machine
ALICE = Account(USER.encode(), PASSWORD.encode(), b"")
CLOSING_ALL = b"36201 Closing all connections!"


class Telnet(TelnetClient):
    """A plain client that is not on the board. The emulator accepts it even when nobody on the board does."""

    def __init__(self, board: Board, log_in: bool = True) -> None:
        Client.__init__(self, (HOST, board.telnet_port))
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if log_in:
            self.log_in(ALICE, within=SECONDS)

    def get(self, within: float = SECONDS) -> int:
        """The position of the encoder."""
        self.send(b"s3.ENC GETX\r\n")
        answer = b""
        while not answer.endswith(b"\r\n\r\n") and (piece := self.receive(1, within)):
            answer += piece
        found = re.fullmatch(rb"s3\.ENC GETX\r\n(\d+)\r\n\r\n", answer)
        assert found is not None, f"expected a position, got {answer!r}"
        return int(found[1])

    def expect_alive(self) -> None:
        self.ask(b"*", b"0\r\n\r\n", within=SECONDS)


def type_on_line(board: Board, line: bytes, answer: bytes) -> None:
    """A command on the serial line and its answer, which must be the next that comes there."""
    board.com2.send(line + b"\r")
    expect_on_line(board, answer)


def expect_on_line(board: Board, text: bytes) -> None:
    got = board.com2.wait_for(text, SECONDS)
    assert got == text, f"expected {text!r} on the line, got {got!r}"


def shell(board: Board, command: str) -> str:
    """What a command that must succeed has shown on the console. Log lines may stand between."""
    status, shown = board.run(command, SECONDS)
    assert status == 0, f"{command}: status {status}\n{shown}"
    return shown


def number(board: Board, command: str) -> float:
    """What a command prints that prints one number; log lines and messages of the kernel are passed over."""
    shown = shell(board, command)
    found = re.findall(r"^\d+(?:\.\d+)?$", shown, re.MULTILINE)
    assert len(found) == 1, f"{command}: expected a number, got\n{shown}"
    return float(found[0])


def uptime(board: Board) -> float:
    """Seconds since the board's start, by its own clock."""
    return number(board, "cut -d ' ' -f 1 /proc/uptime")


def wait_until(fact: Callable[[], object], what: str) -> None:
    end = time.monotonic() + SECONDS
    while not fact():
        assert time.monotonic() < end, f"not within {SECONDS:g} s: {what}"
        time.sleep(0.2)
