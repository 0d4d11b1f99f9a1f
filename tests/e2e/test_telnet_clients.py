"""Telnet clients as operators have them: programs on a terminal, and what further programs are known to send."""

from __future__ import annotations

import dataclasses
import shutil
from collections.abc import Iterator

import pytest

from harness import settings
from harness.answers import Blame
from harness.accounts import ALICE
from harness.queue_process import AnsweringProcess
from harness.telnet import (
    DO_ECHO,
    GREETING,
    IAC,
    MODE_ACK,
    MODE_EDIT,
    OFFERS,
    PASSWORD_PROMPT,
    SB,
    SE,
    SLC_ACK,
    SLC_FORWARD,
    WILL_ECHO,
    WILL_LINEMODE,
    WONT_ECHO,
    TelnetClient,
    closed,
    connected,
)
from harness.terminal import Terminal
from harness.waiting import Deadline, Stopwatch

HOST = settings.TELNET_ADDRESS[0]
ANSWER = b"position 5\r\n\r\n"
ENTER = b"\r"


@pytest.fixture
def encoder(socket_tessd):
    with AnsweringProcess(2001, b"ENC", lambda _command: ANSWER) as process:
        yield process


# Programs on a terminal

# How they are started, and how often name and password are to be seen on the screen. The line that welcomes the user holds
# the name once; where both the terminal and the server echo, name and password are shown once more than they should be.
PROGRAMS = {
    "inetutils telnet": (["telnet", HOST], 2, 0),
    "inetutils telnet with a port": (["telnet", HOST, "23"], 3, 1),
    "busybox telnet": (["busybox", "telnet", HOST], 3, 1),
    "plink": (["plink", "-telnet", HOST], 3, 1),
}


@pytest.mark.parametrize("command, names, passwords", PROGRAMS.values(), ids=PROGRAMS.keys())
def test_a_session_with_a_real_client(socket_tessd, encoder, command, names, passwords):
    if shutil.which(command[0]) is None:
        pytest.skip(f"{command[0]} is not installed")
    with Terminal(*command) as terminal:
        terminal.expect(b"Marvo Resident Telnet Server...")
        terminal.expect(b"UserName:")
        terminal.type(ALICE.name + ENTER)
        terminal.expect(b"PassWord:")
        terminal.type(ALICE.password + ENTER)
        terminal.expect(b"User alice connected")
        terminal.type(b"s3.ENC GETX" + ENTER)
        terminal.expect(b"position 5")
        terminal.type(b"t1.ENC GETX" + ENTER)
        terminal.expect(b"?")
        terminal.type(b"quit" + ENTER)
        terminal.expect_end()
        assert terminal.shown.count(ALICE.name) == names, terminal.shown
        assert terminal.shown.count(ALICE.password) == passwords, terminal.shown
    socket_tessd.wait_log(*closed(0))


@pytest.mark.skipif(shutil.which("telnet") is None, reason="telnet is not installed")
def test_a_password_of_a_real_client_that_is_wrong_ends_its_session(socket_tessd):
    with Terminal("telnet", HOST) as terminal:
        terminal.expect(b"UserName:")
        terminal.type(ALICE.name + ENTER)
        terminal.expect(b"PassWord:")
        terminal.type(b"wrong" + ENTER)
        terminal.expect(b"Connection closed by foreign host")
        terminal.expect_end()


# What programs send, replayed


def command_bytes(text: str) -> bytes:
    return bytes.fromhex(text.replace(" ", ""))


_FUNCTIONS = "036203 04020f 050000 07621c 080204 09421a 0a027f 0b0215 "
_MORE_FUNCTIONS = "0c0217 0d0212 0e0216 "
_LAST_FUNCTIONS = "0f0211 100213 110000 120000 "
SLC_LIST_A = "fffa2203 010000 " + _FUNCTIONS + _MORE_FUNCTIONS + _LAST_FUNCTIONS + "fff0"
SLC_LIST_B = "fffa2203" + "".join(f"{function:02x}0000" for function in (1, 3, 4, 5, 7, *range(8, 19))) + "fff0"
SLC_LIST_C = "fffa2203 010000 " + _FUNCTIONS + _LAST_FUNCTIONS + "fff0"

DO_SGA, DO_LINEMODE = command_bytes("fffd03"), command_bytes("fffd22")


@dataclasses.dataclass(frozen=True)
class Program:
    """What a program sends while nobody speaks, and what it answers to each thing the server may say; every time, but for
    WILL and WONT ECHO, which are answered when they change something."""

    unprompted: str
    answers: dict[bytes, str]
    end: bytes = b"\r\n"  # of a line
    linemode: bool = False
    waits: bool = True  # for the prompts

    @property
    def greeted_at_once(self) -> bool:
        return self.linemode or not self.waits


