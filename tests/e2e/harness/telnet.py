"""Telnet clients, byte for byte, and what the server says to them."""

from __future__ import annotations

import socket
import struct

from harness import settings
from harness.accounts import ALICE, Account
from harness.clients import Client
from harness.waiting import Deadline

# RFC 854, 857, 858, 1184
IAC, DONT, DO, WONT, WILL, SB, SE, NOP = b"\xff", b"\xfe", b"\xfd", b"\xfc", b"\xfb", b"\xfa", b"\xf0", b"\xf1"
ECHO, SUPPRESS_GO_AHEAD, LINEMODE, NAWS, TERMINAL_TYPE = b"\x01", b"\x03", b"\x22", b"\x1f", b"\x18"

GREETING = b"\r\nMarvo Resident Telnet Server...\r\nUserName:\r\n"
PASSWORD_PROMPT = b"PassWord:\r\n"
FAREWELL = b"\r\n"  # all that a refused client is told
LIMIT_REACHED = b"Connection refused: limit reached.\r\n"

OFFERS = IAC + DO + SUPPRESS_GO_AHEAD + IAC + DO + LINEMODE
MODE_EDIT = IAC + SB + LINEMODE + b"\x01\x01" + IAC + SE
SLC_FORWARD = IAC + SB + LINEMODE + b"\x03\x11\x02\x0d\x12\x02\x0d" + IAC + SE
WILL_ECHO = IAC + WILL + ECHO
WONT_ECHO = IAC + WONT + ECHO
DO_ECHO = IAC + DO + ECHO
DONT_ECHO = IAC + DONT + ECHO

WILL_LINEMODE = IAC + WILL + LINEMODE
MODE_ACK = IAC + SB + LINEMODE + b"\x01\x05" + IAC + SE
SLC_ACK = IAC + SB + LINEMODE + b"\x03\x11\x82\x0d\x12\x82\x0d" + IAC + SE
SLC_LIST = IAC + SB + LINEMODE + b"\x03\x03\x62\x03\x0a\x02\x7f\x0b\x02\x15" + IAC + SE

LOGIN_FAILED = 251526
WRITE_FAILED = (6004, "Error writting to the telnet socket")
CLOSED_DURING_LOGIN = (LOGIN_FAILED, "Received connection close request from client during login")


def opened(number: int) -> tuple[int, str]:
    """Log line of the `number`-th client since the start; the first is 1."""
    return 6000, f"Opened telnet connection 0x{0xAA000000 + (number - 1) * 0x10000:x} from 127.0.0.1"


def closed(left: int) -> tuple[int, str]:
    """Log line of a client that has gone; `left` are still there."""
    return 6001, f"Telnet connection closed for 127.0.0.1.  Active connections = {left}"


def connected(name: bytes) -> bytes:
    return b"User " + name + b" connected\r\n"


class TelnetClient(Client):
    """Says nothing of its own accord. A client of which the first byte is no telnet command is a plain one at once; the
    server then sends back what it sends, but for the password."""

    def __init__(self) -> None:
        super().__init__(settings.TELNET_ADDRESS)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def expect_silence(self, seconds: float) -> None:
        """Nothing comes for so long, and the connection stays open. Not stretched on slow machines."""
        self.socket.settimeout(seconds)
        try:
            data = self.socket.recv(4096)
        except TimeoutError:
            return
        raise AssertionError(f"expected nothing for {seconds:g} s, got {data!r}")

    def receive_until_close(self, within: float = 5) -> bytes:
        """All that comes before the server closes."""
        deadline = Deadline(within)
        data = b""
        while not deadline.over():
            self.socket.settimeout(max(deadline.left(), 0.001))
            try:
                piece = self.socket.recv(4096)
            except ConnectionResetError:
                return data
            except TimeoutError:
                continue
            if not piece:
                return data
            data += piece
        raise AssertionError(f"the connection stays open; got {data!r}")

    def give_name(self, name: bytes = ALICE.name, end: bytes = b"\r\n", within: float = 5) -> None:
        """From the connection to the prompt for the password. Sends the name before it is greeted."""
        self.send(name + end)
        self.expect(GREETING + name + end + PASSWORD_PROMPT, within)

    def expect_connected(self, name: bytes, within: float = 5) -> None:
        """The server has accepted the password."""
        self.expect(connected(name), within)

    def log_in(self, account: Account = ALICE, end: bytes = b"\r\n", within: float = 5) -> None:
        self.give_name(account.name, end, within)
        self.send(account.password + end)
        self.expect_connected(account.name, within)

    def ask(self, line: bytes, answer: bytes, within: float = 5) -> None:
        """A command of a plain client, its echo and its answer."""
        self.send(line + b"\r\n")
        self.expect(line + b"\r\n" + answer, within)

    def expect_nothing_more(self) -> None:
        """Everything sent so far has been interpreted, and no answer to it is outstanding."""
        self.ask(b"*", b"0\r\n\r\n")

    def reset(self) -> None:
        """Ends the connection with RST in place of FIN."""
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.close()


class LinemodeClient(TelnetClient):
    """Offers LINEMODE and edits lines itself; the server switches its echo off and on."""

    def negotiate(self) -> None:
        """From the first offer to the greeting, as the server must have it."""
        self.send(WILL_LINEMODE)
        self.expect(OFFERS)
        self.send(IAC + WILL + SUPPRESS_GO_AHEAD + SLC_LIST)
        self.expect(MODE_EDIT + SLC_FORWARD)
        self.send(MODE_ACK + SLC_ACK)
        self.expect(GREETING)

    def give_name(self, name: bytes = ALICE.name, end: bytes = b"\r\n", within: float = 5) -> None:
        self.negotiate()
        self.send(name + end)
        self.expect(WILL_ECHO, within)
        self.send(DO_ECHO)
        self.expect(PASSWORD_PROMPT, within)

    def expect_connected(self, name: bytes, within: float = 5) -> None:
        self.expect(WONT_ECHO, within)
        self.send(DONT_ECHO)
        self.expect(connected(name), within)

    def ask(self, line: bytes, answer: bytes, within: float = 5) -> None:
        self.send(line + b"\r\n")
        self.expect(answer, within)
