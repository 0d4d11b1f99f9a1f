"""tessd keeps its promises, whatever clients and processes do: made-up rows of steps, the model and the program side by side.

A row that shows a difference is made as short as it can be and printed, one line a step. What can be chosen stands at PARTS."""

from __future__ import annotations

import os
import re
import subprocess
import time

import pytest
from device import Device, Peer
from harness import wire
from hypothesis import HealthCheck, Phase, seed, settings
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, initialize, precondition, rule, run_state_machine_as_test
from promises import MILLISECOND, SECOND
from words import (
    ADDRESSES,
    ALL_PORTS,
    AMOUNTS,
    BODIES,
    DATA,
    DELAY_LINES,
    LENGTH_ERRORS,
    LINE_ENDS,
    LINE_MODE,
    LONG,
    MASKS,
    NAMES,
    PLAIN_LINES,
    SEVERAL_LINES,
    STARTS,
    TAGS,
    TELNET_PIECES,
    TEXTS,
    TYPED,
    UNITS,
    WHO,
    WORDS,
    could_reset,
)

PARTS = 4  # tests that can run side by side, each with its share of the examples
EXAMPLES = int(os.environ.get("TESS_MODEL_EXAMPLES") or 1200)  # of all parts
MINUTES = float(os.environ.get("TESS_MODEL_MINUTES") or 0)  # more than 0: rounds of as many examples go on so long, in each part
SEED = int(os.environ.get("TESS_MODEL_SEED") or 0)  # of the first round of the first part; those of the others follow
STEPS = 40  # of one example, at most

MOST_PENDING = 6  # delays, so that they fit a message when they are listed
MOST_TYPED = 3000  # what the serial line takes unread

PASSWORDS = {b"alice": b"secret", b"bob": b"sesame", b"sheila": None}


HASHED = {  # by a method that costs little
    b"root": b"$1$Wq3nB0uT$IQ.IuP8225VeBC701OlUG/",
    b"alice": b"$1$Wq3nB0uT$IQ.IuP8225VeBC701OlUG/",
    b"bob": b"$1$kH7sW2xE$AJ.HZRnhLwu2cWuKENEbL1",
    b"sheila": b"x",
}


def install_passwords() -> None:
    with open("/run/passwd", "wb") as file:
        for number, (name, field) in enumerate(HASHED.items()):
            file.write(b"%s:%s:%d:100::/nowhere:/bin/false\n" % (name, field, 1000 + number))
    subprocess.run(["mount", "--bind", "/run/passwd", "/etc/passwd"], check=True)


def let_queues_be_long() -> None:
    """So that a process that is registered many times takes a command as often at once, and nobody's order is left open."""
    try:
        with open("/proc/sys/net/unix/max_dgram_qlen", "w", encoding="ascii") as file:
            file.write("500")
    except OSError as error:
        pytest.skip(f"the length of queues cannot be set without being root outside too: {error}")


def has_client(machine: Promised) -> bool:
    return bool(machine.device.peers)


def has_sender(machine: Promised) -> bool:
    return has_client(machine) or machine.device.line is not None


def has_process(machine: Promised) -> bool:
    return bool(machine.processes())


