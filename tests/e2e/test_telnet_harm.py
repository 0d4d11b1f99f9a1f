"""Telnet clients that mean harm, or are broken: what they cost the others, and that nothing of them stays."""

from __future__ import annotations

import contextlib
import select
import socket
import threading
from collections.abc import Callable, Iterator

import pytest

from harness import proc, settings, wire
from harness.answers import Blame, ask, expect_prompt, share_of_processor
from harness.daemon import Daemon
from harness.neighbours import Neighbours
from harness.queue_process import QueueProcess
from harness.telnet import (
    CLOSED_DURING_LOGIN,
    DO,
    DONT_ECHO,
    FAREWELL,
    GREETING,
    IAC,
    LINEMODE,
    MODE_EDIT,
    NAWS,
    NOP,
    OFFERS,
    PASSWORD_PROMPT,
    SB,
    SE,
    SLC_FORWARD,
    SLC_LIST,
    TERMINAL_TYPE,
    WILL,
    WILL_ECHO,
    WILL_LINEMODE,
    WONT,
    WRITE_FAILED,
    LinemodeClient,
    TelnetClient,
    closed,
    connected,
)
from harness.waiting import Deadline, Stopwatch, wait_until

BUFFER = 1024  # what the daemon looks at of a client's input
TIME_OUT = 420  # seconds until an idle session is removed
NOBODY = b"?\r\n"

plain_only = pytest.mark.skipif(
    settings.emulated() or settings.sanitized(), reason="emulators and sanitizers add costs of their own"
)


@pytest.fixture
def tessd(clocked_socket_tessd) -> Daemon:
    return clocked_socket_tessd


@pytest.fixture
def neighbours(tessd, clock) -> Iterator[Neighbours]:
    """When the test is over everybody is served, and once the time-outs are over the daemon has no descriptor more than
    before."""
    with Neighbours() as others:
        others.expect_service()
        tessd.wait_log(*closed(0))
        before = proc.descriptors(tessd.pid)
        yield others
        others.expect_service(within=10)
        clock.advance(TIME_OUT)  # a client that has hung up behind half a line is not noticed earlier
        wait_until(lambda: proc.descriptors(tessd.pid) == before, f"the descriptors are {before} again", within=10)
        others.expect_service()


class Pressing:
    """Sends the same bytes again and again from a thread of its own, and reads what comes.

    Not more than the daemon is about to read: a full socket makes TCP wait, for longer than the daemon takes for silence."""

    def __init__(self, client: TelnetClient, data: bytes) -> None:
        self._client = client
        self._data = data * 8
        self._ending = threading.Event()
        self.received = b""

    def __enter__(self) -> Pressing:
        self._client.socket.setblocking(False)
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()
        return self

    def __exit__(self, *_) -> None:
        self._ending.set()
        self._thread.join()

    def _run(self) -> None:
        rest = self._data
        with contextlib.suppress(ConnectionError):
            while not self._ending.is_set():
                if proc.unread(self._client.socket) < BUFFER:
                    rest = rest[self._client.socket.send(rest) :] or self._data
                if select.select([self._client.socket], [], [], 0.001)[0]:
                    self.received += self._client.socket.recv(4096)

    def wait_for(self, text: bytes, within: float) -> None:
        wait_until(lambda: text in self.received, f"{text!r} comes", within)


def expect_processor_at_rest(tessd: Daemon, seconds: float = 3) -> None:
    """The daemon uses at most 1 % of a processor for so long."""
    share = share_of_processor(tessd, seconds)
    assert share <= 0.01, f"{100 * share:.1f} % of a processor in {seconds:g} s"


def expect_over_after(watch: Stopwatch, blame: Blame, seconds: float) -> None:
    passed, blamed = watch.seconds(), blame.seconds()
    assert passed >= seconds, f"over after {passed:.2f} s"
    assert blamed <= seconds + 0.2 + 0.8 * settings.SLOW, f"over after {blamed:.2f} s"


# Before the greeting


@pytest.mark.parametrize(
    "data",
    [IAC + NOP + b"x", IAC + WILL + TERMINAL_TYPE, IAC + DO + NAWS, WILL_LINEMODE, IAC],
    ids=["NOP", "offers", "requests", "linemode", "IAC only"],
)
def test_commands_without_end_are_over_after_five_seconds_and_hold_nobody_up(neighbours, tessd, data):
    watch, blame = Stopwatch(), Blame(tessd)
    with TelnetClient() as client, Pressing(client, data) as pressing:
        expect_prompt(ask(tessd, [neighbours.ipc, neighbours.xcp], 4.5))
        pressing.wait_for(GREETING[:-2], within=10)
        expect_over_after(watch, blame, 5)


