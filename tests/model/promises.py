"""What tessd promises about commands, processes and connections: a model of it, in plain Python and without any input or output.

The model is told what clients and processes do and what time it is. It then holds what each client must have been answered,
what each process must have been sent and what must have been logged: `Client.output`, `Process.inbox`, `Promises.log`. Whoever
compares takes away what he has compared.

It follows the bytes through every buffer of a connection, because what a client sees depends on it: what an earlier line left
behind in the receive buffer can be read again."""

from __future__ import annotations

import bisect
import dataclasses
from collections.abc import Generator, Iterable

from harness import settings, telnet, wire
from harness.reply_model import ReplyRecord

SECOND = 1_000_000_000
MILLISECOND = 1_000_000

NO_ARGUMENTS = b"Error Setting Command: Invalid Arguments.\r\n\r\n"
RESET_FAILED = b"Error Processing Reset Command.\r\n\r\n"
DONE = b"OK\r\n\r\n"
HERE = b"0\r\n\r\n"
NOBODY = b"?\r\n"

WHITE = b" \t\n\v\f\r"
LINE_ENDS = b"\r\n"
BUFFER = 1024
DELAYED = 16
MOST_CONNECTIONS = 10
MOST_PROCESSES = 32
NAME_SIZE = 255  # of an address field
DELAYED_SIZE = 255
HOST_NAME = "s3"

PORT_NAMES = {wire.COM2: "com2", wire.TELNET: "telnet", wire.XCP: "xcp", wire.IPC: "ipc"}
FIRST_COUNTER = {wire.COM2: 0x00550000, wire.TELNET: 0xAA000000, wire.XCP: 0x00560000, wire.IPC: 0xBB000000}
ACCEPTING_ORDER = (wire.COM2, wire.TELNET, wire.XCP, wire.IPC)

CLOSE = -2  # the command ends its connection


class DeviceReset(Exception):
    """The command would restart the device."""


# The command language


def parse_address(text: bytes) -> tuple[bytes, bytes, int]:
    """Unit, process and where the body begins; 0 rejects the command, 1 is for the whole text."""
    if not _is_addressed(text):
        return b"*", b"*", 1
    end = next((index for index, byte in enumerate(text) if byte in WHITE + b".$"), len(text))
    unit = text[:end]
    if end == len(text):
        return unit[:NAME_SIZE], b"", end
    if text[end] == ord("$"):
        return _parse_sentence(text)
    if text[end] in WHITE:
        return (unit, b"*", _skip_white(text, end)) if unit in (b"*", b"") else (unit[:NAME_SIZE], b"", 0)
    behind = next((index for index in range(end + 1, len(text)) if text[index] in WHITE), len(text))
    return unit[:NAME_SIZE], text[end + 1 : behind][:NAME_SIZE], _skip_white(text, behind)


def _is_addressed(text: bytes) -> bool:
    stars, dots = "", ""
    for index, byte in enumerate(text):
        if byte == ord("$") or (byte == ord("*") and index == 0):
            return True
        if byte == ord("*"):
            stars += "*"
        elif byte == ord("."):
            dots += "."
        elif byte in WHITE:
            stars, dots = stars + " ", dots + " "
    return not stars.startswith(" *") and dots.startswith(". ")


def _parse_sentence(text: bytes) -> tuple[bytes, bytes, int]:
    """Of a position receiver."""
    end = text.find(b",")
    sentence = text if end < 0 else text[:end]
    if sentence.startswith(b"$GPRMC"):
        return b"*", b"GPSD", len(sentence) - 2
    return sentence[:NAME_SIZE], b"", 0


def _skip_white(text: bytes, start: int) -> int:
    while start < len(text) and text[start] in WHITE:
        start += 1
    return start


def tokens_of(text: bytes, separators: bytes) -> list[bytes]:
    """No token is empty."""
    for separator in separators:
        text = text.replace(bytes([separator]), b"\0")
    return [token for token in text.split(b"\0") if token]


