"""Telnet: how a session begins and ends, option negotiation, echo, lines."""

from __future__ import annotations

import contextlib
import signal
import socket
import time

import pytest

from harness import proc, settings, wire
from harness.answers import Blame
from harness.clients import IpcClient
from harness.daemon import CLOSING_TELNET, ERROR_RUNTIME, SOCKET_PORTS
from harness.endings import AT_ONCE as SIGNAL_TO_END
from harness.endings import end_by_signal
from harness.neighbours import Neighbours
from harness.queue_process import QueueProcess
from harness.telnet import (
    CLOSED_DURING_LOGIN,
    DO,
    DO_ECHO,
    DONT,
    DONT_ECHO,
    GREETING,
    IAC,
    LIMIT_REACHED,
    LINEMODE,
    MODE_ACK,
    MODE_EDIT,
    NAWS,
    NOP,
    OFFERS,
    PASSWORD_PROMPT,
    SB,
    SE,
    SLC_ACK,
    SLC_FORWARD,
    SLC_LIST,
    SUPPRESS_GO_AHEAD,
    TERMINAL_TYPE,
    WILL,
    WILL_ECHO,
    WILL_LINEMODE,
    WONT,
    WONT_ECHO,
    LinemodeClient,
    TelnetClient,
    closed,
    connected,
    opened,
)
from harness.waiting import Stopwatch, wait_until

ANSWER = b"5\r\n\r\n"
AT_ONCE = 0.7  # seconds; well below the second that a silent client waits
NOBODY = b"?\r\n"


@pytest.fixture
def process(socket_tessd):
    with QueueProcess(2001) as opened_process:
        opened_process.register(b"ENC")
        yield opened_process


@pytest.fixture
def ipc(socket_tessd):
    with IpcClient() as client:
        client.expect_nothing_more()
        yield client


def pass_over_all(ipc: IpcClient) -> None:
    """The daemon has looked at every connection once more."""
    for _ in range(2):
        ipc.expect_nothing_more()


# How a session begins


def test_a_silent_client_hears_nothing_for_a_second(socket_tessd):
    with TelnetClient() as client:
        client.expect_silence(0.6)
        client.expect(GREETING)


def test_a_silent_client_is_greeted_after_a_second(socket_tessd):
    watch, blame = Stopwatch(), Blame(socket_tessd)
    with TelnetClient() as client:
        client.expect(GREETING)
        passed, blamed = watch.seconds(), blame.seconds()
    assert passed >= 1.0, f"greeted after {passed:.3f} s"
    assert blamed <= 1.2 * settings.SLOW, f"greeted after {blamed:.3f} s"


def test_a_client_that_sends_its_name_at_once_is_greeted_at_once(socket_tessd):
    watch = Blame(socket_tessd)
    with TelnetClient() as client:
        client.give_name()
        assert watch.seconds() <= AT_ONCE * settings.SLOW, f"{watch.seconds():.3f} s"


def test_the_first_clients_are_logged_with_the_number_before_their_id(process, socket_tessd):
    before = len(socket_tessd.entries())
    for number in (1, 2, 3):
        with TelnetClient() as client:
            client.log_in()
            client.send(b"s3.ENC GETX\r\n")
            process.expect_command(b"GETX", tag=wire.FIRST_TELNET_ID + (number - 1) * wire.ID_STEP)
        socket_tessd.wait_log(*closed(0), count=number)
    expected = [line for number in (1, 2, 3) for line in (opened(number), closed(0))]
    assert socket_tessd.entries()[before:] == expected


