"""The plain-text socket: how lines are cut, and who gets in."""

from __future__ import annotations

import contextlib
import resource
import socket

import pytest

from harness import proc, wire
from harness.clients import IpcClient, XcpClient
from harness.queue_process import QueueProcess
from harness.waiting import wait_until

DISCARDING = (250003, "Full cmd buffer (>1k) without a newline received. Discarding")
BUFFER = wire.FRAME_BUFFER


@pytest.fixture
def process(tessd):
    with QueueProcess(2001) as opened:
        opened.register(b"ENC")
        yield opened


# Sent as one piece, the commands that follow from it.
CUTS = [
    (b"A\nB\n", [b"A", b"B"]),
    (b"A\r\nB\r\n", [b"A", b"B"]),
    (b"A\rB\r", [b"A", b"B"]),
    (b"  A\r\n\r\nB", [b"A", b"B"]),
    (b"A", [b"A"]),
    (b"A  \r\n", [b"A"]),
    (b"\n\n\r\n\n", []),
    (b" \t\v\f\r\n", []),
    (b"\0\0\0", []),
    (b"\0 \0A\n", [b"A"]),
    (b"A\0B\n", [b"A"]),
    (b"A\n\0B\n", [b"A", b"B"]),
    (b"A\0", [b"A"]),
    (b"A\0\nB\0\n", [b"A", b"B"]),
    (b"A\n B\n\t C\n", [b"A", b"B", b"C"]),
    (b"A B\tC\n", [b"A B\tC"]),
    (b"\x80\xff\xfe\n", [b"\x80\xff\xfe"]),
    (b"\xa0A\n", [b"\xa0A"]),
    (b"A\x01\x7f\n", [b"A\x01\x7f"]),
    (b"%s%n%d\n", [b"%s%n%d"]),
]


def test_lines_are_cut_at_their_ends(process):
    with IpcClient() as client:
        for sent, commands in CUTS:
            client.send(sent)
            # The marker must not share a read with what is tried, so the commands come first.
            for command in commands:
                try:
                    process.expect_command(command)
                except AssertionError as error:
                    raise AssertionError(f"{sent!r}: {error}") from None
            if not commands:
                client.send(b"\n")
            client.expect_nothing_more()
            assert process.waiting() == [], repr(sent)


def test_a_piece_without_a_line_end_is_a_command(process):
    with IpcClient() as client:
        client.send(b"s3.ENC SET")
        process.expect_command(b"SET")
        client.send(b"X 5\n")
        process.expect_command(b"X 5")


def test_many_lines_in_one_piece_are_all_served(process):
    count = 200
    with IpcClient() as client:
        client.send(b"%\n" * count)
        for _ in range(count):
            process.expect_command(b"%")
        client.expect_nothing_more()


