"""The framed socket: frames, the lines in them, frames that lie, and who gets in."""

from __future__ import annotations

import array
import contextlib
import socket
import time

import pytest

from harness import proc, wire
from harness.answers import ask, expect_prompt
from harness.clients import IpcClient, XcpClient
from harness.queue_process import QueueProcess
from harness.waiting import Stopwatch

OUT_OF_RANGE = (250004, "XCP frame length out of range")
WRITE_FAILED = (250004, "Error writing to the socket")
LARGEST = wire.FRAME_BUFFER - wire.HEADER


def opened(connection: int) -> tuple[int, str]:
    """Announces connection number `connection`, the first being 1: the number told is one step behind its own."""
    return 36106, f"Opened IPC socket connection with ID = {hex(wire.FIRST_XCP_ID + (connection - 2) * wire.ID_STEP)}"


def closed(remaining: int) -> tuple[int, str]:
    return 6001, f"XCP socket connection closed.  Active connections = {remaining}"


@pytest.fixture
def process(tessd):
    with QueueProcess(2001) as registered:
        registered.register(b"ENC")
        yield registered


# Payload, the commands that follow from it. A line keeps its end unless white space follows it, and a NUL is no white
# space: deliberate oddities. The interpreter trims what it gets and drops empty lines.
CUTS = [
    (b"A", [b"A"]),
    (b"A\0", [b"A"]),
    (b"A\n", [b"A"]),
    (b"A\r\n", [b"A"]),
    (b"A\n\0", [b"A"]),
    (b"A\r\n\0", [b"A"]),
    (b"A\r\nB\r\n", [b"A", b"B"]),
    (b"A\n\nB", [b"A", b"B"]),
    (b"A\rB", [b"A\rB", b"B"]),
    (b"A\nB", [b"A\nB", b"B"]),
    (b"A\nB\nC", [b"A\nB\nC", b"B\nC", b"C"]),
    (b"A\n B", [b"A", b"B"]),
    (b"  A  \r\n", [b"A"]),
    (b"\r\n\r\n", []),
    (b" \t\v\f\r\n", []),
    (b"\0", []),
    (b"\0\0\0", []),
    (b"\0A\n", []),
    (b"\0\nA\n", [b"A"]),
    (b"A\0B\n", [b"A"]),
    (b"A\0\n\nB\0", [b"A", b"B"]),
    (b"\xff\x80", [b"\xff\x80"]),
]


def test_lines_are_cut_as_the_frame_has_them(process):
    with XcpClient() as client:
        for payload, commands in CUTS:
            client.send_frame(payload, tag=5)
            client.expect_nothing_more()
            actual = [(message.tag, message.text) for message in process.waiting()]
            expected = [(wire.FIRST_XCP_ID | 5, command + b"\n\0") for command in commands]
            assert actual == expected, f"{payload!r}: expected {expected}, got {actual}"


def test_every_line_of_a_frame_carries_its_tag(process):
    with XcpClient() as client:
        client.send_frame(b"s3.ENC A\r\ns3.ENC B|s3.ENC C\r\n", tag=0x0102)
        client.send_frame(b"s3.ENC D\r\n", tag=0x0304)
        for body, tag in ((b"A", 0x0102), (b"B", 0x0102), (b"C", 0x0102), (b"D", 0x0304)):
            process.expect_command(body, tag=wire.FIRST_XCP_ID | tag)


def test_header_words_without_a_meaning_are_ignored(process):
    with XcpClient() as client:
        client.send(wire.frame(b"s3.ENC X\n", tag=1, word0=0xFFFFFFFF, word1=0x80000000))
        process.expect_command(b"X", tag=wire.FIRST_XCP_ID | 1)


def test_answers_are_framed_with_the_lower_half_of_the_tag(process):
    with XcpClient() as client:
        client.send_frame(b"s3.ENC ver\r\n", tag=0x00050007)
        tag = process.expect_command(b"ver").tag
        process.reply(tag, b"1.2.3\r\n\r\n")
        got = client.expect_frame(b"1.2.3\r\n\r\n", tag=0x00000007)
        assert got.length_word == len("1.2.3\r\n\r\n") + 1
        assert (got.kind, got.sender) == (wire.REPLY, 2001)
        # The daemon's own answers are sent from its record of texts, whose tag an answer does not touch.
        client.send_frame(b"*\r\n", tag=0x0009)
        got = client.expect_frame(b"0\r\n\r\n", tag=0x0007)
        assert (got.kind, got.sender) == (wire.TEXT_KIND, 0)