def test_an_eleventh_client_is_told_the_limit_and_the_next_gets_the_place_of_one_that_left(socket_tessd):
    before = len(socket_tessd.entries())
    with contextlib.ExitStack() as stack:
        clients = []
        for _ in range(10):
            clients.append(stack.enter_context(TelnetClient()))
            clients[-1].give_name()
        with TelnetClient() as eleventh:
            eleventh.expect(LIMIT_REACHED)
            eleventh.expect_close()
        clients[4].close()
        socket_tessd.wait_log(*closed(9))
        with TelnetClient() as next_client:
            next_client.log_in()
        socket_tessd.wait_log(*closed(9), count=2)
        # The refused client has used up an ID all the same.
        expected = [opened(number) for number in range(1, 11)]
        expected += [closed(10), CLOSED_DURING_LOGIN, closed(9), opened(12), closed(9)]
        assert socket_tessd.entries()[before:] == expected


def test_a_client_that_resets_before_it_has_said_anything_is_dropped_unannounced(socket_tessd):
    before = len(socket_tessd.entries())
    files = len(proc.descriptors(socket_tessd.pid))
    client = TelnetClient()
    wait_until(lambda: len(proc.descriptors(socket_tessd.pid)) > files, "the client is accepted")
    client.reset()
    socket_tessd.wait_log(*closed(0))
    assert socket_tessd.entries()[before:] == [closed(0)]


def test_a_new_daemon_binds_the_port_while_sessions_of_the_last_linger(launch, start_socket_tessd):
    first = start_socket_tessd()
    with TelnetClient() as client:
        client.log_in()
        client.send(b"quit\r\n")
        client.expect(b"quit\r\n")
        client.expect_close()
    with open("/proc/net/tcp", encoding="ascii") as table:
        lingering = [line for line in table if ":0017 " in line.split()[1] + " " and line.split()[3] == "06"]
    assert lingering, "no session of the first daemon is in TIME_WAIT"
    first.stop()
    start_socket_tessd()
    with TelnetClient() as client:
        client.log_in()


def test_a_taken_port_ends_the_start(launch):
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as other:
        other.bind(("0.0.0.0", settings.TELNET_ADDRESS[1]))
        other.listen()
        tessd = launch(*SOCKET_PORTS)
        tessd.expect_end(1)
        assert tessd.entries()[-1] == ERROR_RUNTIME, tessd.log_text()


@pytest.mark.deadline(120)
def test_its_4353rd_client_is_answered_where_the_first_client_of_ipc_is(socket_tessd):
    """A deliberate oddity: both have the ID 0xbb010000, and the one that is older in the list is found first. Whoever is told
    the limit has used up an ID, too, and is quicker."""
    number = (wire.FIRST_IPC_ID - wire.FIRST_TELNET_ID) // wire.ID_STEP + 1
    with QueueProcess(2001) as process, IpcClient() as first, contextlib.ExitStack() as stack:
        process.register(b"ENC")
        first.expect_nothing_more()
        present = [stack.enter_context(TelnetClient()) for _ in range(10)]
        for client in present:
            client.log_in()
        for _ in range(number - 1 - len(present)):
            with TelnetClient() as passing:
                passing.expect(LIMIT_REACHED)
        present[0].close()
        socket_tessd.wait_log(*closed(9))
        with TelnetClient() as last:
            last.log_in()
            assert socket_tessd.entries()[-1] == opened(number)
            last.send(b"s3.ENC X\r\n")
            process.reply(process.expect_command(b"X", tag=wire.FIRST_IPC_ID).tag, ANSWER)
            first.expect(ANSWER)
            first.expect_nothing_more()


# Options