class Promised(RuleBasedStateMachine):
    """The steps, in any order."""

    def __init__(self) -> None:
        super().__init__()
        self.device: Device | None = None

    def teardown(self) -> None:
        if self.device:
            try:
                if not self.device.failed:
                    self.device.stop()
            finally:
                self.device.close()

    @initialize(
        ports=st.sampled_from([ALL_PORTS] * 4 + [ALL_PORTS[1:], (wire.COM2, wire.IPC), ALL_PORTS[2:]]),
        now=STARTS,
        telnet_first=st.booleans(),
    )
    def start(self, ports: tuple[int, ...], now: int, telnet_first: bool) -> None:
        self.device = Device(ports, now, PASSWORDS)
        first = self.device.greet_first(b"alice\r\n") if telnet_first and wire.TELNET in ports else None
        self.device.compare()
        if first:
            self.device.send(first, b"secret\r\n")

    def pick(self, who: int) -> Peer | None:
        """A client, or none for the line."""
        found: list[Peer | None] = [*self.device.peers, *([None] if self.device.line else [])]
        return found[who % len(found)]

    def processes(self) -> list[int]:
        return [address for address in self.device.stations if address in ADDRESSES]

    def say(self, peer: Peer | None, data: bytes, cuts: list[int]) -> None:
        """In several pieces, each of which the daemon sees for itself."""
        starts = [0, *sorted({cut % (len(data) + 1) for cut in cuts}), len(data)]
        for start, end in zip(starts, starts[1:], strict=False):
            piece = data[start:end]
            if peer is None:
                if len(self.device.promises.line) + len(piece) < MOST_TYPED:
                    self.device.type(piece)
            elif piece and not peer.connection.closed and not peer.connection.ended:
                self.device.send(peer, piece)

    # Clients

    @rule(port=st.sampled_from([wire.XCP, wire.IPC, wire.TELNET]))
    def connect(self, port: int) -> None:
        if port in self.device.promises.ports:
            self.device.connect(port)

    @rule(port=st.sampled_from([wire.XCP, wire.IPC, wire.TELNET]), count=st.integers(2, 11))
    def crowd(self, port: int, count: int) -> None:
        if port in self.device.promises.ports:
            self.device.connect(port, count)

    @rule(
        name=st.sampled_from([b"alice", b"alice", b"bob", b"root", b"sheila", b"nemo", b" alice", b"a" * 255]),
        password=st.sampled_from([b"secret", b"secret", b"sesame", b"x", b" ", b"s" * 256]),
        ends=st.lists(st.sampled_from([b"\r\n", b"\r\n", b"\n", b"\r\0"]), min_size=2, max_size=2),
        cuts=st.lists(st.integers(0, 300), max_size=1),
    )
    def log_in(self, name: bytes, password: bytes, ends: list[bytes], cuts: list[int]) -> None:
        if wire.TELNET in self.device.promises.ports:
            peer = self.device.connect(wire.TELNET)
            self.say(peer, name + ends[0], cuts)
            self.say(peer, password + ends[1], cuts)

    @rule(left_out=st.integers(0, 20))
    def log_in_by_lines(self, left_out: int) -> None:
        """A client that edits lines itself; it may forget to say something."""
        if wire.TELNET in self.device.promises.ports:
            peer = self.device.connect(wire.TELNET)
            for number, piece in enumerate(LINE_MODE):
                if number != left_out:
                    self.say(peer, piece, [])

    @precondition(has_sender)
    @rule(who=WHO, data=DATA, cuts=st.lists(st.integers(0, 200), max_size=2), tag=TAGS, word=WORDS, wrong=LENGTH_ERRORS)
    def command(self, who: int, data: bytes, cuts: list[int], tag: int, word: int, wrong: int) -> None:
        peer = self.pick(who)
        if peer and peer.connection.port == wire.XCP:
            data = wire.frame(data, tag, len(data) + wrong, word, word)
            cuts = cuts if len(cuts) == 2 else []
        self.say(peer, data, cuts)

    @precondition(has_sender)
    @rule(who=WHO, data=SEVERAL_LINES, tag=TAGS)
    def command_in_one_piece(self, who: int, data: bytes, tag: int) -> None:
        self.command(who, data, [], tag, 0, 0)

    @precondition(has_sender)
    @rule(who=WHO, data=LONG)
    def long_command(self, who: int, data: bytes) -> None:
        self.command(who, data, [], 7, 0, 0)

    @precondition(has_sender)
    @rule(
        who=WHO,
        which=st.integers(0, 40),
        unit=st.sampled_from(UNITS[:4]),
        body=st.sampled_from(BODIES),
        end=st.sampled_from(LINE_ENDS),
    )
    def command_to_somebody(self, who: int, which: int, unit: bytes, body: bytes, end: bytes) -> None:
        """Who is registered."""
        known = self.device.promises.registrations
        name = known[which % len(known)].name if known else b"ENC"
        self.command(who, unit + b"." + name.swapcase() + b" " + body + end, [], 5, 0, 0)

    @precondition(has_sender)
    @rule(who=WHO, line=DELAY_LINES, also=st.sampled_from([b"", b"", b"\nDELAY"]))
    def delayed_command(self, who: int, line: bytes, also: bytes) -> None:
        if len(self.device.promises.delays) < MOST_PENDING:
            self.command(who, line + also + b"\n", [], 5, 0, 0)

    @precondition(has_sender)
    @rule(who=WHO)
    def list_delays(self, who: int) -> None:
        self.command(who, b"DELAY\n", [], 5, 0, 0)

    @precondition(has_client)
    @rule(who=WHO, frames=st.lists(st.tuples(DATA, TAGS, WORDS), min_size=2, max_size=3))
    def several_frames(self, who: int, frames: list[tuple[bytes, int, int]]) -> None:
        """In one piece."""
        data = b"".join(wire.frame(text, tag, word0=word) for text, tag, word in frames)
        peer = self.device.peers[who % len(self.device.peers)]
        if peer.connection.port == wire.XCP:
            self.say(peer, data, [])

    @precondition(has_client)
    @rule(who=WHO, before=SEVERAL_LINES, after=SEVERAL_LINES)
    def quit(self, who: int, before: bytes, after: bytes) -> None:
        """With lines in front and behind, which are for somebody else then."""
        found = self.telnet_clients(logged_in=True)
        if found:
            self.say(found[who % len(found)], before + b"\nquit\n" + after, [])

    def telnet_clients(self, logged_in: bool) -> list[Peer]:
        clients = [peer for peer in self.device.peers if peer.connection.port == wire.TELNET]
        return [peer for peer in clients if peer.connection.logged_in == logged_in]

    @precondition(has_client)
    @rule(who=WHO, data=st.sampled_from(TELNET_PIECES))
    def telnet_piece(self, who: int, data: bytes) -> None:
        found = self.telnet_clients(logged_in=False)
        if found:
            self.say(found[who % len(found)], data, [])

    @precondition(lambda self: self.device.line)
    @rule(keys=TYPED)
    def type_with_mistakes(self, keys: bytes) -> None:
        """Erasing, or without a line end. An end of file behind nothing would let the line rest for a second."""
        keys = re.sub(rb"(?<![\w ])\x04", b"", keys)
        if self.device.promises.line.thrown_away:  # which of it lies in the buffer is left open
            keys = keys.replace(b"\x04", b"")
        if not could_reset(keys):
            self.say(None, keys, [])

    @precondition(lambda self: len(self.device.peers) >= 2)
    @rule(parts=st.lists(st.tuples(WHO, PLAIN_LINES), min_size=2, max_size=4))
    def together(self, parts: list[tuple[int, bytes]]) -> None:
        chosen: dict[str, tuple[Peer | None, bytes]] = {}
        for who, line in parts:
            peer = self.pick(who)
            if peer is None or peer.connection.logged_in and not peer.connection.ended:
                name = peer.name if peer else ""
                data = line + b"\n"
                chosen[name] = peer, wire.frame(data) if peer and peer.connection.port == wire.XCP else data
        self.device.send_together(list(chosen.values()))

    @precondition(has_client)
    @rule(who=WHO, half=st.booleans())
    def hang_up(self, who: int, half: bool) -> None:
        peer = self.device.peers[who % len(self.device.peers)]
        # Behind half a line: one that has gone is missed some time after it is written to, nobody says when.
        half_typed = peer.connection.port == wire.TELNET and bool(peer.connection.pending)
        self.device.hang_up(peer, half or half_typed)

    # Processes

    @rule(
        address=st.sampled_from(ADDRESSES),
        name=st.sampled_from(NAMES),
        mask=MASKS,
        end=st.sampled_from([b"\0", b"\0", b"", b"\0x"]),
    )
    def register(self, address: int, name: bytes, mask: int, end: bytes) -> None:
        self.device.tell(address, wire.registration(name, mask, end), f"registers {name!r} for {mask:#x}")

    @rule(mask=MASKS, name=st.sampled_from(NAMES[:3]))
    def register_without_address(self, mask: int, name: bytes) -> None:
        self.device.tell(0, wire.registration(name, mask), f"registers {name!r} for {mask:#x}")

    @rule(address=st.sampled_from(ADDRESSES), size=st.integers(0, 5))
    def register_in_part(self, address: int, size: int) -> None:
        datagram = wire.registration(b"N", 15)[: wire.HEADER + size]
        self.device.tell(address, datagram, f"registers with the first {size} bytes")

    @rule(address=st.sampled_from(ADDRESSES), count=st.sampled_from([5, 30, 33]), mask=MASKS.filter(bool))
    def register_many(self, address: int, count: int, mask: int) -> None:
        datagrams = [wire.registration(b"P%d" % number, mask) for number in range(count)]
        self.device.tell_all(address, datagrams, f"registers P0 to P{count - 1} for {mask:#x}")

    @rule(address=st.sampled_from(ADDRESSES))
    def unregister(self, address: int) -> None:
        self.device.tell(address, wire.record(wire.UNREGISTER), "unregisters")

    @precondition(has_process)
    @rule(who=WHO, clean=st.booleans())
    def end_process(self, who: int, clean: bool) -> None:
        found = self.processes()
        self.device.end_process(found[who % len(found)], clean)

    @precondition(has_process)
    @rule(who=WHO, which=st.integers(0, 30), text=TEXTS, end=st.sampled_from([b"\0", b"", b"\0\0x"]))
    def answer(self, who: int, which: int, text: bytes, end: bytes) -> None:
        """To one of the commands it has got."""
        found = [address for address in self.processes() if self.device.stations[address].commands]
        if found:
            address = found[who % len(found)]
            commands = self.device.stations[address].commands
            self.send_answer(address, commands[-1 - which % len(commands)].tag, text + end)

    @rule(address=st.sampled_from(ADDRESSES), who=WHO, low=TAGS, text=TEXTS)
    def speak_unasked(self, address: int, who: int, low: int, text: bytes) -> None:
        """To any connection, or to none."""
        ids = [connection.id for connection in self.device.promises.connections] + [0, 0x00570000, 0x12340000]
        self.send_answer(address, ids[who % len(ids)] | low & 0xFFFF, text)

    def send_answer(self, address: int, tag: int, text: bytes) -> None:
        text = text[: wire.TEXT]
        self.device.tell(address, wire.record(wire.REPLY, text, tag=tag), f"answers {text!r} to {tag:#x}")

    @rule(
        address=st.sampled_from(ADDRESSES), kind=st.sampled_from([wire.CLOSE_ALL, wire.CLOSE_TELNET, 0, 104, 206, wire.TEXT_KIND])
    )
    def odd_message(self, address: int, kind: int) -> None:
        self.device.tell(address, wire.record(kind, b"x" * 20), f"sends a message of kind {kind}")

    @rule(
        address=st.sampled_from(ADDRESSES),
        text=st.sampled_from([b"", b"menu\r\n", b"a\0b", b"m" * 2000]),
        wrong=st.sampled_from([0, 0, 1, -1, 30]),
        tag=TAGS,
    )
    def write_to_the_line(self, address: int, text: bytes, wrong: int, tag: int) -> None:
        datagram = wire.record(wire.COM2_WRITE, text, tag=tag, length=len(text) + wrong)
        self.device.tell(address, datagram, f"has {len(text) + wrong} bytes of {text!r} written to the line")

    @rule(
        address=st.sampled_from(ADDRESSES), line=st.sampled_from([b"RESET A", b"", b"RESET REINIT s2", b"a b c d" + b" " * 100])
    )
    def failing_reset(self, address: int, line: bytes) -> None:
        if line:
            self.device.tell(address, wire.record(wire.RESET, line + b"\0", tag=77, length=88), f"asks for {line!r}")

    # Time

    @rule(nanoseconds=AMOUNTS)
    def advance(self, nanoseconds: int) -> None:
        self.device.advance(nanoseconds)

    @precondition(lambda self: self.device.promises.delays)
    @rule(which=st.integers(0, 10), wrong=st.sampled_from([0, 0, -1, -MILLISECOND, MILLISECOND]))
    def advance_to_a_delay(self, which: int, wrong: int) -> None:
        """To the moment at which it is due, or next to it."""
        key = self.device.promises.delays[which % len(self.device.promises.delays)][0]
        nanoseconds = key * MILLISECOND + wrong - self.device.promises.now
        if 0 < nanoseconds < 10_000_000 * SECOND:
            self.device.advance(nanoseconds)


def run(chosen: int, examples: int) -> None:
    """So many examples, which depend on the seed and on nothing else."""
    options = settings(
        max_examples=examples,
        stateful_step_count=STEPS,
        deadline=None,
        database=None,
        print_blob=False,
        report_multiple_bugs=False,
        suppress_health_check=list(HealthCheck),
        phases=(Phase.generate, Phase.shrink),
    )
    try:
        run_state_machine_as_test(seed(chosen)(Promised), settings=options)
    except BaseException:
        print(f"The same again: TESS_MODEL_SEED={chosen} TESS_MODEL_EXAMPLES={EXAMPLES} pytest tests/model -k 'promises[0]'")
        raise


@pytest.mark.deadline(MINUTES * 60 + 100)
@pytest.mark.parametrize("part", range(PARTS))
def test_tessd_keeps_its_promises(part: int) -> None:
    install_passwords()
    let_queues_be_long()
    end = time.monotonic() + MINUTES * 60
    rounds = 0
    while rounds == 0 or time.monotonic() < end:
        run(SEED + rounds * PARTS + part, max(1, EXAMPLES // PARTS))
        rounds += 1
        print(f"{Device.examples} examples, {Device.steps} steps, {Device.commands} pieces sent by clients", flush=True)