def test_a_stream_of_two_byte_commands_is_text_behind_the_first_three_bytes(neighbours):
    """Every command is taken for three bytes, so the next one does not begin with IAC."""
    with TelnetClient() as client, Pressing(client, IAC + NOP) as pressing:
        pressing.wait_for(OFFERS + GREETING + NOP + IAC, within=1)
        for _ in range(20):
            neighbours.expect_local_service(within=1)


def test_commands_without_end_after_linemode_are_over_after_five_seconds_more(neighbours, tessd):
    with TelnetClient() as client:
        client.send(WILL_LINEMODE)
        client.expect(OFFERS)
        client.send(SLC_LIST)
        client.expect(MODE_EDIT + SLC_FORWARD)
        watch, blame = Stopwatch(), Blame(tessd)
        with Pressing(client, SLC_LIST) as pressing:
            expect_prompt(ask(tessd, [neighbours.ipc, neighbours.xcp], 4))
            pressing.wait_for(GREETING, within=10)
            expect_over_after(watch, blame, 4.5)  # they had begun a little before


def test_refusals_answered_with_offers_are_over_after_five_seconds(neighbours, tessd):
    refusal = IAC + WONT + TERMINAL_TYPE
    watch, blame = Stopwatch(), Blame(tessd)
    with TelnetClient() as client:
        client.send(IAC + WILL + TERMINAL_TYPE)
        client.expect(OFFERS)
        rounds = 0
        deadline = Deadline(8)
        while (got := client.receive(len(refusal))) == refusal and not deadline.over():
            client.send(IAC + WILL + TERMINAL_TYPE)
            rounds += 1
        assert got == GREETING[: len(refusal)], got
        assert rounds > 10, f"only {rounds} rounds"
        expect_over_after(watch, blame, 5)


SUB_NEGOTIATIONS = {
    "cut short behind IAC": IAC,
    "cut short behind SB": IAC + SB,
    "cut short behind the option": IAC + SB + LINEMODE,
    "cut short behind the sub-command": IAC + SB + LINEMODE + b"\x03",
    "cut short in a triplet": IAC + SB + LINEMODE + b"\x03\x11\x82",
    "cut short behind its IAC": IAC + SB + LINEMODE + b"\x03\x11\x82\x0d" + IAC,
    "of 1024 bytes without end": IAC + SB + LINEMODE + b"\x03" + b"\x11\x82\x0d" * 340,
    "of 1025 bytes with an end": IAC + SB + LINEMODE + b"\x03" + b"x" * 1019 + IAC + SE,
    "of 5000 bytes without end": IAC + SB + LINEMODE + b"x" * 5000,
    "of 5000 bytes with an end": IAC + SB + LINEMODE + b"x" * 5000 + IAC + SE,
    "of doubled IACs": IAC + SB + LINEMODE + IAC * 3000,
}


@pytest.mark.parametrize("data", SUB_NEGOTIATIONS.values(), ids=SUB_NEGOTIATIONS.keys())
def test_a_sub_negotiation_that_does_not_end_in_the_buffer_costs_its_client_a_second(neighbours, tessd, data):
    watch, blame = Stopwatch(), Blame(tessd)
    with TelnetClient() as client:
        client.send(data)
        expect_prompt(ask(tessd, [neighbours.ipc, neighbours.xcp], 0.8))
        client.expect(GREETING)
        expect_over_after(watch, blame, 1)
        neighbours.expect_local_service()


def test_a_sub_negotiation_without_end_behind_another_command_costs_a_second(neighbours, tessd):
    watch, blame = Stopwatch(), Blame(tessd)
    with TelnetClient() as client:
        client.send(IAC + WILL + TERMINAL_TYPE + IAC + SB + LINEMODE + b"x" * 5000)
        client.expect(OFFERS + IAC + WONT + TERMINAL_TYPE + GREETING)
        expect_over_after(watch, blame, 1)