# What a client sends after its first command, and what it hears of it.
OPTIONS = [
    (IAC + DO + TERMINAL_TYPE, IAC + WONT + TERMINAL_TYPE),
    (IAC + WILL + TERMINAL_TYPE, IAC + WONT + TERMINAL_TYPE),
    (IAC + WONT + TERMINAL_TYPE, b""),
    (IAC + DONT + TERMINAL_TYPE, b""),
    (IAC + DO + NAWS, IAC + WONT + NAWS),
    (IAC + WILL + NAWS, IAC + WONT + NAWS),
    (IAC + DO + b"\0", IAC + WONT + b"\0"),
    (IAC + WILL + b"\xff", IAC + WONT + b"\xff"),
    (DO_ECHO, b""),
    (DONT_ECHO, b""),
    (WILL_ECHO, b""),
    (WONT_ECHO, b""),
    (IAC + DO + SUPPRESS_GO_AHEAD, b""),
    (IAC + WILL + SUPPRESS_GO_AHEAD, b""),
    (IAC + WONT + SUPPRESS_GO_AHEAD, b""),
    (IAC + DO + LINEMODE, b""),
    (IAC + DONT + LINEMODE, b""),
    (IAC + NOP + b"x", b""),  # every command is taken for three bytes
]
MARKER = IAC + DO + b"\x63"
MARKED = IAC + WONT + b"\x63"


def test_options_are_answered_as_the_table_says(socket_tessd):
    for sent, answer in OPTIONS:
        with TelnetClient() as client:
            client.send(MARKER)
            client.expect(OFFERS + MARKED)
            client.send(sent + MARKER)
            actual = client.receive(len(answer + MARKED))
            assert actual == answer + MARKED, f"{sent!r}: expected {answer!r}, got {actual!r} with the marker"
            client.reset()  # which ends the negotiation at once


def test_the_first_command_is_answered_behind_the_offers(socket_tessd):
    with TelnetClient() as client:
        client.send(IAC + DO + TERMINAL_TYPE)
        client.expect(OFFERS + IAC + WONT + TERMINAL_TYPE)
        client.expect(GREETING)


def test_a_client_without_linemode_is_a_plain_one(process):
    for first in (IAC + WONT + LINEMODE, IAC + DO + LINEMODE, IAC + WILL + SUPPRESS_GO_AHEAD):
        with TelnetClient() as client:
            client.send(first)
            client.expect(OFFERS)
            client.expect(GREETING)
            client.send(b"alice\r\n")
            client.expect(b"alice\r\n" + PASSWORD_PROMPT)
            client.send(b"secret\r\n")
            client.expect(connected(b"alice"))
            client.ask(b"t1.ENC X", NOBODY)


def test_a_linemode_client_hears_every_byte_of_the_exchange_in_order(process, socket_tessd):
    watch = Blame(socket_tessd)
    with TelnetClient() as client:
        client.send(WILL_LINEMODE)
        client.expect(OFFERS)
        client.send(IAC + WILL + SUPPRESS_GO_AHEAD + SLC_LIST + IAC + DO + SUPPRESS_GO_AHEAD)
        client.expect(MODE_EDIT + SLC_FORWARD)
        client.send(MODE_ACK + SLC_ACK)
        client.expect(GREETING)
        assert watch.seconds() <= AT_ONCE * settings.SLOW, f"{watch.seconds():.3f} s"
        client.send(b"alice\r\n")
        client.expect(WILL_ECHO)  # and no echo of the name
        client.expect_silence(0.3)  # the prompt waits for the answer
        client.send(DO_ECHO)
        client.expect(PASSWORD_PROMPT)
        client.send(b"secret\r\n")
        client.expect(WONT_ECHO)
        client.expect_silence(0.3)
        client.send(DONT_ECHO)
        client.expect(connected(b"alice"))
        client.send(b"s3.ENC GETX\r\n")
        process.reply(process.expect_command(b"GETX").tag, ANSWER)
        client.expect(ANSWER)


def test_other_commands_before_the_answer_to_the_echo_are_skipped(socket_tessd):
    with LinemodeClient() as client:
        client.negotiate()
        client.send(b"alice\r\n")
        client.expect(WILL_ECHO)
        client.send(SLC_LIST + IAC + WILL + TERMINAL_TYPE + DONT_ECHO + DO_ECHO)
        client.expect(PASSWORD_PROMPT)