def delay_of(text: bytes) -> int:
    """Milliseconds, 0 when it is none."""
    words = tokens_of(text, b": .")
    if not 1 <= len(words) <= 4 or not all(word.isdigit() and int(word) <= 0x7FFFFFFF for word in words):
        return 0
    total = 0
    for word, limit, factor in zip(reversed(words), (0x7FFFFFFF, 2999999, 59999, 999), (1, 1000, 60000, 3600000), strict=False):
        if int(word) > limit:
            return 0
        total += _signed_32(int(word) * factor)
    return total % (1 << 64)


def _signed_32(number: int) -> int:
    return (number + (1 << 31)) % (1 << 32) - (1 << 31)


def _quotient(number: int, by: int) -> tuple[int, int]:
    """And remainder, of a division that rounds towards zero."""
    quotient = abs(number) // by * (1 if number >= 0 else -1)
    return quotient, number - quotient * by


def c_text(text: bytes) -> bytes:
    return text.split(b"\0", 1)[0]


def resets(line: bytes) -> bool:
    """Whether a line that begins with RESET restarts the device. One that would prepare it first is not for this model."""
    words = tokens_of(line, b" ")
    if len(words) == 1:
        return True
    return len(words) == 3 and words[1].upper() == b"REINIT" and words[2].startswith(HOST_NAME.encode())


# Processes and their registrations


@dataclasses.dataclass(frozen=True)
class Record:
    """A message as a process receives it. A command's length word says nothing."""

    kind: int
    tag: int
    text: bytes
    length_word: int | None = None


@dataclasses.dataclass
class Registration:
    address: int
    mask: int
    name: bytes


class Process:
    """An address that somebody has open."""

    def __init__(self, address: int) -> None:
        self.address = address
        self.inbox: list[Record] = []


# Connections


@dataclasses.dataclass(frozen=True)
class Frame:
    """An answer on the framed port; a tag of None may be any."""

    kind: int
    sender: int
    tag: int | None
    text: bytes


class Connection:
    """One client as the daemon has it. What the client is sent goes to `output`, bytes or frames."""

    port = 0

    def __init__(self, promises: Promises, number: int) -> None:
        self.promises = promises
        self.id = number
        self.logged_in = True
        self.pending = bytearray()  # sent by the client and not yet taken
        self.ended = False  # nothing more will come from the client
        self.closed = False  # by the daemon
        self.output: list = []
        self.buffer = bytearray(BUFFER + 1)
        self.received = 0
        self.entries: list[tuple[int, int]] = []  # tag, and where the line begins in the buffer

    def line(self, number: int) -> tuple[int, bytes] | None:
        """Tag and text of a line that some read has found."""
        if number >= len(self.entries):
            return None
        tag, start = self.entries[number]
        return tag, c_text(bytes(self.buffer[start:]))

    def read(self) -> int:
        """Number of lines, -1 when the connection has come to its end."""
        raise NotImplementedError

    def write(self, kind: int, sender: int, tag: int | None, text: bytes) -> None:
        raise NotImplementedError

    def timed_out(self) -> bool:
        return False

    def deadlines(self) -> Iterable[int]:
        return ()

    def take(self, count: int) -> None:
        """From what is pending to the buffer."""
        piece = self.pending[:count]
        self.buffer[: len(piece)] = piece
        del self.pending[:count]
        self.received = len(piece)
        self.promises.stir()

    def remember(self, starts: list[int], tag: int = 0) -> int:
        self.entries[: len(starts)] = [(tag, start) for start in starts]
        return len(starts)

    def cut_lines(self, nul_is_white: bool = False) -> int:
        white = WHITE + b"\0" if nul_is_white else WHITE
        starts = []
        index = 0
        while True:
            while index < self.received and self.buffer[index] in white:
                self.buffer[index] = 0
                index += 1
            if index >= self.received:
                return self.remember(starts)
            starts.append(index)
            while index < self.received and self.buffer[index] not in LINE_ENDS:
                index += 1


class IpcConnection(Connection):
    port = wire.IPC

    def read(self) -> int:
        if not self.pending:
            return -1 if self.ended else 0
        self.take(BUFFER)
        if self.received == BUFFER and b"\n" in c_text(bytes(self.buffer)):
            self.promises.log.append((250003, "Full cmd buffer (>1k) without a newline received. Discarding"))
            return 0
        self.buffer[self.received] = 0
        return self.cut_lines(nul_is_white=True)

    def write(self, kind: int, sender: int, tag: int | None, text: bytes) -> None:
        self.output.append(text)