@pytest.mark.parametrize(
    "data",
    [
        IAC + SB + LINEMODE + b"\x03" + b"x" * 1018 + IAC + SE,  # 1024 bytes
        IAC + SB + LINEMODE + IAC + SE,
        IAC + SB + LINEMODE + b"\x03" + IAC + SE,
        IAC + SB + LINEMODE + b"\x01" + IAC + SE,
        IAC + SB + LINEMODE + b"\x03\x11" + IAC + SE,
        IAC + SB + LINEMODE + b"\x03\x11\x82\x0d\x12\x82" + IAC + SE,
        IAC + SB + IAC + SE,
        IAC + SB + IAC + IAC + SE,
    ],
    ids=["1024 bytes", "empty", "slc alone", "mode alone", "function alone", "cut triplet", "no option", "doubled IAC"],
)
def test_a_sub_negotiation_of_any_shape_that_ends_is_read(neighbours, data):
    with TelnetClient() as client:
        client.send(data)
        client.expect(OFFERS)
        if data[2:3] == LINEMODE:
            client.expect(MODE_EDIT + SLC_FORWARD)
        client.expect(GREETING)
        client.send(b"alice\r\n")
        client.expect(b"alice\r\n" + PASSWORD_PROMPT)


def test_a_client_that_sends_without_reading_while_it_negotiates_is_over_after_five_seconds(neighbours):
    """Its refusals fill the socket and are dropped."""
    with TelnetClient() as client:
        client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1)
        client.socket.setblocking(False)
        watch = Stopwatch()
        offers = (IAC + WILL + TERMINAL_TYPE) * 1000
        while watch.seconds() < 6:
            if select.select([], [client.socket], [], 0.05)[1]:
                with contextlib.suppress(BlockingIOError):
                    client.socket.send(offers)
        neighbours.expect_local_service(within=2)


# In the login


@pytest.mark.parametrize(
    "data",
    [IAC + NOP + b"x", SLC_LIST, DONT_ECHO, IAC + WILL + TERMINAL_TYPE],
    ids=["NOP", "sub-negotiations", "DONT ECHO", "offers"],
)
def test_any_other_answer_than_do_echo_without_end_is_over_after_two_seconds_and_holds_nobody_up(neighbours, tessd, data):
    with LinemodeClient() as client:
        client.negotiate()
        watch, blame = Stopwatch(), Blame(tessd)
        client.send(b"alice\r\n")
        client.expect(WILL_ECHO)
        with Pressing(client, data) as pressing:
            expect_prompt(ask(tessd, [neighbours.ipc, neighbours.xcp], 1.5))
            pressing.wait_for(PASSWORD_PROMPT, within=4)
            expect_over_after(watch, blame, 2)


def test_no_answer_to_the_echo_costs_its_client_a_second(neighbours, tessd):
    with LinemodeClient() as client:
        client.negotiate()
        client.send(b"alice\r\n")
        client.expect(WILL_ECHO)
        watch, blame = Stopwatch(), Blame(tessd)
        expect_prompt(ask(tessd, [neighbours.ipc, neighbours.xcp], 0.7))
        client.expect(PASSWORD_PROMPT)
        expect_over_after(watch, blame, 0.9)


def test_commands_without_end_behind_the_greeting_are_text(neighbours):
    with TelnetClient() as client:
        client.send(b"x")
        client.expect(GREETING + b"x")
        with Pressing(client, IAC + NOP):
            for _ in range(20):
                neighbours.expect_local_service(within=1)


# In a session


def test_a_client_that_resets_while_it_is_written_to_hurts_nobody(neighbours, tessd):
    with QueueProcess(2002) as process:
        process.register(b"TALK")
        for number in range(10):
            client = TelnetClient()
            client.log_in()
            client.send(b"s3.TALK X\r\n")
            tag = process.expect_command(b"X").tag
            for written in range(40):
                process.reply(tag, b"x" * 4000)
                if written == 20:
                    client.reset()
            process.expect_daemon_done()
            tessd.wait_log(*closed(0), count=number + 2)
            neighbours.expect_local_service()


@pytest.mark.parametrize("prepare", [TelnetClient.give_name, TelnetClient.log_in], ids=["named", "logged in"])
def test_a_client_that_never_reads_loses_answers_and_nobody_else_does(neighbours, tessd, prepare: Callable):
    with QueueProcess(2002) as process, TelnetClient() as deaf:
        process.register(b"TALK")
        prepare(deaf)
        tag = wire.FIRST_TELNET_ID + wire.ID_STEP  # behind that of the neighbours' first look
        for _ in range(3000):
            process.reply(tag, b"x" * 8000)
            process.expect_daemon_done()
            if WRITE_FAILED in tessd.entries():
                break
        else:
            raise AssertionError("3000 answers of 8000 bytes were all taken")
        for _ in range(20):
            process.reply(tag, b"x" * 8000)
            neighbours.expect_local_service(within=1)