def test_a_full_buffer_that_holds_a_line_end_is_thrown_away(process, tessd):
    """The test is inverted against its message on purpose."""
    with IpcClient() as client:
        for count, text in enumerate(
            (
                b"A\n" + b"x" * (BUFFER - 2),
                b"x" * (BUFFER - 1) + b"\n",
                b"\n" * BUFFER,
                b"A\n" * (BUFFER // 2),
                b"x" * 500 + b"\n" + b"\0" * (BUFFER - 501),
            ),
            start=1,
        ):
            assert len(text) == BUFFER
            client.send(text)
            tessd.wait_log(*DISCARDING, count=count)
            client.expect_nothing_more()
            assert process.waiting() == []


def test_what_follows_a_full_buffer_that_was_thrown_away_is_served(process, tessd):
    with IpcClient() as client:
        client.send(b"x" * (BUFFER - 1) + b"\nNEXT\n")
        process.expect_command(b"NEXT")
        assert tessd.entries().count(DISCARDING) == 1


def test_a_full_buffer_without_a_line_end_is_one_command(process, tessd):
    with IpcClient() as client:
        client.send(b"x" * BUFFER)
        process.expect_command(b"x" * (BUFFER - 1))  # a token is cut to 1023 characters
        client.send(b"y" * (BUFFER - 1))
        process.expect_command(b"y" * (BUFFER - 1))
        client.send(b"\r" * 4 + b"z" * (BUFFER - 4))
        process.expect_command(b"z" * (BUFFER - 4))
        client.expect_nothing_more()
    assert DISCARDING not in tessd.entries()


def test_the_line_end_of_a_full_buffer_is_looked_for_up_to_the_first_nul(process, tessd):
    with IpcClient() as client:
        client.send(b"A\0\nB\n" + b"x" * (BUFFER - 5))
        process.expect_command(b"A")
        process.expect_command(b"B")
        process.expect_command(b"x" * (BUFFER - 5))
    assert DISCARDING not in tessd.entries()


def test_a_carriage_return_is_no_line_end_for_the_full_buffer(process, tessd):
    with IpcClient() as client:
        client.send(b"A\r" + b"x" * (BUFFER - 2))
        process.expect_command(b"A")
        process.expect_command(b"x" * (BUFFER - 2))
    assert DISCARDING not in tessd.entries()


def test_more_than_a_buffer_is_cut_where_the_buffer_ends(process):
    with IpcClient() as client:
        client.send(b"x" * BUFFER + b"y" * 476)
        process.expect_command(b"x" * (BUFFER - 1))
        process.expect_command(b"y" * 476)


def test_input_byte_by_byte_is_served_as_it_comes(process):
    """Every piece that a read finds is a command of its own; nothing is lost or doubled."""
    text = b"abcdefghijklmnopqrstuvwxyz" * 4
    with IpcClient() as client:
        received = b""
        for start in range(0, len(text), 8):
            for number in range(start, start + 8):
                client.send(text[number : number + 1])
            while len(received) < start + 8:
                received += process.receive().line[:-1]
        assert received == text


def test_a_client_that_only_connects_does_no_harm(tessd):
    with IpcClient(), IpcClient() as client:
        client.expect_nothing_more()


def test_a_client_that_closes_its_writing_side_is_closed_after_its_commands(process):
    with IpcClient() as client:
        client.send(b"s3.ENC LAST")
        client.socket.shutdown(socket.SHUT_WR)
        process.expect_command(b"LAST")
        client.expect_close()


def test_a_closed_connection_is_removed(tessd):
    before = proc.descriptors(tessd.pid)
    for _ in range(30):
        with IpcClient() as client:
            client.expect_nothing_more()
    wait_until(lambda: proc.descriptors(tessd.pid) == before, f"the descriptors are {before} again")


def test_an_eleventh_client_is_closed_at_once_and_admitted_after_one_has_left(process):
    with contextlib.ExitStack() as stack:
        clients = [stack.enter_context(IpcClient()) for _ in range(10)]
        for client in clients:
            client.expect_nothing_more()
        for _ in range(2):
            with IpcClient() as eleventh:
                eleventh.expect_close()
        for client in clients:
            client.expect_nothing_more()
        clients[4].close()

        def admitted() -> IpcClient | None:
            newcomer = IpcClient()
            try:
                newcomer.expect_nothing_more()
            except (AssertionError, BrokenPipeError):
                newcomer.close()  # the one that left may not have been noticed yet
                return None
            return newcomer

        newcomer = stack.enter_context(wait_until(admitted, "a client is admitted"))
        # Refused clients have used connection numbers too.
        newcomer.send(b"s3.ENC X\n")
        tag = process.expect_command(b"X").tag
        assert tag >= wire.FIRST_IPC_ID + 12 * wire.ID_STEP, f"{tag:#x}"
        process.reply(tag, b"welcome")
        newcomer.expect(b"welcome")
        for client in clients[:4] + clients[5:]:
            client.expect_nothing_more()


def test_a_connection_that_closed_leaves_no_gap_in_the_numbers(process):
    for number in range(1, 5):
        with IpcClient() as client:
            client.send(b"s3.ENC X\n")
            process.expect_command(b"X", tag=0xBB000000 + number * wire.ID_STEP)


FD_SETSIZE = 1024


def test_a_connection_whose_descriptor_fits_no_set_is_closed_and_others_are_served(start_tessd):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (max(soft, FD_SETSIZE + 100), hard))
    plain = start_tessd()
    needed = max(proc.descriptors(plain.pid)) + 1
    plain.stop()
    tessd = start_tessd(occupied=range(needed + 1, FD_SETSIZE))  # room for one connection below the limit
    with IpcClient() as served:
        served.expect_nothing_more()
        for opened in (IpcClient, XcpClient, IpcClient):
            with opened() as refused:
                refused.expect_close()
            served.expect_nothing_more()
    tessd.wait_log(6001, "XCP socket connection closed.  Active connections = 0")
    assert max(proc.descriptors(tessd.pid)) < FD_SETSIZE

    def admitted() -> bool:
        with IpcClient() as client:
            try:
                client.expect_nothing_more()
            except (AssertionError, BrokenPipeError):
                return False  # the one that left may not have been noticed yet
        return True

    wait_until(admitted, "a client is admitted")