@pytest.mark.parametrize(
    "answers",
    [b"", MODE_ACK, SLC_ACK, SLC_LIST, MODE_ACK + IAC + SB + LINEMODE + b"\x03\x11\x82\x0d" + IAC + SE],
    ids=["nothing", "mode only", "slc only", "slc list again", "one character of two"],
)
def test_a_client_that_agrees_to_part_of_linemode_is_greeted_after_a_second_of_silence(socket_tessd, answers):
    with LinemodeClient() as client:
        client.send(WILL_LINEMODE)
        client.expect(OFFERS)
        client.send(SLC_LIST)
        client.expect(MODE_EDIT + SLC_FORWARD)
        watch = Stopwatch()
        client.send(answers)
        client.expect(GREETING)
        assert watch.seconds() >= 0.9, f"greeted after {watch.seconds():.3f} s"
        client.send(b"alice\r\n")
        client.expect(WILL_ECHO)


@pytest.mark.parametrize(
    "answers",
    [
        SLC_ACK + MODE_ACK,
        MODE_ACK + IAC + SB + LINEMODE + b"\x03\x12\x02\x0d\x11\x02\x0d" + IAC + SE,
        MODE_ACK
        + IAC + SB + LINEMODE + b"\x03\x11\x82\x0d" + IAC + SE
        + IAC + WILL + TERMINAL_TYPE
        + IAC + SB + LINEMODE + b"\x03\x12\x82\x0d" + IAC + SE,
        IAC + SB + LINEMODE + b"\x01\x07" + IAC + SE + SLC_ACK,
    ],
    ids=["slc first", "other order", "one by one", "more bits"],
)  # fmt: skip
def test_linemode_is_agreed_on_in_any_order(socket_tessd, answers):
    watch = Blame(socket_tessd)
    with LinemodeClient() as client:
        client.send(WILL_LINEMODE)
        client.expect(OFFERS)
        client.send(SLC_LIST)
        client.expect(MODE_EDIT + SLC_FORWARD)
        client.send(answers)
        if TERMINAL_TYPE in answers:
            client.expect(IAC + WONT + TERMINAL_TYPE)
        client.expect(GREETING)
        assert watch.seconds() <= AT_ONCE * settings.SLOW, f"{watch.seconds():.3f} s"


def test_linemode_without_a_sub_negotiation_still_hides_the_password(socket_tessd):
    with LinemodeClient() as client:
        watch = Stopwatch()
        client.send(WILL_LINEMODE)
        client.expect(OFFERS + GREETING)
        assert watch.seconds() >= 0.9, f"greeted after {watch.seconds():.3f} s"
        client.send(b"alice\r\n")
        client.expect(WILL_ECHO)
        client.send(DO_ECHO)
        client.expect(PASSWORD_PROMPT)


def test_a_linemode_sub_negotiation_without_the_option_is_answered_but_leaves_the_client_plain(socket_tessd):
    with TelnetClient() as client:
        client.send(MODE_ACK)
        client.expect(OFFERS + MODE_EDIT + SLC_FORWARD)
        client.send(SLC_ACK)
        client.expect(GREETING)
        client.send(b"alice\r\n")
        client.expect(b"alice\r\n" + PASSWORD_PROMPT)


def test_any_other_sub_negotiation_ends_the_negotiation(socket_tessd):
    watch = Blame(socket_tessd)
    with TelnetClient() as client:
        client.send(WILL_LINEMODE)
        client.expect(OFFERS)
        client.send(IAC + SB + NAWS + b"\0\x50\0\x18" + IAC + SE)
        client.expect(GREETING)
        assert watch.seconds() <= AT_ONCE * settings.SLOW, f"{watch.seconds():.3f} s"
        client.send(b"alice\r\n")
        client.expect(WILL_ECHO)


# Echo and lines