class XcpConnection(Connection):
    port = wire.XCP
    patience = 100 * MILLISECOND

    def __init__(self, promises: Promises, number: int) -> None:
        super().__init__(promises, number)
        self._deadline: int | None = None  # of a header that is not whole

    def deadlines(self) -> Iterable[int]:
        return () if self._deadline is None else (self._deadline,)

    def read(self) -> int:
        if not self.pending:
            return -1 if self.ended else 0
        if self._deadline is not None and self.promises.now >= self._deadline:
            return -1
        if len(self.pending) < wire.HEADER:
            self._deadline = self._deadline or self.promises.now + self.patience
            return -1 if self.ended else 0
        self._deadline = None
        return self._take_frame(wire.Message.parse(bytes(self.pending[: wire.HEADER]), ""))

    def _take_frame(self, header: wire.Message) -> int:
        length = _signed_32(header.length_word)
        if not 0 <= length <= BUFFER - wire.HEADER:
            self.promises.log.append((250004, "XCP frame length out of range"))
            return -1
        self.take(wire.HEADER + length)
        self.buffer[self.received] = self.buffer[wire.HEADER + length] = 0  # no line runs on behind them
        return self.remember(self._cut_frame(wire.HEADER + length), header.tag)

    def _cut_frame(self, end: int) -> list[int]:
        """Over the length that the header declares, whatever has come."""
        starts = []
        index = wire.HEADER
        while index < end:
            while index < end and self.buffer[index] in WHITE:
                self.buffer[index] = 0
                index += 1
            if index >= end:
                break
            starts.append(index)
            while index < end and self.buffer[index] not in LINE_ENDS:
                index += 1
            index += 1  # the line end stays where it is
        return starts

    def write(self, kind: int, sender: int, tag: int | None, text: bytes) -> None:
        self.output.append(Frame(kind, sender, None if tag is None else tag & 0xFFFF, text))


class SerialConnection(Connection):
    port = wire.COM2
    mute_time = 2 * SECOND

    def __init__(self, promises: Promises, number: int) -> None:
        super().__init__(promises, number)
        self._mute_end: int | None = None

    @property
    def muted(self) -> bool:
        return self._mute_end is not None and self.promises.now < self._mute_end

    def deadlines(self) -> Iterable[int]:
        return () if self._mute_end is None else (self._mute_end,)

    def mute(self) -> None:
        self._mute_end = self.promises.now + self.mute_time

    def read(self) -> int:
        line = self.promises.line
        if self.muted:
            line.throw_away()
            return 0
        piece = line.read(BUFFER)
        if not piece:
            return 0
        self.pending += piece
        self.take(len(piece))
        return self.cut_lines()

    def write(self, kind: int, sender: int, tag: int | None, text: bytes) -> None:
        self.promises.line.output.append(text)


def _in_word(key: int) -> bool:
    return chr(key).isalnum() or key == ord("_") if key < 0x80 else key >= 0xC0 and key not in (0xD7, 0xF7)


class Line:
    """The serial line as the system edits it: whole lines are handed out."""

    def __init__(self) -> None:
        self.output: list[bytes] = []
        self.thrown_away = False  # something, at some time
        self._typed = bytearray()
        self._whole: list[bytes] = []
        self._lying = 0  # bytes that nobody will read, and that take up room until the end of the mute

    def __len__(self) -> int:
        """Bytes for which the system must have room."""
        return self._lying + len(self._typed) + sum(map(len, self._whole))

    def type(self, keys: bytes) -> None:
        for key in keys:
            if key == 0x08:
                del self._typed[-1:]
            elif key == 0x17:
                self._erase_word()
            elif key == 0x04:
                self._end_line(b"")
            elif key in LINE_ENDS:
                self._end_line(b"\n")
            else:
                self._typed.append(key)

    def _erase_word(self) -> None:
        """The key that erases the line erases a word too, and the system takes it for that."""
        while self._typed and not _in_word(self._typed[-1]):
            del self._typed[-1]
        while self._typed and _in_word(self._typed[-1]):
            del self._typed[-1]

    def _end_line(self, end: bytes) -> None:
        self._whole.append(bytes(self._typed) + end)
        self._typed.clear()

    def throw_away(self) -> None:
        self._lying = len(self)
        self.thrown_away = self.thrown_away or self._lying > 0
        self._whole.clear()
        self._typed.clear()

    def read(self, size: int) -> bytes:
        """Not while the line is mute."""
        self._lying = 0
        while self._whole:
            line = self._whole.pop(0)
            if len(line) > size:
                self._whole.insert(0, line[size:])
            if line:
                return line[:size]
        return b""