def bsd(slc_list: str, linemode_first: str = "") -> dict[bytes, str]:
    return {
        DO_SGA: "fffb03",
        DO_LINEMODE: linemode_first + slc_list + " fffd03",
        MODE_EDIT: "fffa220105fff0",
        SLC_FORWARD: "fffa220311820d12820dfff0",
        WILL_ECHO: "fffd01",
        WONT_ECHO: "fffe01",
    }


def refusing(sga: str, wont: bool = False) -> dict[bytes, str]:
    """Without LINEMODE. `wont`: a refusal by the server is acknowledged, each time."""
    answers = {DO_SGA: sga, DO_LINEMODE: "fffc22"}
    if wont:
        answers |= {command_bytes(f"fffc{option:02x}"): f"fffe{option:02x}" for option in range(2, 256) if option != 0x22}
    return answers


INETUTILS = "fffd26 fffb26 fffd03 fffb18 fffb1f fffb20 fffb21 fffb22 fffb27 fffd05"
SSL = "fffb27 fffb25 fffd03 fffb18 fffb1f fffb20 fffb21 fffb22 fffd05"
PLINK = "fffb1f fffb20 fffb18 fffb27 fffd01 fffb03 fffd03"
KERMIT = "fffb25 fffb1f fffb18 fffb27 fffb2c"
KERMIT_NO_WAIT = KERMIT + "fffb26 fffd26 fffd2f fffb2f"

REPLAYS = {
    "inetutils": Program(INETUTILS, bsd(SLC_LIST_A), linemode=True),
    "inetutils, pipe": Program(INETUTILS, bsd(SLC_LIST_B), linemode=True),
    "inetutils, 8 bits": Program(INETUTILS + "fffd00 fffb00", bsd(SLC_LIST_A), b"\n", linemode=True),
    "inetutils, user and display": Program("fffb25" + INETUTILS + "fffb23", bsd(SLC_LIST_A), linemode=True),
    "inetutils, port": Program("", refusing("fffb03")),
    "telnet-ssl": Program(SSL, bsd(SLC_LIST_C), linemode=True),
    "expect with inetutils": Program(INETUTILS, bsd(SLC_LIST_A), linemode=True),
    "BusyBox": Program("", refusing("fffd03")),
    "plink": Program(PLINK, {DO_LINEMODE: "fffc22"}, b"\n"),
    "plink, pipe": Program(PLINK, {DO_LINEMODE: "fffc22"}, b"\n"),
    "plink, passive": Program("", refusing("fffb03 fffd01 fffd03"), b"\n"),
    "plink, raw": Program("", {}, b"\n"),
    "C-Kermit, told not to wait": Program(KERMIT_NO_WAIT, refusing("fffb03")),
    "gensiot": Program("", refusing("fffb03"), b"\r"),
    "gensiot, rfc2217": Program("fffb2c", refusing("fffb03"), b"\r"),
    "libtelnet": Program("", refusing("fffc03")),
    "telnetlib": Program("", refusing("fffc03", wont=True), b"\n"),
    "Net::Telnet": Program("", refusing("fffc03")),
    "curl": Program("", {}, b"\n"),
    "netcat-openbsd": Program("", {}, b"\n"),
    "netcat-openbsd, telnet": Program("", refusing("fffc03", wont=True), b"\n"),
    "netcat-traditional, telnet": Program("", refusing("fffc03", wont=True), b"\n"),
    "ncat": Program("", {}, b"\n"),
    "ncat, telnet": Program("", refusing("fffc03", wont=True), b"\n"),
    "socat": Program("", {}, b"\n"),
    "socat, raw": Program("", {}, b"\r"),
    "inetutils, character mode": Program("", refusing("fffb03"), b"\r\0"),
}


class Replay:
    """A program's bytes on a connection."""

    def __init__(self, client: TelnetClient, program: Program) -> None:
        self._client = client
        self._program = program
        self._input = b""
        self.text = b""  # the server's, without telnet commands
        self.commands: list[bytes] = []  # the server's
        self._echo = False
        client.send(command_bytes(program.unprompted))

    def type(self, line: bytes) -> None:
        self._client.send(line + self._program.end)

    def expect(self, text: bytes, within: float = 5) -> None:
        """Answers what the server says until `text` has come."""
        deadline = Deadline(within)
        while text not in self.text:
            self._client.socket.settimeout(max(deadline.left(), 0.001))
            try:
                piece = self._client.socket.recv(4096)
            except TimeoutError:
                piece = b""
            assert piece, f"expected {text!r}, got {self.text!r} and the commands {self.commands}"
            self._input += piece
            for command in self._whole_commands():
                self.commands.append(command)
                self._answer(command)

    def _answer(self, command: bytes) -> None:
        if command in (WILL_ECHO, WONT_ECHO):
            if self._echo == (command == WILL_ECHO):
                return
            self._echo = command == WILL_ECHO
        self._client.send(command_bytes(self._program.answers.get(command, "")))

    def _whole_commands(self) -> Iterator[bytes]:
        """Takes text and commands out of the input, up to a command that is not whole."""
        while self._input:
            start = self._input.find(IAC)
            self.text += self._input[: start if start >= 0 else None]
            self._input = self._input[start:] if start >= 0 else b""
            if self._input[1:2] == SB:
                end = self._input.find(IAC + SE) + 2
                if end < 2:
                    return
            elif len(self._input) >= 3:
                end = 3
            else:
                return
            yield self._input[:end]
            self._input = self._input[end:]