def test_what_is_typed_without_enter_is_echoed_once(process, ipc):
    with TelnetClient() as client:
        client.send(b"al")
        client.expect(GREETING + b"al")
        pass_over_all(ipc)
        client.send(b"ice")
        client.expect(b"ice")
        pass_over_all(ipc)
        client.send(b"\r\n")
        client.expect(b"\r\n" + PASSWORD_PROMPT)
        client.send(b"sec")
        pass_over_all(ipc)
        client.send(b"ret\r\n")
        client.expect(connected(b"alice"))
        for key in (b"a", b"b"):
            client.send(key)
            client.expect(key)
            pass_over_all(ipc)
        assert process.waiting() == []
        client.send(b"\r\n")
        client.expect(b"\r\n")
        process.expect_command(b"ab")


def type_slowly(client: TelnetClient, text: bytes, pause: float, echoed: bool = True) -> None:
    for byte in text:
        client.send(bytes([byte]))
        if echoed:
            client.expect(bytes([byte]))
        time.sleep(pause)


def log_in_byte_by_byte(process: QueueProcess, pause: float) -> None:
    with TelnetClient() as client:
        client.send(b"a")
        client.expect(GREETING + b"a")
        type_slowly(client, b"lice\n", pause)
        client.expect(PASSWORD_PROMPT)
        type_slowly(client, b"secret\n", pause, echoed=False)
        client.expect(connected(b"alice"))
        type_slowly(client, b"s3.ENC GETX\n", pause)
        process.reply(process.expect_command(b"GETX").tag, ANSWER)
        client.expect(ANSWER)


def test_a_client_that_types_byte_by_byte_is_served(process):
    log_in_byte_by_byte(process, 0)


@pytest.mark.slow
def test_a_client_that_types_one_byte_a_second_is_served(process):
    log_in_byte_by_byte(process, 1)


# What is sent in one piece behind the login, and the commands that follow from it.
CUTS = [
    (b"A\r\n", [b"A"]),
    (b"A\n", [b"A"]),
    (b"A\r", [b"A"]),
    (b"A\nB\r\nC\r", [b"A", b"B", b"C"]),
    (b"  A\r\n\r\nB", [b"A", b"B"]),  # the last piece needs no line end when another line has one
    (b"A  \r\n", [b"A"]),
    (b"%s%n\r\n", [b"%s%n"]),
    (b"\xc3\xa9 \x7f\x03\r\n", [b"\xc3\xa9 \x7f\x03"]),
    (b"A\0B\r\n", [b"A"]),
    (IAC + IAC + b"A\r\n", [IAC + IAC + b"A"]),
    (b"abc\xff\xf4\xff\xfd\x06A\r\n", [b"abc\xff\xf4\xff\xfd\x06A"]),  # what Ctrl-C makes of a line
]


def test_lines_are_cut_at_their_ends(process):
    with TelnetClient() as client:
        client.log_in()
        for sent, commands in CUTS:
            client.send(sent)
            client.expect(sent)
            for command in commands:
                try:
                    process.expect_command(command, tag=wire.FIRST_TELNET_ID)
                except AssertionError as error:
                    raise AssertionError(f"{sent!r}: {error}") from None
            client.expect_nothing_more()
            assert process.waiting() == [], repr(sent)


def test_keys_that_become_telnet_commands_spoil_the_address_behind_them(process):
    with TelnetClient() as client:
        client.log_in()
        client.ask(b"\xff\xf4\xff\xfd\x06s3.ENC GETX", NOBODY)
        assert process.waiting() == []


def test_twenty_pasted_lines_are_twenty_commands(process):
    with TelnetClient() as client:
        client.log_in()
        lines = b"".join(b"s3.ENC SETX %d\r\n" % number for number in range(20))
        client.send(lines)
        client.expect(lines)
        for number in range(20):
            process.expect_command(b"SETX %d" % number)


def test_a_line_of_1023_characters_is_taken(process):
    body = b"x" * (1023 - len(b"s3.ENC "))
    with TelnetClient() as client:
        client.log_in()
        client.send(b"s3.ENC " + body + b"\n")
        process.expect_command(body)


