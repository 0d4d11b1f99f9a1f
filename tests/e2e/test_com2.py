"""The serial line: its settings, what is typed there, what is written to it, and a far end that behaves badly."""

from __future__ import annotations

import os
import signal
import termios
import threading
import time
from collections.abc import Callable, Iterator

import pytest

from harness import com2, proc, settings, wire
from harness.answers import ask, expect_prompt
from harness.clients import IpcClient, XcpClient
from harness.com2 import CC, CFLAG, DEVICE, IFLAG, ISPEED, LFLAG, MUTE_SECONDS, OFLAG, OSPEED, SerialCable, SerialLine
from harness.daemon import CLOSING_ALL, Daemon
from harness.endings import AT_ONCE, SERVED_AFTER_STOP, time_to_end
from harness.queue_process import AnsweringProcess, QueueProcess
from harness.reply_model import ReplyRecord
from harness.terminal import Terminal
from harness.waiting import Deadline, Stopwatch, wait_until

NOBODY = b"?\r\n"
LINE_AND_SOCKETS = ("--notelnet",)
FIRST_TAG = wire.FIRST_COM2_ID


@pytest.fixture
def line() -> Iterator[SerialLine]:
    with SerialLine() as opened:
        yield opened


@pytest.fixture
def tessd(line: SerialLine, launch: Callable[..., Daemon]) -> Daemon:
    """A daemon that serves the line and the local ports."""
    tessd = launch(*LINE_AND_SOCKETS).wait_running()
    tessd.wait_log(*com2.opened(1))
    return tessd


@pytest.fixture
def process(tessd: Daemon) -> Iterator[QueueProcess]:
    with QueueProcess(2001) as opened:
        opened.register(b"ENC")
        yield opened


# The connection


def test_its_connection_exists_from_the_start_and_nobody_need_be_there(tessd, line):
    assert tessd.entries().count(com2.opened(1)) == 1
    with QueueProcess(2001) as process:
        process.reply(FIRST_TAG, b"before anybody has typed")
        line.expect(b"before anybody has typed")
    line.expect_nothing_more()


def test_a_command_goes_out_with_its_connection_and_the_answer_comes_back(line, process):
    line.type(b"s3.ENC GETX\r")
    tag = process.expect_command(b"GETX", tag=FIRST_TAG).tag
    process.reply(tag, b"5\r\n\r\n")
    line.expect(b"5\r\n\r\n")
    line.expect_nothing_more()


def test_only_processes_registered_for_the_line_get_its_commands(line, tessd):
    with QueueProcess(2001) as process:
        for mask, heard in ((wire.ALL_PORTS & ~wire.COM2, False), (wire.COM2, True)):
            process.register(b"ENC", mask)
            if heard:
                line.type(b"s3.ENC X\r")
                process.expect_command(b"X")
            else:
                line.ask(b"s3.ENC X", NOBODY)
                assert process.waiting() == []


def test_it_has_no_login_and_no_quit(line, process):
    line.type(b"quit\r")
    process.expect_command(b"quit")
    line.expect_nothing_more()


def test_closing_it_makes_a_new_one_with_the_next_id(tessd, line, process):
    for number in (2, 3):
        before = len(tessd.entries())
        process.send(wire.record(wire.CLOSE_ALL))
        tessd.wait_log(*com2.opened(number))
        assert tessd.entries()[before:] == [CLOSING_ALL, com2.CONNECTION_CLOSED, com2.opened(number)]
        line.type(b"s3.ENC X\r")
        process.expect_command(b"X", tag=FIRST_TAG + (number - 1) * wire.ID_STEP)


def test_closing_telnet_connections_leaves_it_alone(tessd, line, process):
    process.send(wire.record(wire.CLOSE_TELNET))
    process.expect_daemon_done()
    line.type(b"s3.ENC X\r")
    process.expect_command(b"X", tag=FIRST_TAG)
    assert com2.CONNECTION_CLOSED not in tessd.entries()