class TelnetConnection(Connection):
    port = wire.TELNET
    idle_time = 420 * SECOND
    login_time = 60 * SECOND
    step_time = 1 * SECOND
    negotiation_time = 5 * SECOND
    echo_time = 2 * SECOND

    def __init__(self, promises: Promises, number: int) -> None:
        super().__init__(promises, number)
        self.logged_in = False
        self.line_mode = False
        self.server_echo = False
        self._echoed = 0
        self._login_deadline = promises.now + self.login_time
        self._idle_deadline = promises.now + self.idle_time
        self._waits: list[int] = []
        self._command = b""  # the telnet command that was read last
        self._dialogue = self._talk()

    def deadlines(self) -> Iterable[int]:
        return (self._login_deadline, self._idle_deadline, *self._waits)

    def timed_out(self) -> bool:
        return self.promises.now >= self._idle_deadline

    def _rest(self) -> None:
        self._idle_deadline = self.promises.now + self.idle_time

    def step(self) -> None:
        """Of negotiation and login, as far as it goes without waiting."""
        next(self._dialogue, None)

    def send(self, data: bytes) -> None:
        self.promises.stir()
        self.output.append(data)

    def write(self, kind: int, sender: int, tag: int | None, text: bytes) -> None:
        self._rest()
        self.send(text)

    def say(self, text: bytes) -> None:
        self.write(wire.TEXT_KIND, 0, 0, text)

    def read(self) -> int:
        peeked = bytes(self.pending[:BUFFER])
        if not peeked:
            return -1 if self.ended else 0
        if self.server_echo:
            for index in range(self._echoed, len(peeked)):
                self.send(peeked[index : index + 1])
            self._echoed = max(self._echoed, len(peeked))
        if not any(byte in LINE_ENDS for byte in peeked):
            return 0
        self.take(BUFFER)
        self.buffer[self.received] = 0
        self._echoed = 0
        count = self.cut_lines()
        if count:
            self._rest()
        return count

    # Options

    def _talk(self) -> Generator:
        yield from self._negotiate()
        while not self.promises.admit(self):
            yield
        yield
        yield from self._log_in()

    def _read_command(self, limit: int) -> Generator[None, None, int]:
        """0 when one was read, 2 when none came in time, 3 when what comes is none."""
        deadline = self.promises.now + self.step_time
        while not self.pending:
            if self._over(deadline, limit):
                return 2
            yield from self._wait(deadline, limit)
        if self._over(deadline, limit):
            return 2
        if self.pending[:1] != telnet.IAC:
            return 3
        deadline = self.promises.now + self.step_time
        while len(self.pending) < 3:
            if self._over(deadline, limit):
                return 2
            yield from self._wait(deadline, limit)
        size = 3
        if self.pending[1:2] == telnet.SB:
            deadline = self.promises.now + self.step_time
            while (end := self.pending.find(telnet.IAC + telnet.SE, 0, BUFFER)) < 0:
                if self._over(deadline, limit):
                    return 2
                yield from self._wait(deadline, limit)
            size = end + 2
        self._command = bytes(self.pending[:size])
        del self.pending[:size]
        self.promises.stir()
        return 0

    def _over(self, *deadlines: int) -> bool:
        return any(self.promises.now >= deadline for deadline in deadlines)

    def _wait(self, *deadlines: int) -> Generator:
        self._waits = list(deadlines)
        yield
        self._waits = []

    def _negotiate(self) -> Generator:
        limit = self.promises.now + self.negotiation_time
        if (yield from self._read_command(limit)) == 0:
            self.send(telnet.OFFERS)
            while True:
                if len(self._command) > 3:
                    if self._of_line_mode():
                        yield from self._negotiate_line_mode()
                    break
                self._process_option()
                if (yield from self._read_command(limit)) != 0:
                    break
        if not self.line_mode:
            self.server_echo = True
        self._rest()

    def _of_line_mode(self) -> bool:
        return self._command.startswith(telnet.IAC + telnet.SB + telnet.LINEMODE)

    def _process_option(self) -> None:
        what, option = self._command[1:2], self._command[2:3]
        if option == telnet.LINEMODE:
            self.line_mode = self.line_mode or what == telnet.WILL
        elif option not in (telnet.ECHO, telnet.SUPPRESS_GO_AHEAD) and what in (telnet.WILL, telnet.DO):
            self.send(telnet.IAC + telnet.WONT + option)

    def _negotiate_line_mode(self) -> Generator:
        self.send(telnet.MODE_EDIT)
        self.send(telnet.SLC_FORWARD)
        limit = self.promises.now + self.negotiation_time
        agreed: set[str] = set()
        while True:
            if len(self._command) == 3:
                self._process_option()
            elif self._of_line_mode():
                agreed |= self._agreed()
            if len(agreed) == 3 or (yield from self._read_command(limit)) != 0:
                return

    def _agreed(self) -> set[str]:
        command = self._command
        end = len(command) - 2
        if command[3] == 1 and command[4] & 5 == 5:
            return {"mode"}
        found = set()
        if command[3] == 3 and end > 4:
            for start in range(4, end, 3):
                function, modifier, value = (*command[start : start + 3], 0, 0)[:3]
                if function in (17, 18) and modifier & 2 and value == 13:
                    found.add(f"function {function}")
        return found

    def _set_echo(self, on: bool) -> Generator:
        if not self.line_mode:
            self.server_echo = on
            return
        self.send(telnet.WONT_ECHO if on else telnet.WILL_ECHO)
        wanted = telnet.DONT_ECHO if on else telnet.DO_ECHO
        limit = self.promises.now + self.echo_time
        while (yield from self._read_command(limit)) == 0 and self._command != wanted:
            pass

    # Login

    def _log_in(self) -> Generator:
        self.say(b"\r\nMarvo Resident Telnet Server...\r\n")
        self.say(b"UserName:\r\n")
        yield
        if not (yield from self._ask(1, "Login name too big")):
            return
        self.promises.user_name = c_text(bytes(self.buffer))
        yield from self._set_echo(False)
        self.say(telnet.PASSWORD_PROMPT)
        yield
        if not (yield from self._ask(2, "Login password too big")):
            return
        name = self.promises.user_name  # that of whoever gave one last
        verdict = self.promises.authenticate(name, c_text(bytes(self.buffer)))
        if verdict:
            self._refuse(verdict)
            return
        yield from self._set_echo(True)
        self.say(telnet.connected(name))
        self.logged_in = True

    def _ask(self, state: int, too_big: str) -> Generator[None, None, bool]:
        while True:
            if self.promises.now >= self._login_deadline:
                self._refuse(f"Timeout during connection login, state = {state}")
                return False
            count = self.read()
            if count < 0:
                self._refuse("Received connection close request from client during login")
                return False
            if count > 0:
                break
            yield
        if self.received > 256:
            self._refuse(too_big)
            return False
        return True

    def _refuse(self, why: str) -> None:
        self.promises.log.append((telnet.LOGIN_FAILED, why))
        self.say(telnet.FAREWELL)
        self.promises.remove(self)