def test_only_processes_that_take_commands_from_telnet_get_them(socket_tessd):
    with QueueProcess(2001) as telnet_only, QueueProcess(2002) as others, TelnetClient() as client:
        telnet_only.register(b"ONE", wire.TELNET)
        others.register(b"TWO", wire.ALL_PORTS & ~wire.TELNET)
        client.log_in()
        client.send(b"GETX\r\n")
        telnet_only.expect_command(b"GETX")
        client.expect(b"GETX\r\n")
        client.ask(b"s3.TWO GETX", NOBODY)
        assert others.waiting() == []


def test_urgent_data_is_thrown_away(process):
    with TelnetClient() as client:
        client.log_in()
        client.socket.send(b"!", socket.MSG_OOB)
        client.ask(b"t1.ENC X", NOBODY)
        client.socket.send(b"!", socket.MSG_OOB)
        client.send(b"s3.ENC GETX\r\n")
        client.expect(b"s3.ENC GETX\r\n")
        process.expect_command(b"GETX")


# How a session ends


@pytest.mark.parametrize("line", [b"quit", b"quitting", b"quit now", b"  quit"])
def test_quit_ends_the_session_without_an_answer(socket_tessd, line):
    before = len(socket_tessd.entries())
    with TelnetClient() as client:
        client.log_in()
        client.send(line + b"\r\n")
        client.expect(line + b"\r\n")
        client.expect_close()
    socket_tessd.wait_log(*closed(0))
    assert socket_tessd.entries()[before:] == [opened(1), closed(0)]


def test_quit_in_capitals_or_behind_another_command_is_a_command(process):
    with TelnetClient() as client:
        client.log_in()
        for line, commands in ((b"QUIT", [b"QUIT"]), (b"X|quit", [b"X", b"quit"])):
            client.send(line + b"\r\n")
            client.expect(line + b"\r\n")
            for command in commands:
                process.expect_command(command)
        client.expect_nothing_more()


def test_lines_behind_a_quit_are_taken_from_the_connection_in_front(process, ipc):
    ipc.send(b"s3.ENC ONE\ns3.ENC TWO\n")
    tag = process.expect_command(b"ONE").tag
    process.expect_command(b"TWO", tag)
    with TelnetClient() as client:
        client.log_in()
        client.send(b"quit\ns3.ENC LOST\n")
        client.expect(b"quit\ns3.ENC LOST\n")
        client.expect_close()
    process.expect_command(b"TWO", tag)
    process.reply(tag, ANSWER)
    ipc.expect(ANSWER)
    ipc.expect_nothing_more()


def test_lines_behind_a_quit_are_dropped_when_nobody_is_in_front(process):
    with TelnetClient() as client:
        client.log_in()
        client.send(b"quit\ns3.ENC LOST\n")
        client.expect(b"quit\ns3.ENC LOST\n")
        client.expect_close()
    with IpcClient() as client:
        client.expect_nothing_more()
    assert process.waiting() == []


def test_a_client_that_closes_is_removed(socket_tessd):
    with TelnetClient() as client:
        client.log_in()
    socket_tessd.wait_log(*closed(0))


def test_close_telnet_passes_over_the_client_that_moves_into_the_first_place(process, socket_tessd):
    with TelnetClient() as first, TelnetClient() as second, TelnetClient() as third:
        for client in (first, second, third):
            client.log_in()
        before = len(socket_tessd.entries())
        process.send(wire.record(wire.CLOSE_TELNET))
        first.expect_close()
        third.expect_close()
        process.expect_daemon_done()
        assert socket_tessd.entries()[before:] == [CLOSING_TELNET, closed(2), closed(1)]
        second.expect_nothing_more()


def test_close_telnet_closes_all_telnet_clients_behind_a_local_one(process, ipc, socket_tessd):
    with TelnetClient() as first, TelnetClient() as second, TelnetClient() as third:
        first.log_in()
        second.give_name()
        third.log_in()
        before = len(socket_tessd.entries())
        process.send(wire.record(wire.CLOSE_TELNET))
        for client in (first, second, third):
            client.expect_close()
        process.expect_daemon_done()
        assert socket_tessd.entries()[before:] == [CLOSING_TELNET, closed(2), closed(1), closed(0)]
    ipc.expect_nothing_more()