def test_its_second_connection_takes_answers_to_the_first_xcp_client(tessd, line, process):
    """A deliberate oddity: both have the ID 0x00570000, and the one that is older in the list is found first."""
    process.send(wire.record(wire.CLOSE_ALL))
    tessd.wait_log(*com2.opened(2))
    with XcpClient() as client:
        client.expect_nothing_more()
        client.send_frame(b"s3.ENC X\n", tag=7)
        process.reply(process.expect_command(b"X", tag=wire.FIRST_XCP_ID | 7).tag, b"5\r\n\r\n")
        line.expect(b"5\r\n\r\n")
        client.expect_nothing_more()


# Settings

CONTROL_CHARACTERS = {
    "VINTR": 0x03,
    "VQUIT": 0x1C,
    "VERASE": 0x08,
    "VKILL": 0x17,
    "VEOF": 0x04,
    "VMIN": 1,
    "VEOL": 0,
    "VTIME": 0,
    "VEOL2": 0,
    "VSWTC": 0,
    "VWERASE": 0x17,
    "VREPRINT": 0x12,
    "VSUSP": 0x1A,
    "VSTART": 0x11,
    "VSTOP": 0x13,
    "VLNEXT": 0x16,
    "VDISCARD": 0x15,
}


def test_the_line_is_set_to_38400_8n1_line_input_without_echo(tessd, line):
    actual = line.get_attributes()
    expected = {
        IFLAG: termios.IGNPAR | termios.ICRNL | termios.IXOFF,
        OFLAG: termios.OPOST,
        CFLAG: termios.B38400 | termios.CS8 | termios.CREAD | termios.CLOCAL,
        LFLAG: termios.ICANON,
        ISPEED: termios.B38400,
        OSPEED: termios.B38400,
    }
    assert {index: actual[index] for index in expected} == expected
    values = {name: ord(actual[CC][getattr(termios, name)]) for name in CONTROL_CHARACTERS}
    assert values == CONTROL_CHARACTERS


def test_the_line_gets_its_settings_back_at_the_end(line, launch):
    before = line.get_attributes()
    before[IFLAG] = termios.IXANY | termios.BRKINT
    before[LFLAG] = termios.ECHO | termios.ISIG
    before[ISPEED] = before[OSPEED] = termios.B9600
    before[CC][termios.VERASE] = b"\x7f"
    line.set_attributes(before)
    before = line.get_attributes()
    for stop in (signal.SIGTERM, None):
        tessd = launch(*LINE_AND_SOCKETS).wait_running()
        assert line.get_attributes() != before
        if stop:
            tessd.signal(stop)
        else:
            with QueueProcess(2999) as process:
                process.send(wire.record(wire.STOP))
        tessd.expect_normal_end()
        assert line.get_attributes() == before


def test_what_was_typed_before_the_start_is_thrown_away(line, launch):
    near_end = os.open(DEVICE, os.O_RDWR | os.O_NOCTTY)
    line.ask(b"typed before", b"typed before\r\n")  # the line's own echo: it has arrived
    launch(*LINE_AND_SOCKETS).wait_running()
    os.close(near_end)
    with QueueProcess(2001) as process:
        process.register(b"ENC")
        line.expect_nothing_more()
        assert process.waiting() == []


# Typing

# What is typed, and the commands that come of it.
TYPED = [
    (b"A\r", [b"A"]),
    (b"A\n", [b"A"]),
    (b"A|B\r", [b"A", b"B"]),
    (b"A\rB\rC\r", [b"A", b"B", b"C"]),
    (b"\r\r", []),
    (b"  A  \r", [b"A"]),
    # Backspace erases, DEL does not. Ctrl-W is set for the line and for the word; Linux then takes the word.
    (b"AB\x08C\r", [b"AC"]),
    (b"AB\x08\x08\x08\x08C\r", [b"C"]),
    (b"AB\x7fC\r", [b"AB\x7fC"]),
    (b"two words\x17C\r", [b"two C"]),
    (b"word\x17C\r", [b"C"]),
    (b"AB\x15C\r", [b"AB\x15C"]),
    # Nothing else has a meaning on the line.
    (b"A\x03B\x1cC\x1aD\r", [b"A\x03B\x1cC\x1aD"]),
    (b"A\x16\x08B\r", [b"AB"]),
    (b"A\x12B\r", [b"A\x12B"]),
    (b"\xc3\xa9\xff\r", [b"\xc3\xa9\xff"]),
]