KINDS: dict[int, type[Connection]] = {
    kind.port: kind for kind in (SerialConnection, TelnetConnection, XcpConnection, IpcConnection)
}


# The daemon


class Promises:
    """One daemon, from its start on."""

    def __init__(self, ports: Iterable[int], now: int, passwords: dict[bytes, bytes | None]) -> None:
        """`now` in nanoseconds; passwords of None let nobody in."""
        self.now = now
        self.ports = tuple(port for port in ACCEPTING_ORDER if port in ports)
        self.line = Line()
        self.log: list[tuple[int, str]] = []
        self.processes: dict[int, Process] = {}
        self.connections: list[Connection] = []
        self.user_name = b""
        self.delays: list[tuple[int, bytes]] = []
        self.registrations: list[Registration] = []
        self._arriving: list[TelnetConnection] = []
        self._passwords = passwords
        self._counters = dict(FIRST_COUNTER)
        self._active = dict.fromkeys(FIRST_COUNTER, 0)
        self._reply = ReplyRecord()
        self._out_tag: int | None = 0  # what the record of commands and answers was sent with last
        self._admitted = False
        self._stirred = False
        self.settle()

    # What the world does

    def connect(self, port: int) -> Connection:
        """A client of a socket port."""
        connection = self._create(port)
        if self._active[port] > MOST_CONNECTIONS:
            if port == wire.TELNET:
                connection.output.append(telnet.LIMIT_REACHED)
            self._dispose(connection)
        elif isinstance(connection, TelnetConnection):
            self._arriving.append(connection)
        else:
            if port == wire.XCP:
                self.log.append((36106, f"Opened IPC socket connection with ID = 0x{connection.id - wire.ID_STEP:x}"))
            self.connections.append(connection)
        self.settle()
        return connection

    def receive(self, connection: Connection, data: bytes) -> None:
        if not connection.closed:
            connection.pending += data
        self.settle()

    def type(self, keys: bytes) -> None:
        self.line.type(keys)
        self.settle()

    def hang_up(self, connection: Connection) -> None:
        """The client sends nothing more."""
        connection.ended = True
        self.settle()

    def advance(self, nanoseconds: int) -> None:
        self.now += nanoseconds
        self.settle()

    def deadlines(self) -> set[int]:
        """At which moments what happens may be read in two ways."""
        return {deadline for connection in (*self._arriving, *self.connections) for deadline in connection.deadlines()}

    def open_process(self, address: int) -> Process:
        self.processes[address] = Process(address)
        return self.processes[address]

    def end_process(self, address: int) -> None:
        del self.processes[address]

    def forget_tags(self) -> None:
        """What several clients did at once came in an order that nobody promises."""
        self._out_tag = None

    def message(self, datagram: bytes, sender: int) -> None:
        """A process sends it to the daemon; a sender of 0 has no address."""
        header = wire.Message.parse(datagram, "")
        text = header.text.ljust(wire.TEXT, b"\0")
        if header.kind == wire.REPLY:
            self._pass_on(header, sender)
        elif header.kind == wire.REGISTER:
            self._answer_status(sender, *self._register(sender, text))
        elif header.kind == wire.UNREGISTER:
            self._answer_status(sender, *self._unregister(sender))
        elif header.kind == wire.CLOSE_ALL:
            self.log.append((36201, "Closing all connections!"))
            while self.connections:
                self.remove(self.connections[0])
        elif header.kind == wire.CLOSE_TELNET:
            self._close_telnet()
        elif header.kind == wire.COM2_WRITE:
            self._write_to_line(header, text, sender, len(datagram))
        elif header.kind == wire.RESET:
            self._refuse_reset(c_text(text), sender, len(datagram))
        self.settle()

    # Messages

    def _pass_on(self, header: wire.Message, sender: int) -> None:
        for connection in self.connections:
            if connection.id == header.tag & 0xFFFF0000:
                connection.write(wire.REPLY, sender, header.tag, c_text(header.text[: wire.TEXT - 1]))
                return

    def _register(self, sender: int, text: bytes) -> tuple[int, str]:
        mask = int.from_bytes(text[:4], settings.BYTEORDER)
        name = c_text(text[4:])
        if mask == 0:
            return -1, "Command register request with nothing enabled"
        for registration in self.registrations:
            if registration.name == name:
                registration.address, registration.mask = sender, mask
                break
        else:
            if len(self.registrations) >= MOST_PROCESSES:
                return -1, "Max # of registered processes reached"
            self.registrations.append(Registration(sender, mask, name))
        return 0, "Process register operation successful"

    def _unregister(self, sender: int) -> tuple[int, str]:
        if not self.registrations:
            return -1, "Registered process list is empty"
        for registration in self.registrations:
            if registration.address == sender:
                self.registrations.remove(registration)
                return 0, "Process unregister operation successful"
        return -1, "Process not found in registered process list"

    def _answer_status(self, address: int, status: int, text: str) -> None:
        self._answer(address, self._reply.status_text(status, text))

    def _answer(self, address: int, text: bytes) -> None:
        record = Record(self._reply.kind, self._reply.tag, text, self._reply.length_word)
        self._send(address, record)

    def _send(self, address: int, record: Record) -> bool:
        process = self.processes.get(address)
        if process is None:
            return False
        process.inbox.append(record)
        return True

    def _close_telnet(self) -> None:
        self.log.append((36201, "Closing all telnet connections!"))
        index = 0
        while index < len(self.connections):
            if self.connections[index].port != wire.TELNET:
                index += 1
            else:
                self.remove(self.connections[index])
                index += index == 0  # the one that moves to the first place is passed over

    def _write_to_line(self, header: wire.Message, text: bytes, sender: int, size: int) -> None:
        lines = [connection for connection in self.connections if isinstance(connection, SerialConnection)]
        if not lines:
            self._answer(sender, self._reply.no_serial_line(header.tag, size))
            return
        lines[0].mute()
        self.line.output.append(text[: max(0, min(_signed_32(header.length_word), wire.TEXT))])
        self._reply.kind, self._reply.tag, self._reply.length_word = wire.REPLY, header.tag, 0
        self._answer(sender, b"")

    def _refuse_reset(self, line: bytes, sender: int, size: int) -> None:
        if resets(line):
            raise DeviceReset
        self.log.append((250003, "Received RESET command."))
        self._answer(sender, self._reply.reset_text("Error Processing RESET Command\r\n\r\n", size))

    # Connections

    def _create(self, port: int) -> Connection:
        self._counters[port] = (self._counters[port] + wire.ID_STEP) % (1 << 32)
        self._active[port] += 1
        return KINDS[port](self, self._counters[port])

    def admit(self, connection: TelnetConnection) -> bool:
        """One in each pass."""
        self.stir()
        if self._admitted:
            return False
        self._admitted = True
        self._arriving.remove(connection)
        self.connections.append(connection)
        self.log.append((6000, f"Opened telnet connection 0x{connection.id - wire.ID_STEP:x} from 127.0.0.1"))
        return True

    def remove(self, connection: Connection) -> None:
        self.connections.remove(connection)
        self._dispose(connection)

    def _dispose(self, connection: Connection) -> None:
        connection.closed = True
        self._active[connection.port] -= 1
        left = self._active[connection.port]
        if connection.port == wire.COM2:
            self.log.append((36102, "COM2 connection closed"))
        elif connection.port == wire.TELNET:
            self.log.append((6001, f"Telnet connection closed for 127.0.0.1.  Active connections = {left}"))
        elif connection.port == wire.XCP:
            self.log.append((6001, f"XCP socket connection closed.  Active connections = {left}"))
        self.stir()

    def stir(self) -> None:
        """Something has happened, so the next pass may find more to do."""
        self._stirred = True

    def settle(self) -> None:
        """As many passes of the daemon as find anything to do."""
        self._stirred = True
        while self._stirred:
            self._stirred = False
            self._run_delays()
            self._accept()
            self._serve()

    def _accept(self) -> None:
        if wire.COM2 in self.ports and self._active[wire.COM2] == 0:
            connection = self._create(wire.COM2)
            self.connections.append(connection)
            self.log.append((36103, f"Open connection Com2 with ID = 0x{connection.id - wire.ID_STEP:x}"))
        self._admitted = False
        for connection in list(self._arriving):
            connection.step()

    def _serve(self) -> None:
        index = 0
        while index < len(self.connections):
            connection = self.connections[index]
            if not connection.logged_in:
                connection.step()
                index += not connection.closed
                continue
            count = connection.read()
            if count < 0 or (count == 0 and connection.timed_out()):
                self.remove(connection)
            index = self._interpret_lines(index, count) + 1

    def _interpret_lines(self, index: int, count: int) -> int:
        """Where the pass stands behind them."""
        for number in range(count):
            connection = self.connections[index]
            line = connection.line(number)
            if line and self.interpret(connection, *line) == CLOSE:
                self.remove(connection)
                index -= 1
                if index < 0:
                    break
        return index

    def authenticate(self, name: bytes, password: bytes) -> str:
        """Why not, or nothing."""
        if name != b"root":
            if name not in self._passwords:
                return "Failed login, username invalid "
            if self._passwords[name] == password:
                return ""
        return "Failed login, password invalid "

    # Commands

    def interpret(self, connection: Connection | None, tag: int, line: bytes) -> int:
        if line[:5].upper() == b"RESET":
            if resets(line):
                raise DeviceReset
            if connection:
                self._tell(connection, RESET_FAILED)
                return 1
        if isinstance(connection, TelnetConnection) and line.startswith(b"quit"):
            return CLOSE
        tokens = tokens_of(line, b"|")
        for number, token in enumerate(tokens):
            trimmed = token.strip(WHITE)
            if trimmed[:5].upper() == b"DELAY":
                self._tell(connection, self._delay(trimmed[5:].strip(WHITE), trimmed, tokens[number + 1 :]))
                return 0
            self._command(connection, tag, trimmed[: BUFFER - 1])
        return 0

    def _tell(self, connection: Connection | None, text: bytes) -> None:
        if connection:
            connection.write(wire.TEXT_KIND, 0, self._out_tag, text)

    def _command(self, connection: Connection | None, tag: int, text: bytes) -> None:
        unit, process, start = parse_address(text)
        if connection and start == 0:
            self._tell(connection, NOBODY)
        elif connection and start == 1 and unit.startswith(b"*") and not process.startswith(b"*"):
            self._tell(connection, HERE)
        else:
            body = text if start <= 1 else text[start:]
            self._out_tag = connection.id if connection else 0
            if not self._forward(unit, process, connection.port if connection else DELAYED, tag, body):
                self._tell(connection, NOBODY)

    def _forward(self, unit: bytes, name: bytes, port: int, tag: int, body: bytes) -> bool:
        sent = False
        if unit.lower() not in (b"s3", b"*"):
            return sent
        for registration in self.registrations:
            known = registration.name.lower()
            if not (registration.mask & port or port == DELAYED):
                continue
            if known == name.lower() or (name == b"*" and known != b"gpsd"):
                self._out_tag |= tag
                sent = self._send(registration.address, Record(wire.TEXT_KIND, self._out_tag, body + b"\n\0"))
                self.stir()
        return sent

    # Delays

    def _delay(self, argument: bytes, token: bytes, commands: list[bytes]) -> bytes:
        if len(token) == 5:
            return self._listing()
        if argument[:5].upper() == b"CLEAR":
            self.delays.clear()
            return DONE
        delay = delay_of(argument)
        if delay == 0:
            return NO_ARGUMENTS
        seconds, nanoseconds = divmod(self.now, SECOND)
        seconds += delay // 1000 % (1 << 32)
        nanoseconds += delay % MILLISECOND
        key = (seconds * 1000 + nanoseconds // MILLISECOND) % (1 << 64)
        bisect.insort_right(self.delays, (key, b"|".join(commands)), key=lambda entry: entry[0])
        return DONE

    def _listing(self) -> bytes:
        return b"OK\r\n" + b"".join(self._listed(key, text) for key, text in self.delays) + b"\r\n"

    def _listed(self, key: int, text: bytes) -> bytes:
        now_seconds, now_nanoseconds = divmod(self.now, SECOND)
        seconds = _signed_32(key // 1000 % (1 << 32) - now_seconds)
        fraction = key % 1000
        if now_nanoseconds > fraction:
            fraction += SECOND
            seconds -= 1
        hours, rest = _quotient(seconds, 3600)
        minutes, rest = _quotient(rest, 60)
        milliseconds = (fraction - now_nanoseconds) // MILLISECOND
        return b"%03d:%02d:%02d.%03d %s\r\n" % (hours, minutes, rest, milliseconds, text)

    def _run_delays(self) -> None:
        now = self.now // MILLISECOND
        index = 0
        while index < len(self.delays):
            entry = self.delays[index]
            if entry[0] > now:
                index += 1
                continue
            self.stir()
            self.interpret(None, 0, c_text(entry[1][:DELAYED_SIZE]))
            if not self.delays:
                return
            self.delays.remove(entry)
