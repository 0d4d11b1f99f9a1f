"""Delayed commands: setting, listing, clearing, and what becomes of them when their time has come."""

from __future__ import annotations

import re
import time

import pytest

from harness import proc, settings, wire
from harness.answers import Blame, ask, expect_prompt
from harness.clients import IpcClient, XcpClient
from harness.queue_process import QueueProcess
from harness.waiting import Stopwatch

OK = b"OK\r\n\r\n"
INVALID = b"Error Setting Command: Invalid Arguments.\r\n\r\n"
NOBODY = b"?\r\n"

plain_only = pytest.mark.skipif(
    settings.emulated() or settings.sanitized(), reason="emulators and sanitizers add costs of their own"
)


@pytest.fixture
def tessd(clocked_tessd):
    return clocked_tessd


@pytest.fixture
def client(tessd):
    with IpcClient() as opened:
        yield opened


@pytest.fixture
def process(tessd):
    with QueueProcess(2001) as opened:
        opened.register(b"ENC")
        yield opened


def let_the_queue_be_walked(client: IpcClient) -> None:
    """Every pass walks it while it is not empty, and an answer needs a pass; after the second it has been walked."""
    for _ in range(3):
        client.ask(b"*", b"0\r\n\r\n")


def receive_listing(client: IpcClient, within: float = 5) -> list[tuple[int, int, int, int, bytes]]:
    """Sends a bare DELAY; returns hours, minutes, seconds, milliseconds and text of each entry."""
    client.send(b"DELAY\n")
    return parse_listing(receive_text(client, within))


def receive_text(client: IpcClient, within: float = 5) -> bytes:
    text = b""
    while not text.endswith(b"\r\n\r\n"):
        piece = client.receive(1, within)
        assert piece, f"the listing does not end: {text!r}"
        text += piece
    return text


def parse_listing(text: bytes) -> list[tuple[int, int, int, int, bytes]]:
    assert text.startswith(b"OK\r\n") and text.endswith(b"\r\n\r\n" if text != OK else OK), text
    entries = []
    for line in text[len(b"OK\r\n") : -len(b"\r\n")].split(b"\r\n")[:-1]:
        match = re.fullmatch(rb"(\d{3}):(\d\d):(-?\d{1,2})\.(\d{3}) (.*)", line, re.DOTALL)
        assert match, f"{line!r} in {text!r}"
        entries.append((*(int(match[number]) for number in range(1, 5)), match[5]))
    return entries


def seconds_of(entry: tuple[int, int, int, int, bytes]) -> int:
    return entry[0] * 3600 + entry[1] * 60 + entry[2]


# The time


@pytest.mark.parametrize(
    "text, seconds",
    [
        (b"10.0", 10),
        (b"1:30.0", 90),
        (b"0:0:5.0", 5),
        (b"1:0:0:0", 3600),
        (b"1:0:0.0", 3600),
        (b"2:3:4.5", 2 * 3600 + 3 * 60 + 4),
        (b"596:0:0.0", 596 * 3600),
        (b"2147000.0", 2147000),
        (b"2147000999", 2147000),
    ],
)
def test_a_delayed_command_runs_when_its_time_has_come_and_not_before(clock, client, process, text, seconds):
    client.ask(b"DELAY " + text + b"|s3.ENC X", OK)
    clock.advance(seconds / 2)
    let_the_queue_be_walked(client)
    assert process.waiting() == [], "too early"
    clock.advance(seconds / 2 + 1)
    process.expect_command(b"X", tag=0)
    assert receive_listing(client) == []


# Text of the time, and the seconds that the delay has.
TIMES = [
    (b"1.0", 1),
    (b"1000", 1),
    (b"1999", 1),  # milliseconds do not count
    (b"1.999", 1),
    (b"1.1000", 2),  # but whole seconds among them do
    (b"0:1.0", 1),
    (b"2 0", 2),
    (b"2:0", 2),
    (b"  2.0  ", 2),
    (b"2  .  0", 2),
    (b".2.0.", 2),
    (b"100:0.0", 6000),
    (b"3:100:100.0", 3 * 3600 + 6000 + 100),
    (b"596:0:0.0", 596 * 3600),
    (b"35791:0.0", 35791 * 60),
    (b"2147483.0", 2147483),
    (b"2147483647", 2147483),
    (b"0000000000000000010.0", 10),
]