@pytest.mark.parametrize("typed, commands", TYPED, ids=[repr(row[0])[2:-1] for row in TYPED])
def test_typing(line, process, typed, commands):
    line.type(typed)
    for command in commands:
        process.expect_command(command)
    line.expect_nothing_more()  # no echo either
    assert process.waiting() == []


def test_typing_is_not_echoed(line, process):
    line.type(b"s3.ENC GETX\r")
    process.expect_command(b"GETX")
    line.expect_nothing_more()


def test_a_line_typed_in_pieces_is_one_command(line, process):
    for key in b"s3.ENC SETX 5":
        line.type(bytes([key]))
        process.expect_daemon_done()
    assert process.waiting() == []
    line.type(b"\r")
    process.expect_command(b"SETX 5")
    line.expect_nothing_more()


def test_a_line_longer_than_the_buffer_is_read_in_pieces(line, process):
    line.type(b"a" * 1024 + b"b" * 476 + b"\r")
    process.expect_command(b"a" * 1023)
    process.expect_command(b"b" * 476)
    line.expect_nothing_more()


def test_ctrl_d_on_an_empty_line_ends_nothing(tessd, line, process):
    for _ in range(2):
        line.type(b"\x04")
        process.expect_daemon_done()
    line.type(b"A\r")
    process.expect_command(b"A")
    line.expect_nothing_more()
    assert com2.CONNECTION_CLOSED not in tessd.entries()


def test_after_many_ctrl_d_the_line_is_looked_at_once_a_second_until_something_comes(tessd, line, process):
    line.type(b"\x04" * 6 + b"A\r" + b"B\r" * 10)
    process.expect_command(b"A", within=10)
    watch = Stopwatch()
    for _ in range(10):
        process.expect_command(b"B")
    assert watch.seconds() < 3 * settings.SLOW, f"the rest took {watch.seconds():.1f} s"
    line.expect_nothing_more()


def test_a_piece_ended_by_ctrl_d_runs_on_into_an_older_line(line, process):
    """A deliberate oddity: nothing ends the bytes of a read without a line end but what lay there before."""
    line.type(b"s3.ENC FIRST LINE\r")
    process.expect_command(b"FIRST LINE")
    line.type(b"s3.ENC X\x04")
    process.expect_command(b"XIRST LINE")
    line.type(b"s3.ENC LONGER THAN IT\x04")
    process.expect_command(b"LONGER THAN IT")
    line.expect_nothing_more()


# Written by processes


class Writer:
    """A process that writes to the line through the daemon, and checks what it is answered."""

    def __init__(self, process: QueueProcess) -> None:
        self.process = process
        self._model = ReplyRecord()

    def send(self, text: bytes, length: int | None = None, tag: int = 0x1234) -> None:
        size = len(text) if length is None else length
        self.process.send(wire.record(wire.COM2_WRITE, text, tag=tag, length=size))

    def expect_answer(self, length_word: int, tag: int = 0x1234, within: float = 5) -> None:
        got = self.process.receive(within)
        actual = (got.kind, got.tag, got.length_word, got.text)
        expected = (wire.REPLY, tag, length_word, b"")
        assert actual == expected, f"expected kind, tag, len, text {expected}, got {actual}"


@pytest.fixture
def writer(process: QueueProcess) -> Writer:
    return Writer(process)