def test_own_answers_carry_the_tag_of_the_last_command_that_found_a_process(process):
    """The tag of the command itself gets into the daemon's record only when a process takes it."""
    with XcpClient() as client:
        client.send_frame(b"*\r\n", tag=0x1111)
        client.expect_frame(b"0\r\n\r\n", tag=0)
        client.send_frame(b"s3.NONE X\r\n", tag=0x2222)
        client.expect_frame(b"?\r\n", tag=0)
        client.send_frame(b"s3.ENC X\r\n", tag=0x3333)
        process.expect_command(b"X")
        client.send_frame(b"$\r\n", tag=0x4444)
        client.expect_frame(b"?\r\n", tag=0x3333)
        client.send_frame(b"s3.NONE X\r\n", tag=0x5555)
        client.expect_frame(b"?\r\n", tag=0)
        process.die()
        client.send_frame(b"s3.ENC X\r\n", tag=0x6666)
        client.expect_frame(b"?\r\n", tag=0x6666)


def test_a_frame_without_payload_yields_nothing(process):
    with XcpClient() as client:
        for _ in range(3):
            client.send_frame(b"", tag=1)
        client.expect_nothing_more()
        client.send(wire.frame(b"", tag=1) * 5 + wire.frame(b"s3.ENC X\n", tag=2))
        process.expect_command(b"X", tag=wire.FIRST_XCP_ID | 2)


def test_several_frames_in_one_piece_are_served_one_by_one(process):
    with XcpClient() as client:
        client.send(b"".join(wire.frame(b"s3.ENC %d\n" % number, number) for number in range(200)))
        for number in range(200):
            process.expect_command(b"%d" % number, tag=wire.FIRST_XCP_ID | number)


def test_the_largest_frame_fits(process):
    with XcpClient() as client:
        client.send_frame(b"x" * LARGEST)
        process.expect_command(b"x" * LARGEST)
        client.send_frame(b"x" * (LARGEST - 1) + b"\n")
        process.expect_command(b"x" * (LARGEST - 1))
        client.expect_nothing_more()


@pytest.mark.parametrize("length", [-1, -16, -17, -(2**31), LARGEST + 1, 1024, 65536, 2**31 - 1])
def test_a_length_that_cannot_fit_closes_that_connection_only(process, tessd, length):
    with IpcClient() as ipc, XcpClient() as other, XcpClient() as liar:
        for client in (ipc, other, liar):
            client.expect_nothing_more()
        liar.send_frame(b"s3.ENC NEVER\n", length=length)
        liar.expect_close()
        tessd.wait_log(*OUT_OF_RANGE)
        tessd.wait_log(*closed(1))
        ipc.expect_nothing_more()
        other.expect_nothing_more()
    assert process.waiting() == []
    assert tessd.entries().count(OUT_OF_RANGE) == 1


def test_a_payload_shorter_than_declared_is_cut_over_the_declared_length(process):
    with XcpClient() as client:
        client.send_frame(b"A\n", length=LARGEST)
        process.expect_command(b"A")
        client.expect_nothing_more()
        assert process.waiting() == []
        # What an earlier frame left in the buffer stays behind the NUL that ends this one's bytes; lines of it that
        # lie inside the declared length are found again, all but the one that the NUL has cut.
        client.send_frame(b"s3.ENC B\n" * 5)
        for _ in range(5):
            assert process.receive().line.startswith(b"B\n")
        client.send_frame(b"C\n", length=len(b"s3.ENC B\n" * 4))
        process.expect_command(b"C")
        client.expect_nothing_more()
        # Each runs on to the end of the declared length, as the lines of a frame do.
        again = [message.line for message in process.waiting()]
        expected = [b"B" + b"\ns3.ENC B" * behind + b"\n" for behind in (2, 1, 0)]
        assert again == expected, f"expected {expected}, got {again}"


def test_descriptors_that_come_with_a_frame_do_not_stay_open(process, tessd):
    with XcpClient() as client:
        client.expect_nothing_more()
        before = proc.descriptors(tessd.pid)
        rights = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", [0, 1, 2]))]
        for number in range(20):
            client.socket.sendmsg([wire.frame(b"s3.ENC X\n", number)], rights)
            process.expect_command(b"X", tag=wire.FIRST_XCP_ID | number)
        after = proc.descriptors(tessd.pid)
        assert after == before, f"before {before}, after {after}"


FRAME_TIMER = 0.1  # seconds that a header has to become whole


def test_a_header_in_two_pieces_is_put_together(process):
    """The second piece follows at once."""
    with contextlib.ExitStack() as stack:
        client = stack.enter_context(XcpClient())
        connection = wire.FIRST_XCP_ID
        for cut in range(1, wire.HEADER):
            whole = wire.frame(b"s3.ENC %d\n" % cut, cut)
            watch = Stopwatch()
            client.send(whole[:cut])
            with contextlib.suppress(BrokenPipeError):
                client.send(whole[cut:])
            if watch.seconds() < FRAME_TIMER / 2:
                process.expect_command(b"%d" % cut, tag=connection | cut)
            else:  # this process had to wait for a processor in between
                client.close()
                client = stack.enter_context(XcpClient())
                connection += wire.ID_STEP
                process.expect_daemon_done()
                process.waiting()