def test_times_are_read_from_the_right(client):
    for text, seconds in TIMES:
        for line in (b"DELAY " + text, b"delay" + text, b" Delay\t" + text + b" "):
            watch = Stopwatch()
            client.send(line + b"|some command\nDELAY\n")
            client.expect(OK)
            (entry,) = parse_listing(receive_text(client))
            # The listing shows one second less, and one less again when the clock's second has ended in between.
            assert 1 <= seconds - seconds_of(entry) <= 2 + watch.seconds(), f"{line!r}: {entry}"
            assert entry[4] == b"some command"
            client.ask(b"DELAY CLEAR", OK)


def test_bad_times_are_refused(client, process):
    for text in (
        b"0",
        b"0.0",
        b"0:0:0.0",
        b"0:0:0:0",
        b"x",
        b"1.x",
        b"-1",
        b"+1",
        b"1,5",
        b"1;5",
        b"0x10",
        b"1e3",
        b"1:2:3:4.5",
        b"1 2 3 4 5",
        b":",
        b". .",
        b"1000:0:0.0",
        b"60000:0.0",
        b"3000000.0",
        b"2147483648",
        b"99999999999999999999",
        b"10.0 CLEAR",
        b"CLEA",
        b"ED",
        b"\xc2\xb2",
    ):
        client.ask(b"DELAY " + text + b"|X", INVALID)
        client.ask(b"DELAY " + text, INVALID)
    assert receive_listing(client) == []
    let_the_queue_be_walked(client)
    assert process.waiting() == []


@pytest.mark.parametrize("text", [b"597:0:0.0", b"999:0:0.0", b"2147484.0", b"2999999.0", b"35792:0.0", b"59999:0.0"])
def test_delays_that_overflow_are_accepted_and_never_run(clock, client, process, text):
    """A deliberate oddity: such a time becomes more than a hundred years, or one that is over only by another overflow."""
    client.ask(b"DELAY " + text + b"|X", OK)
    client.send(b"DELAY\n")
    assert receive_text(client).endswith(b" X\r\n\r\n")
    clock.advance(2_000_000)
    let_the_queue_be_walked(client)
    assert process.waiting() == []
    client.ask(b"DELAY CLEAR", OK)


@pytest.mark.parametrize("text", [b"1", b"500", b"999", b"0.999", b"0:0.1"])
def test_less_than_a_second_is_due_at_once(tessd, client, process, text):
    watch = Blame(tessd)
    client.ask(b"DELAY " + text + b"|X", OK)
    process.expect_command(b"X")
    assert watch.seconds() < 0.4 * settings.SLOW, f"took {watch.seconds():.3f} s"


def test_milliseconds_do_not_count_in_real_time(start_tessd):
    tessd = start_tessd()
    with QueueProcess(2001) as process, IpcClient() as client:
        process.register(b"ENC")
        for text in (b"1.0", b"1999", b"1.999"):
            watch, blame = Stopwatch(), Blame(tessd)
            client.ask(b"DELAY " + text + b"|X", OK)
            process.expect_command(b"X")
            passed, blamed = watch.seconds(), blame.seconds()
            assert passed >= 1.0, f"{text!r}: {passed:.3f} s"
            assert blamed < 1.0 + 0.25 + 0.1 * settings.SLOW, f"{text!r}: {blamed:.3f} s"  # a quarter late at most


# Listing and clearing


def test_an_empty_queue_is_listed_and_cleared(client):
    client.ask(b"DELAY", OK)
    client.ask(b"DELAY CLEAR", OK)
    client.ask(b"delay", OK)
    client.ask(b"  DELAY  ", OK)