# Text of the message, length it declares, what the line gets.
WRITTEN = [
    pytest.param(b"hello", 5, b"hello", id="text"),
    pytest.param(b"hello\0", 5, b"hello", id="less than received"),
    pytest.param(b"a\0b\r\n\x04\x13\xff", 8, b"a\0b\r\n\x04\x13\xff", id="any bytes"),
    pytest.param(b"", 0, b"", id="nothing"),
    pytest.param(b"hello", -1, b"", id="negative"),
    pytest.param(b"hello", -(2**31), b"", id="most negative"),
    pytest.param(b"abc", 10, b"abc" + bytes(7), id="more than received"),
    pytest.param(b"x" * 8176, 8176, b"x" * 8176, id="full record"),
    pytest.param(b"x" * 8176, 8177, b"x" * 8176, id="more than a record holds"),
    pytest.param(b"x" * 8176, 2**31 - 1, b"x" * 8176, id="far more"),
    pytest.param(b"y" * 100, 8176, b"y" * 100 + bytes(8076), id="a record more than received"),
]


@pytest.mark.parametrize("text, length, written", WRITTEN)
def test_a_process_writes_raw_bytes_to_the_line(line, writer, text, length, written):
    writer.send(text, length)
    line.expect(written)
    writer.expect_answer(0)
    # And nothing more than that: the answer to the next write is what comes next.
    writer.send(b"|end", tag=7)
    line.expect(b"|end")
    writer.expect_answer(0, tag=7)


def test_what_is_typed_within_two_seconds_of_a_write_is_thrown_away(line, writer):
    watch = Stopwatch()
    writer.send(b"menu")
    line.expect(b"menu")
    writer.expect_answer(0)
    line.type(b"s3.ENC AT ONCE\r")
    with IpcClient() as client:
        while watch.seconds() < MUTE_SECONDS / 2:
            client.ask(b"*", b"0\r\n\r\n")  # each of these is a pass over the line too
        line.type(b"s3.ENC LATER\rs3.ENC AND HALF A LINE")
        while watch.seconds() < MUTE_SECONDS + 0.5 * settings.SLOW:
            client.ask(b"*", b"0\r\n\r\n")
    line.type(b"s3.ENC HEARD\r")
    writer.process.expect_command(b"HEARD", tag=FIRST_TAG)
    assert writer.process.waiting() == []
    line.expect_nothing_more()


def test_a_write_in_the_mute_time_begins_it_anew(line, writer):
    with IpcClient() as client:

        def keep_looking(watch: Stopwatch, seconds: float) -> None:
            while watch.seconds() < seconds:
                client.ask(b"*", b"0\r\n\r\n")  # each of these is a pass over the line too

        begun = Stopwatch()
        writer.send(b"one")
        writer.expect_answer(0)
        keep_looking(begun, 1.5)
        begun = Stopwatch()
        writer.send(b"two")
        writer.expect_answer(0)
        keep_looking(begun, 1.2)
        line.type(b"s3.ENC MUTED\r")
        keep_looking(begun, MUTE_SECONDS + 0.5 * settings.SLOW)
    line.expect(b"onetwo")
    line.type(b"s3.ENC HEARD\r")
    writer.process.expect_command(b"HEARD")
    assert writer.process.waiting() == []


def test_what_is_typed_in_the_mute_time_is_not_for_the_next_connection_either(tessd, line, writer):
    writer.send(b"menu")
    writer.expect_answer(0)
    line.type(b"s3.ENC MUTED\r")
    line.wait_arrived()
    writer.process.send(wire.record(wire.CLOSE_ALL))
    tessd.wait_log(*com2.opened(2))
    line.type(b"s3.ENC HEARD\r")
    writer.process.expect_command(b"HEARD", tag=FIRST_TAG + wire.ID_STEP)
    assert writer.process.waiting() == []


def test_answers_to_commands_come_through_and_mute_nothing(line, process):
    for number in range(20):
        line.type(b"s3.ENC %d\r" % number)
        process.reply(process.expect_command(b"%d" % number).tag, b"%d\r\n" % number)
        line.expect(b"%d\r\n" % number)