@pytest.mark.parametrize("length", [BUFFER, BUFFER + 1, 5 * BUFFER])
def test_a_line_without_end_wedges_its_session_and_costs_nothing(neighbours, tessd, length):
    with TelnetClient() as client:
        client.log_in()
        client.send(b"x" * length)
        client.expect(b"x" * BUFFER)
        client.send(b"\r\ns3.ENC GETX\r\n")
        client.expect_silence(0.3)
        if not settings.emulated() and not settings.sanitized():
            expect_processor_at_rest(tessd)
        neighbours.expect_service()


def wedge(client: TelnetClient) -> None:
    client.log_in()
    client.send(b"x" * (BUFFER + 1))
    client.expect(b"x" * BUFFER)


def leave_half_a_line(client: TelnetClient) -> None:
    client.log_in()
    client.send(b"s3.ENC")
    client.expect(b"s3.ENC")
    client.socket.shutdown(socket.SHUT_WR)


def interrupt_half_a_line(client: TelnetClient) -> None:
    """An urgent mark in the middle of a line: what is behind it is not seen before the line is taken."""
    client.log_in()
    client.send(b"s3.ENC GE")
    client.expect(b"s3.ENC GE")
    client.socket.send(b"!", socket.MSG_OOB)
    client.send(b"TX\r\n")


STUCK = [wedge, leave_half_a_line, interrupt_half_a_line]


@pytest.mark.parametrize("get_stuck", STUCK)
def test_a_session_that_is_stuck_is_ended_by_the_idle_time_out(neighbours, tessd, clock, get_stuck: Callable):
    with TelnetClient() as client:
        get_stuck(client)
        clock.advance(TIME_OUT - 10)
        for _ in range(3):
            neighbours.expect_local_service()
        assert tessd.entries().count(closed(0)) == 1, "only that of the first look"
        clock.advance(10)
        tessd.wait_log(*closed(0), count=2)


def test_a_session_that_is_reset_behind_half_a_line_is_gone_at_once(neighbours, tessd):
    with TelnetClient() as client:
        leave_half_a_line(client)
        client.reset()
        tessd.wait_log(*closed(0), count=2)


def test_a_client_that_is_stuck_before_its_name_is_ended_by_the_login_time_out(neighbours, tessd, clock):
    with TelnetClient() as client:
        client.send(b"x" * (2 * BUFFER))
        client.expect(GREETING + b"x" * BUFFER)
        neighbours.expect_local_service()
        clock.advance(60)
        assert client.receive_until_close() in (b"", FAREWELL)  # the close is a reset, which may overtake it
        tessd.wait_log(*closed(0), count=2)


@plain_only
@pytest.mark.parametrize("get_stuck", STUCK)
def test_a_session_that_is_stuck_uses_no_processor(neighbours, tessd, get_stuck: Callable):
    with TelnetClient() as client:
        get_stuck(client)
        neighbours.expect_local_service()
        expect_processor_at_rest(tessd)


def test_urgent_data_at_any_time_hurts_nobody(neighbours):
    with TelnetClient() as client:
        client.socket.send(b"!" * 3, socket.MSG_OOB)
        client.expect(GREETING, within=3)
        neighbours.expect_local_service()
    with TelnetClient() as client:
        client.give_name()
        client.socket.send(b"!", socket.MSG_OOB)
        client.send(b"secret\r\n")
        client.expect(connected(b"alice"))
        for _ in range(200):
            client.socket.send(b"!", socket.MSG_OOB)
        neighbours.expect_local_service()


def test_a_line_of_nothing_but_control_characters_hurts_nobody(neighbours):
    line = bytes(byte for byte in range(1, 256) if byte not in (10, 13))
    with TelnetClient() as client:
        client.log_in()
        client.send(line + b"\r\n")
        actual = client.receive(len(line) + 2 + len(NOBODY))
        assert actual[: len(line) + 2] == line + b"\r\n", actual


def test_clients_that_come_and_go_leave_nothing_behind(neighbours, tessd):
    count = 30
    for number in range(count):
        client = TelnetClient()
        if number % 3 == 0:
            client.give_name()
        elif number % 3 == 1:
            client.log_in()
        else:
            client.send(b"ali")
            client.expect(GREETING + b"ali")
            client.send(b"ce\n")
        if number % 2:
            client.reset()
        else:
            client.close()
    neighbours.expect_service(within=10)
    assert CLOSED_DURING_LOGIN in tessd.entries()