def test_a_stop_closes_the_sessions(socket_tessd):
    with TelnetClient() as logged_in, TelnetClient() as half:
        logged_in.log_in()
        half.give_name()
        socket_tessd.signal(signal.SIGTERM)
        logged_in.expect_close()
        half.expect_close()
        socket_tessd.expect_normal_end()


@pytest.mark.parametrize("first", [b"", IAC, IAC + WILL + TERMINAL_TYPE, IAC + SB + LINEMODE + b"\x03"])
def test_a_stop_does_not_wait_for_a_client_that_negotiates(socket_tessd, first):
    files = len(proc.descriptors(socket_tessd.pid))
    with TelnetClient() as client, TelnetClient() as behind:
        client.send(first)
        wait_until(lambda: len(proc.descriptors(socket_tessd.pid)) > files, "the client is accepted")
        seconds = end_by_signal(socket_tessd)
        assert seconds <= SIGNAL_TO_END * settings.SLOW, f"{seconds:.2f} s"
        socket_tessd.expect_normal_end()
        behind.receive_until_close()


def test_a_reply_for_a_session_that_is_gone_is_dropped(process, ipc):
    with TelnetClient() as client:
        client.log_in()
        client.send(b"s3.ENC GETX\nquit\n")
        client.expect(b"s3.ENC GETX\nquit\n")
        tag = process.expect_command(b"GETX").tag
        client.expect_close()
    with TelnetClient() as client:
        client.log_in()
        process.reply(tag, ANSWER)
        process.expect_daemon_done()
        client.expect_nothing_more()


# Idle time-out


def test_a_session_is_removed_when_it_has_been_idle_for_420_seconds(clocked_socket_tessd, clock):
    with Neighbours() as neighbours, TelnetClient() as client:
        client.log_in()
        pass_over_all(neighbours.ipc)  # the timer is armed behind the write that the client has seen
        clock.advance(410)
        pass_over_all(neighbours.ipc)
        client.expect_nothing_more()
        clock.advance(410)
        pass_over_all(neighbours.ipc)
        client.ask(b"s3.ENC GETX", ANSWER)
        pass_over_all(neighbours.ipc)
        clock.advance(420)
        client.expect_close()
        neighbours.expect_service()  # the local ones stay for ever


def test_an_answer_keeps_a_session_alive(clocked_socket_tessd, clock):
    with QueueProcess(2001) as process, IpcClient() as ipc, TelnetClient() as client:
        process.register(b"ENC")
        client.log_in()
        client.send(b"s3.ENC GETX\r\n")
        client.expect(b"s3.ENC GETX\r\n")
        tag = process.expect_command(b"GETX").tag
        for _ in range(2):
            clock.advance(410)
            process.reply(tag, ANSWER)
            client.expect(ANSWER)
            pass_over_all(ipc)
        clock.advance(420)
        client.expect_close()


def test_half_a_line_does_not_keep_a_session_alive(clocked_socket_tessd, clock):
    with IpcClient() as ipc, TelnetClient() as client:
        client.log_in()
        pass_over_all(ipc)
        clock.advance(410)
        client.send(b"s3.ENC")
        client.expect(b"s3.ENC")
        pass_over_all(ipc)
        clock.advance(10)
        client.expect_close()


@pytest.mark.slow
@pytest.mark.deadline(500)
def test_an_idle_session_is_removed_after_420_real_seconds(socket_tessd):
    with TelnetClient() as client:
        client.log_in()
        watch = Stopwatch()
        client.expect_close(within=430)
        assert 420 <= watch.seconds() <= 420 + 2 * settings.SLOW, f"{watch.seconds():.1f} s"