def test_the_listing_shows_time_left_and_text_in_order_of_time(client):
    watch = Stopwatch()
    client.send(
        b"DELAY 1:0:0.0|hour\nDELAY 30.0|half a minute\nDELAY 999:1.0|long\nDELAY 30.0|again\nDELAY 20.0\n"
        b"DELAY 25.0| A |B  |\n"
    )
    client.expect(OK * 6)
    entries = receive_listing(client)
    assert [entry[4] for entry in entries] == [b"", b" A |B  ", b"half a minute", b"again", b"hour", b"long"]
    for entry, seconds in zip(entries, (20, 25, 30, 30, 3600, 999 * 60 + 1), strict=True):
        assert 0 < seconds - seconds_of(entry) <= 2 + watch.seconds(), f"{entry}: {seconds} s were given"
        assert 0 <= entry[3] <= 999 and entry[1] < 60 and entry[2] < 60, entry
    # The milliseconds are those to the clock's next whole second: the same for all of them.
    assert len({entry[3] for entry in entries}) == 1, entries


def test_listed_time_runs_down(clock, client):
    client.ask(b"DELAY 1:0:0.0|X", OK)
    watch = Stopwatch()
    (before,) = receive_listing(client)
    clock.advance(1800)
    (after,) = receive_listing(client)
    assert 1800 <= seconds_of(before) - seconds_of(after) <= 1801 + watch.seconds(), (before, after)


def test_a_line_that_falls_due_within_the_second_is_listed_with_a_negative_one(client):
    """A deliberate oddity of the listing, seen when the two lines meet the same pass."""
    client.send(b"DELAY 500|X\nDELAY\n")
    client.expect(OK)
    (entry,) = parse_listing(receive_text(client))
    assert entry[:3] in ((0, 0, -1), (0, 0, -2), (0, 0, 0)), entry
    # Over a few tries the usual case must be seen: due in this second.
    seen = {entry[2]}
    for _ in range(5):
        client.send(b"DELAY 500|X\nDELAY\n")
        client.expect(OK)
        seen |= {entry[2] for entry in parse_listing(receive_text(client))}
    assert -1 in seen, seen


@pytest.mark.parametrize(
    "line",
    [
        b"DELAY CLEAR",
        b"delay clear",
        b"Delay Clear",
        b"DELAY CLEARLY",
        b"DELAY  clear all",
        b"DELAYCLEAR",
        b"DELAY CLEAR|X",
    ],
)
def test_clearing_empties_the_queue(clock, client, process, line):
    client.send(b"DELAY 10.0|A\nDELAY 20.0|B\n")
    client.expect(OK * 2)
    client.ask(line, OK)
    client.ask(b"DELAY", OK)
    clock.advance(30)
    let_the_queue_be_walked(client)
    assert process.waiting() == []


def test_any_connection_lists_and_clears_the_same_queue(client):
    with XcpClient() as framed:
        framed.send_frame(b"DELAY 100.0|X", tag=5)  # the line end of a frame would belong to the text
        framed.expect_frame(OK)
        assert [entry[4] for entry in receive_listing(client)] == [b"X"]
        client.ask(b"DELAY CLEAR", OK)
        framed.send_frame(b"DELAY\n")
        framed.expect_frame(OK)


def test_commands_around_a_delay_in_the_same_line(client, process):
    client.ask(b"A|DELAY|B", OK)  # what follows a listing is never run
    process.expect_command(b"A")
    client.ask(b"A|DELAY 500|B|C", OK)
    for command in (b"A", b"B", b"C"):
        process.expect_command(command)
    client.ask(b"A|DELAY CLEAR|B", OK)
    process.expect_command(b"A")
    client.ask(b"A|DELAY 0|B", INVALID)
    process.expect_command(b"A")
    let_the_queue_be_walked(client)
    assert process.waiting() == []


def long_delays(client: IpcClient, count: int) -> list[bytes]:
    texts = [b"%03d " % number + b"x" * 900 for number in range(count)]
    for text in texts:
        client.ask(b"DELAY 100.0|" + text, OK)
    return texts