def test_the_mute_time_needs_no_processor(tessd, line, writer):
    writer.send(b"menu")
    writer.expect_answer(0)
    before, wakeups, watch = proc.cpu_seconds(tessd.pid), proc.wakeups(tessd.pid), Stopwatch()
    line.type(b"s3.ENC MUTED\r" * 5)  # stays in the line until the daemon looks
    time.sleep(MUTE_SECONDS - 0.5)
    assert proc.cpu_seconds(tessd.pid) - before <= 0.05 * settings.SLOW
    woken = proc.wakeups(tessd.pid) - wakeups
    assert woken <= 20 or settings.sanitized(), f"{woken} wake-ups in {watch.seconds():.1f} s"


# Trouble


@pytest.mark.parametrize("device_exists", [False, True], ids=["no device", "device that is gone"])
def test_a_line_that_cannot_be_opened_is_answered_with_one(launch, device_exists):
    if device_exists:
        with SerialLine() as line:
            tessd = launch(*LINE_AND_SOCKETS).wait_running()
            line.hang_up()
    else:
        tessd = launch(*LINE_AND_SOCKETS).wait_running()
    tessd.wait_log(*com2.opened(1))
    with QueueProcess(2001) as process, IpcClient() as client:
        writer = Writer(process)
        for length in (4, 0, -1):
            writer.send(b"text", length)
            writer.expect_answer(1)
        process.register(b"ENC")
        process.reply(FIRST_TAG, b"lost")
        process.expect_daemon_done()
        client.send(b"s3.ENC X\n")
        process.expect_command(b"X")
        client.expect_nothing_more()


def expect_little_work(tessd: Daemon, seconds: float) -> None:
    before, wakeups, watch = proc.cpu_seconds(tessd.pid), proc.wakeups(tessd.pid), Stopwatch()
    time.sleep(seconds)
    used = proc.cpu_seconds(tessd.pid) - before
    rate = (proc.wakeups(tessd.pid) - wakeups) / watch.seconds()
    assert used <= 0.01 * seconds * settings.SLOW + 0.02, f"{used:.2f} s of processor time in {seconds} s"
    # The thread sanitizer has a thread of its own that wakes up ten times a second.
    assert rate <= 5 or settings.sanitized(), f"{rate:.1f} wake-ups a second"


def test_a_line_that_hangs_up_costs_nothing_and_holds_nobody_up(tessd, line, process):
    line.type(b"s3.ENC X\r")
    process.expect_command(b"X")
    line.hang_up()
    with IpcClient() as ipc, XcpClient() as xcp:
        xcp.expect_nothing_more()
        ipc.ask(b"*", b"0\r\n\r\n")
        expect_little_work(tessd, 4)
        process.reply(FIRST_TAG, b"lost")
        process.expect_daemon_done()
        ipc.send(b"s3.ENC X\n")
        process.reply(process.expect_command(b"X").tag, b"5\r\n")
        ipc.expect(b"5\r\n")
    assert com2.CONNECTION_CLOSED not in tessd.entries(), "nothing closes the line's connection"
    tessd.stop()


def test_a_line_that_is_plugged_in_again_can_be_written_to(tessd, line, writer):
    """The daemon opens the device for each of these writes; what it reads from is the line that is gone."""
    line.hang_up()
    with SerialLine() as again:
        writer.send(b"hello")
        again.expect(b"hello")
        writer.expect_answer(0)
        tessd.stop()


def test_a_far_end_that_does_not_read_holds_nobody_up_and_gets_its_answers_later(tessd, line, process):
    with IpcClient() as ipc, XcpClient() as xcp:
        ipc.expect_nothing_more()
        xcp.expect_nothing_more()
        filled = line.fill()
        for _ in range(2):
            process.reply(FIRST_TAG, b"kept|")
        process.wait_taken()
        expect_prompt(ask(tessd, [ipc, xcp], 0.5))
        line.type(b"s3.ENC X\r")  # it is still listened to
        tag = process.expect_command(b"X").tag
        process.expect_daemon_done()
        process.reply(tag, b"read again, it is written to")
        line.expect(b"." * filled + b"kept|" * 2 + b"read again, it is written to")