@pytest.mark.parametrize("length", [1, 8, 15])
def test_half_a_header_closes_its_connection_after_100_ms_and_no_other(process, tessd, length):
    with IpcClient() as ipc, XcpClient() as other:
        ipc.expect_nothing_more()
        other.expect_nothing_more()
        before = len(tessd.entries())
        with XcpClient() as client:
            client.expect_nothing_more()
            watch = Stopwatch()
            client.send(wire.frame(b"s3.ENC X\n")[:length])
            expect_prompt(ask(tessd, [ipc, other], 0.3, pause=0.005))
            client.expect_close()
            tessd.wait_log(*closed(1))
        assert watch.seconds() >= FRAME_TIMER, f"closed after {watch.seconds():.3f} s"
        other.expect_nothing_more()
        assert tessd.entries()[before:] == [opened(2), closed(1)]
    assert process.waiting() == []


def test_a_header_and_a_short_payload_in_two_writes_close_the_connection(process, tessd):
    """The header is taken alone, and the payload, when it comes, for the beginning of the next header."""
    with IpcClient() as ipc, XcpClient() as client:
        client.expect_nothing_more()
        whole = wire.frame(b"s3.ENC X\n")
        client.send(whole[: wire.HEADER])
        for _ in range(2):  # the daemon has seen the header
            ipc.expect_nothing_more()
        watch = Stopwatch()
        client.send(whole[wire.HEADER :])
        client.expect_close()
        assert watch.seconds() >= FRAME_TIMER, f"closed after {watch.seconds():.3f} s"
        tessd.wait_log(*closed(0))
    assert process.waiting() == []


def test_a_header_that_becomes_whole_too_late_closes_its_connection(process, tessd):
    """The daemon is held while the header becomes whole, so that it finds the timer run out with all 16 bytes there."""
    whole = wire.frame(b"s3.ENC X\n")
    with IpcClient() as ipc:
        for _ in range(5):
            with XcpClient() as client:
                client.expect_nothing_more()
                watch = Stopwatch()
                client.send(whole[:8])
                for _ in range(2):  # the daemon has seen the first half
                    ipc.expect_nothing_more()
                tessd.hold()
                in_time = watch.seconds() < FRAME_TIMER
                with contextlib.suppress(BrokenPipeError):
                    client.send(whole[8:])
                time.sleep(2 * FRAME_TIMER)
                tessd.release()
                client.expect_close()
            assert process.waiting() == []
            if in_time:
                return
    pytest.skip("this machine is too busy to be in time")


def test_half_a_header_ended_by_closing_removes_the_connection(tessd):
    with XcpClient() as client:
        client.expect_nothing_more()
        client.send(wire.frame(b"*\n")[:8])
    tessd.wait_log(*closed(0))
    with XcpClient() as other:
        other.expect_nothing_more()


def test_connections_are_announced_one_step_behind_their_number(tessd):
    with XcpClient() as first:
        first.expect_nothing_more()
        assert tessd.entries()[-1] == (36106, "Opened IPC socket connection with ID = 0x560000")
        with XcpClient() as second:
            second.expect_nothing_more()
            assert tessd.entries()[-1] == (36106, "Opened IPC socket connection with ID = 0x570000")
        tessd.wait_log(*closed(1))
    tessd.wait_log(*closed(0))


def test_an_eleventh_client_is_closed_at_once_and_admitted_after_one_has_left(tessd, process):
    started = len(tessd.entries())
    with contextlib.ExitStack() as stack:
        clients = [stack.enter_context(XcpClient()) for _ in range(10)]
        for client in clients:
            client.expect_nothing_more()
        assert tessd.entries()[started:] == [opened(number) for number in range(1, 11)]
        with XcpClient() as eleventh:
            eleventh.expect_close()
        tessd.wait_log(*closed(10))
        for client in clients:
            client.expect_nothing_more()
        clients.pop(3).close()
        tessd.wait_log(*closed(9))
        with XcpClient() as newcomer:
            newcomer.send_frame(b"s3.ENC X\n", tag=4)
            process.expect_command(b"X", tag=wire.FIRST_XCP_ID + 11 * wire.ID_STEP | 4)
            assert tessd.entries()[started + 10 :] == [closed(10), closed(9), opened(12)]
        for client in clients:
            client.expect_nothing_more()


def test_an_answer_that_cannot_be_written_is_logged(process, tessd):
    """A client that does not read: its socket fills, further answers are lost, others are served."""
    with XcpClient() as deaf, XcpClient() as other:
        deaf.expect_nothing_more()
        text = b"x" * 8000
        for _ in range(2000):
            process.reply(wire.FIRST_XCP_ID, text)
            if WRITE_FAILED in tessd.entries():
                break
        tessd.wait_log(*WRITE_FAILED)
        other.expect_nothing_more()
        for _ in range(3):
            deaf.expect_frame(text)