@pytest.mark.parametrize("count", [8, 9, 10, 40])
def test_a_listing_longer_than_a_message_arrives_whole(client, count):
    texts = long_delays(client, count)  # nine of them do not fit a message
    assert [entry[4] for entry in receive_listing(client)] == texts
    client.expect_nothing_more()


def test_a_framed_client_gets_a_long_listing_in_several_frames_cut_at_line_ends(client):
    texts = long_delays(client, 40)
    with XcpClient() as framed:
        framed.send_frame(b"DELAY\n", tag=9)
        pieces: list[bytes] = []
        while not pieces or not pieces[-1].endswith(b"\r\n\r\n"):
            got = framed.receive_frame()
            assert got.text.endswith(b"\0") and got.length_word == len(got.text)
            pieces.append(got.line)
        assert len(pieces) == 5, [len(piece) for piece in pieces]
        assert all(piece.endswith(b"\r\n") for piece in pieces)
        assert [entry[4] for entry in parse_listing(b"".join(pieces))] == texts
        framed.expect_nothing_more()


# Running


def test_lines_of_the_same_time_run_in_the_order_they_were_queued(clock, client, process):
    for delay in (b"500", b"5.0"):
        commands = [b"c%d" % number for number in range(10)]  # as many as the process's queue holds
        client.send(b"".join(b"DELAY %s|s3.ENC %s\n" % (delay, command) for command in commands))
        client.expect(OK * 10)
        clock.advance(6)
        for command in commands:
            process.expect_command(command)


def test_lines_that_are_due_together_run_in_the_order_of_their_times(clock, client, process):
    client.send(b"DELAY 3.0|C\nDELAY 1:0.0|E\nDELAY 2.0|B\nDELAY 1.0|A\nDELAY 3.0|D\n")
    client.expect(OK * 5)
    clock.advance(10)
    for command in (b"A", b"B", b"C", b"D"):
        process.expect_command(command)
    assert [entry[4] for entry in receive_listing(client)] == [b"E"]
    assert process.waiting() == []


def test_a_delayed_line_reaches_every_process_whatever_its_ports(client, tessd):
    masks = (wire.COM2, wire.TELNET, wire.XCP, wire.IPC)
    processes = [QueueProcess(2001 + number) for number in range(len(masks))]
    for process, mask in zip(processes, masks, strict=True):
        process.register(b"P%d" % mask, mask)
    client.ask(b"DELAY 500|X", OK)
    for process in processes:
        process.expect_command(b"X", tag=0)
    client.ask(b"DELAY 500|s3.P%d Y" % wire.TELNET, OK)
    processes[1].expect_command(b"Y", tag=0)
    with XcpClient() as framed:
        framed.send_frame(b"DELAY 500|Z\n", tag=0x77)  # the tag of a frame is not kept either
        framed.expect_frame(OK)
        for process in processes:
            process.expect_command(b"Z", tag=0)
    for process in processes:
        process.close()


def test_answers_to_a_delayed_line_reach_nobody(client, process):
    client.ask(b"DELAY 500|s3.ENC X|s3.NONE Y|*|$|quit", OK)
    process.reply(process.expect_command(b"X", tag=0).tag, b"for nobody")
    process.expect_command(b"quit", tag=0)
    process.expect_daemon_done()
    client.expect_nothing_more()
    assert process.waiting() == []


def test_a_delayed_line_outlives_the_client_that_queued_it(clock, client, process):
    with IpcClient() as other:
        other.ask(b"DELAY 100.0|X", OK)
    client.expect_nothing_more()
    clock.advance(101)
    process.expect_command(b"X")


def test_delayed_lines_are_lost_when_the_daemon_ends(tessd, start_tessd, clock):
    with IpcClient() as client:
        client.ask(b"DELAY 100.0|X", OK)
    tessd.stop()
    start_tessd(environment=clock.environment)
    with IpcClient() as client:
        client.ask(b"DELAY", OK)