def test_a_write_to_a_far_end_that_does_not_read_is_answered_with_one(line, writer):
    filled = line.fill()
    watch = Stopwatch()
    writer.send(b"lost")
    writer.expect_answer(1, within=10)
    assert watch.seconds() >= 2, f"{watch.seconds():.1f} s"
    line.expect(b"." * filled)
    writer.send(b"hello")
    line.expect(b"hello")
    writer.expect_answer(0)


@pytest.mark.parametrize("stop", [signal.SIGTERM, signal.SIGQUIT, None], ids=["SIGTERM", "SIGQUIT", "stop message"])
def test_a_far_end_that_does_not_read_does_not_keep_the_daemon_from_stopping(tessd, line, process, stop):
    filled = line.fill()
    process.reply(FIRST_TAG, b"lost")
    process.send(wire.record(wire.COM2_WRITE, b"lost", length=4))
    process.wait_taken()
    seconds = time_to_end(tessd, lambda: tessd.signal(stop) if stop else process.send(wire.record(wire.STOP)))
    tessd.expect_normal_end()
    assert seconds <= (0 if stop else SERVED_AFTER_STOP) + AT_ONCE * settings.SLOW, f"{seconds:.1f} s"
    # What a full line has room for again by itself may still get in.
    left = line.receive(filled + 100, within=0.2)
    assert left.startswith(b"." * filled), f"{filled} bytes were in the line, {len(left)} came out"


def test_a_far_end_that_reads_slowly_gets_everything(line, process):
    answers = [b"%03d " % number + b"x" * 8000 for number in range(8)]  # more than the line holds, not more than is kept
    expected = b"".join(answers)
    received = b""

    def read_slowly() -> None:
        nonlocal received
        deadline = Deadline(40)
        while len(received) < len(expected) and not deadline.over():
            received += line.receive(4000, within=0.5)
            time.sleep(0.005)

    reader = threading.Thread(target=read_slowly)
    reader.start()
    for answer in answers:
        process.reply(FIRST_TAG, answer)
    reader.join()
    assert received == expected, f"{len(received)} of {len(expected)} bytes came"
    process.expect_daemon_done()
    line.expect_nothing_more()


# Real terminals on the other end of the line


TERMINALS = [
    pytest.param(["picocom", "--quiet", "--nolock"], b"\x01\x18", id="picocom"),
    pytest.param(["socat", "-,raw,echo=0,escape=0x1d"], b"\x1d", id="socat"),
]


@pytest.mark.parametrize("command, leave", TERMINALS)
def test_a_person_at_a_real_terminal(launch, command, leave):
    with SerialCable() as cable:
        tessd = launch(*LINE_AND_SOCKETS).wait_running()
        device = cable.user_device if command[0] == "picocom" else f"{cable.user_device},raw,echo=0"
        with AnsweringProcess(2001, b"ENC", lambda command: b"got " + command + b"\r\n\r\n"):
            for visit in range(2):  # the terminal program may come and go
                with Terminal(*command, device) as terminal:
                    wait_until(lambda: holds_open(terminal.process.pid, cable.user_device), "it has opened the line")
                    typed = b"s3.ENC VISIT %d" % visit
                    terminal.type(typed + b"\r")
                    terminal.expect(b"got VISIT %d\r\n\r\n" % visit)
                    terminal.type(b"s3.ENC AB\x08C\r")
                    terminal.expect(b"got AC\r\n\r\n")
                    terminal.type(b"s3.ENC AB\x7fC\r")  # what the Backspace key sends in both programs
                    terminal.expect(b"got AB\x7fC\r\n\r\n")
                    terminal.type(b"s3.NONE X\r")
                    terminal.expect(NOBODY)
                    assert typed not in terminal.shown, "what is typed is shown by nobody"
                    terminal.type(leave)
                    terminal.expect_end()
        tessd.stop()


def holds_open(pid: int, device: str) -> bool:
    return device in proc.descriptors(pid).values()