@pytest.mark.parametrize("program", REPLAYS.values(), ids=REPLAYS.keys())
def test_a_session_with_the_bytes_of_a_program(socket_tessd, encoder, program):
    watch, blame = Stopwatch(), Blame(socket_tessd)
    with TelnetClient() as client:
        replay = Replay(client, program)
        replay.expect(GREETING)
        passed, blamed = watch.seconds(), blame.seconds()
        if program.greeted_at_once:
            assert blamed <= 0.7 * settings.SLOW, f"greeted after {blamed:.3f} s"
        else:
            assert passed >= 1.0, f"greeted after {passed:.3f} s"
            assert blamed <= 1.2 + 0.8 * settings.SLOW, f"greeted after {blamed:.3f} s"
        replay.type(ALICE.name)
        replay.expect(PASSWORD_PROMPT)
        replay.type(ALICE.password)
        replay.expect(connected(ALICE.name))
        replay.type(b"s3.ENC GETX")
        replay.expect(ANSWER)
        assert (WILL_ECHO in replay.commands) == program.linemode, replay.commands
        assert (WONT_ECHO in replay.commands) == program.linemode, replay.commands
        assert (MODE_EDIT in replay.commands) == program.linemode, replay.commands
        assert (ALICE.name + program.end in replay.text) == (not program.linemode), replay.text
        assert ALICE.password not in replay.text, replay.text
        # Every offer and request but for ECHO, SUPPRESS-GO-AHEAD and LINEMODE was refused, in the order in which it came.
        words = command_bytes(program.unprompted).split(IAC)[1:]
        refused = [IAC + b"\xfc" + word[1:] for word in words if word[1] not in (1, 3, 0x22)]
        told = [command for command in replay.commands if command[1:2] == b"\xfc" and command != WONT_ECHO]
        assert told == refused, f"expected the refusals {refused}, got {told}"
        replay.type(b"quit")
    socket_tessd.wait_log(*closed(0))


def test_a_program_that_waits_for_dont_after_its_offers_is_told_wont(socket_tessd):
    """C-Kermit, which never gets any further."""
    with TelnetClient() as client:
        replay = Replay(client, Program(KERMIT, refusing("fffb03")))
        replay.expect(GREETING)
        expected = [DO_SGA, DO_LINEMODE] + [IAC + b"\xfc" + option for option in (b"\x25", b"\x1f", b"\x18", b"\x27", b"\x2c")]
        assert replay.commands == expected, replay.commands


def test_a_program_that_sends_everything_at_once_loses_its_password(socket_tessd):
    """Scripts with nc, and telnetlib when it does not wait for prompts."""
    watch = Blame(socket_tessd)
    with TelnetClient() as client:
        client.send(b"alice\nsecret\ns3.ENC GETX\n")
        client.expect(GREETING + b"alice\nsecret\ns3.ENC GETX\n" + PASSWORD_PROMPT)
        assert watch.seconds() <= 0.7 * settings.SLOW, f"greeted after {watch.seconds():.3f} s"
        client.expect_silence(0.3)


def test_answers_to_linemode_that_arrive_behind_the_name_are_skipped(socket_tessd):
    """As they do when a user types ahead."""
    with TelnetClient() as client:
        client.send(WILL_LINEMODE)
        client.expect(OFFERS)
        client.send(command_bytes(SLC_LIST_A))
        client.expect(MODE_EDIT + SLC_FORWARD)
        client.send(b"alice\r\n")
        client.expect(GREETING + WILL_ECHO)
        client.send(MODE_ACK + SLC_ACK + DO_ECHO)
        client.expect(PASSWORD_PROMPT)


# What a program's keys send in a session, and the commands and refusals that follow.
KEYS = {
    "inetutils, Ctrl-C": "fff4 fffd06",
    "inetutils, Ctrl-Z": "ffed fffd06",
    "inetutils, Ctrl-\\": "fff3 fffd06",
    "inetutils and plink, Ctrl-D": "ffec",
    "send ayt": "fff6",
    "send nop": "fff1",
    "send brk": "fff3",
    "C-Kermit, Ctrl-C": "03",
    "Up arrow": "1b5b41",
    "byte ff": "ffff",
}


def test_what_keys_send_stays_in_the_line(encoder):
    with TelnetClient() as client:
        client.log_in()
        for key, sent in KEYS.items():
            line = command_bytes(sent) + b"s3.ENC GETX"
            client.send(line + b"\r\n")
            expected = line + b"\r\n?\r\n"
            actual = client.receive(len(expected))
            assert actual == expected, f"{key}: expected {expected!r}, got {actual!r}"
        client.ask(b"s3.ENC GETX", ANSWER)