def test_a_delayed_line_may_queue_another(clock, client, process):
    client.ask(b"DELAY 500|DELAY 500|DELAY 500|X", OK)
    process.expect_command(b"X")
    client.ask(b"DELAY 10.0|A|DELAY 20.0|B", OK)
    clock.advance(11)
    process.expect_command(b"A")
    let_the_queue_be_walked(client)
    assert process.waiting() == []
    assert [entry[4] for entry in receive_listing(client)] == [b"B"]
    clock.advance(20)
    process.expect_command(b"B")


def test_a_delayed_clear_ends_the_walk_and_everything_behind_it(clock, client, process):
    client.send(b"DELAY 1.0|A\nDELAY 2.0|B|DELAY CLEAR\nDELAY 3.0|C\nDELAY 100.0|D\n")
    client.expect(OK * 4)
    clock.advance(10)
    process.expect_command(b"A")
    process.expect_command(b"B")
    client.ask(b"DELAY", OK)
    clock.advance(100)
    client.ask(b"DELAY 500|E", OK)
    process.expect_command(b"E")
    assert process.waiting() == []


def test_a_delayed_clear_alone_in_the_queue(client, process):
    client.ask(b"DELAY 500|DELAY CLEAR", OK)
    let_the_queue_be_walked(client)
    client.ask(b"DELAY", OK)
    client.ask(b"DELAY 500|X", OK)
    process.expect_command(b"X")


def test_a_delayed_listing_and_a_delayed_mistake_tell_nobody(client, process):
    client.send(b"DELAY 500|DELAY\nDELAY 500|DELAY 0|X\nDELAY 500\nDELAY 500||\n")
    client.expect(OK * 4)
    let_the_queue_be_walked(client)
    assert receive_listing(client) == []
    assert process.waiting() == []


def test_a_delayed_reset_that_fails_is_forwarded(client, process):
    """A deliberate oddity; typed on a connection it would be answered instead."""
    for line in (b"RESET A", b"reset REINIT elsewhere", b"RESET|A B"):
        client.ask(b"DELAY 500|" + line, OK)
        for token in line.split(b"|"):
            process.expect_command(token)
    client.expect_nothing_more()


@pytest.mark.parametrize("length", [254, 255, 256, 900])
def test_a_delayed_line_is_cut_to_255_characters_when_it_runs(client, process, length):
    text = b"s3.ENC " + bytes(65 + number % 26 for number in range(length - 7))
    client.ask(b"DELAY 10.0|" + text, OK)
    assert receive_listing(client)[0][4] == text, "the listing has all of it"
    client.ask(b"DELAY CLEAR", OK)
    client.ask(b"DELAY 500|" + text, OK)
    process.expect_command(text[7:255])


def test_a_full_queue_of_a_process_loses_delayed_commands_but_holds_nobody_up(client, process, tessd):
    client.send(b"".join(b"DELAY 500|s3.ENC %d\n" % number for number in range(30)))
    client.expect(OK * 30)
    expect_prompt(ask(tessd, [client], 0.6))  # longer than anything waits for the process
    numbers = [int(message.line) for message in process.waiting()]
    assert numbers == list(range(len(numbers))) and len(numbers) >= 10, numbers
    client.expect_nothing_more()
    assert process.waiting() == [], "what was given up comes all the same"


# Costs


def wakeups_a_second(pid: int, seconds: float) -> float:
    watch, before = Stopwatch(), proc.wakeups(pid)
    time.sleep(seconds)
    return (proc.wakeups(pid) - before) / watch.seconds()


@plain_only
def test_the_daemon_wakes_up_four_times_a_second_while_something_is_pending_and_only_then(tessd, client):
    client.ask(b"DELAY 1:0:0.0|X", OK)
    tessd.wait_asleep()
    before = proc.cpu_seconds(tessd.pid)
    pending = wakeups_a_second(tessd.pid, 4)
    assert 2 <= pending <= 7, f"{pending:.1f} wake-ups a second"  # those of the main thread among them
    assert proc.cpu_seconds(tessd.pid) - before <= 0.05
    client.ask(b"DELAY CLEAR", OK)
    tessd.wait_asleep()
    idle = wakeups_a_second(tessd.pid, 4)
    assert idle <= 3, f"{idle:.1f} wake-ups a second"
