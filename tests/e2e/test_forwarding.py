"""Where commands go: addresses, port masks, several processes, and what the message looks like."""

from __future__ import annotations

import pytest

from harness import settings, wire
from harness.clients import IpcClient, XcpClient
from harness.queue_process import QueueProcess
from harness.waiting import Stopwatch

# Line, which of ENC, MOT and GPSD get it ("" is nobody: the client reads "?"), the command they get.
ADDRESSES = [
    # No address: everybody but GPSD gets the whole text.
    ("SETX 5", "ENC MOT", "SETX 5"),
    ("MOVE 1.5", "ENC MOT", "MOVE 1.5"),
    ("1.5", "ENC MOT", "1.5"),
    ("a.b.c", "ENC MOT", "a.b.c"),
    ("s3.ENC", "ENC MOT", "s3.ENC"),
    ("s3.ENC,X", "ENC MOT", "s3.ENC,X"),
    ("s3 .ENC X", "ENC MOT", "s3 .ENC X"),
    ("s3.ENC.A X", "ENC MOT", "s3.ENC.A X"),
    # This unit by its own name.
    ("s3.ENC SETX 5", "ENC", "SETX 5"),
    ("S3.enc SETX 5", "ENC", "SETX 5"),
    ("s3.MOT SETX 5", "MOT", "SETX 5"),
    ("s3.gpsd SETX 5", "GPSD", "SETX 5"),
    ("s3.ENC   SETX 5", "ENC", "SETX 5"),
    ("s3.ENC \t \v SETX  5", "ENC", "SETX  5"),
    ("s3.ENC\tX", "ENC", "X"),
    ("s3.ENC 1.5", "ENC", "1.5"),
    ("s3.* SETX 5", "ENC MOT", "SETX 5"),
    # A '*' with one blank before it makes a broadcast of the line; with more blanks it does not.
    ("s3.ENC *", "ENC MOT", "s3.ENC *"),
    ("s3.ENC A*", "ENC MOT", "s3.ENC A*"),
    ("s3.ENC * A", "ENC MOT", "s3.ENC * A"),
    ("s3.ENC A *", "ENC", "A *"),
    ("s3.ENC  *", "ENC", "*"),
    ("A * B", "ENC MOT", "A * B"),
    ("A B * C", "ENC MOT", "A B * C"),
    ("A*", "ENC MOT", "A*"),
    # Any unit.
    ("*.ENC X", "ENC", "X"),
    ("*.enc X", "ENC", "X"),
    ("*.ENC", "ENC", ""),
    ("*.* X", "ENC MOT", "X"),
    ("*.GPSD X", "GPSD", "X"),
    ("* X", "ENC MOT", "X"),
    ("*  \t X", "ENC MOT", "X"),
    ("* *", "ENC MOT", "*"),
    # Nobody has this address.
    (".ENC X", "", None),
    ("*.ENC.A X", "", None),
    ("A. B", "", None),
    (". X", "", None),
    ("t1.ENC X", "", None),
    ("s3.NONE X", "", None),
    ("s3.EN X", "", None),
    ("s3.ENCO X", "", None),
    ("s33.ENC X", "", None),
    ("*X.ENC Y", "", None),
    ("*X", "", None),
    ("**", "", None),
    # Rejected.
    ("*X Y", "", None),
    ("SET $5", "", None),
    ("$gprmc,1,A", "", None),
    ("$GPGGA,1", "", None),
    ("$", "", None),
    ("A$GPRMC,1", "", None),
    # A '$' behind an address is part of the command.
    ("s3.ENC SET $5", "ENC", "SET $5"),
    ("*.ENC $5", "ENC", "$5"),
    ("* $5", "ENC MOT", "$5"),
    ("s3.E$C SET", "", None),
    # Position sentences lose their first characters (a deliberate oddity).
    ("$GPRMC,1,A", "GPSD", "MC,1,A"),
    ("$GPRMC,123519,A,4807.038,N", "GPSD", "MC,123519,A,4807.038,N"),
    ("$GPRMC", "GPSD", "MC"),
    ("$GPRMCX,1", "GPSD", "CX,1"),
    ("$GPRMC A,1", "GPSD", " A,1"),
]


@pytest.mark.parametrize("client_type", [IpcClient, XcpClient])
def test_addresses_decide_who_gets_what(tessd, client_type):
    with QueueProcess(2001) as enc, QueueProcess(2002) as mot, QueueProcess(2003) as gpsd, client_type() as client:
        processes = {"ENC": enc, "MOT": mot, "GPSD": gpsd}
        for name, process in processes.items():
            process.register(name.encode())
        for line, hearers, command in ADDRESSES:
            data = line.encode() + b"\n"
            client.send(data if client_type is IpcClient else wire.frame(data))
            if not hearers:
                expect_answer(client, b"?\r\n", line)
            client.expect_nothing_more()
            expected = {name: [command.encode() + b"\n\0"] for name in hearers.split()}
            actual = {name: [message.text for message in process.waiting()] for name, process in processes.items()}
            actual = {name: texts for name, texts in actual.items() if texts}
            assert actual == expected, f"{line!r}: expected {expected}, got {actual}"


def expect_answer(client, answer: bytes, line: str) -> None:
    try:
        if isinstance(client, IpcClient):
            client.expect(answer)
        else:
            client.expect_frame(answer)
    except AssertionError as error:
        raise AssertionError(f"{line!r}: {error}") from None


def test_a_command_travels_as_a_text_message(tessd):
    with QueueProcess(2001) as process, IpcClient() as client:
        process.register(b"ENC")
        client.send(b"s3.ENC SETX 5\n")
        got = process.receive()
        assert got.origin == f"{settings.QUEUE_DIR}/{wire.DAEMON}"
        assert (got.kind, got.tag, got.text) == (101, wire.FIRST_IPC_ID, b"SETX 5\n\0")
        assert got.size == len("SETX 5") + 18


def test_the_tag_names_the_connection_and_the_clients_own_part(tessd):
    with QueueProcess(2001) as process:
        process.register(b"ENC")
        with IpcClient() as first, IpcClient() as second, XcpClient() as framed:
            first.send(b"s3.ENC A\n")
            process.expect_command(b"A", tag=0xBB010000)
            second.send(b"s3.ENC B\n")
            process.expect_command(b"B", tag=0xBB020000)
            for own, tag in (
                (0x0000, 0x00570000),
                (0x0007, 0x00570007),
                (0xFFFF, 0x0057FFFF),
                (0x00050007, 0x00570007),  # the upper half is or-ed too: 0x57 has these bits already
                (0x00080001, 0x005F0001),  # and here it has not
            ):
                framed.send_frame(b"s3.ENC C\n", tag=own)
                process.expect_command(b"C", tag=tag)
            first.send(b"s3.ENC A\n")
            process.expect_command(b"A", tag=0xBB010000)
        with IpcClient() as third:
            third.send(b"s3.ENC D\n")
            process.expect_command(b"D", tag=0xBB030000)


def test_only_processes_that_want_the_port_get_its_commands(tessd):
    masks = {
        2001: wire.IPC,
        2002: wire.XCP,
        2003: wire.IPC | wire.XCP,
        2004: wire.COM2 | wire.TELNET,
        2005: 0xFFFFFFFF,
        2006: 16,
        2007: 0xFFFFFFF0,
    }
    processes = {address: QueueProcess(address) for address in masks}
    for address, mask in masks.items():
        processes[address].register(b"P%d" % address, mask)
    with IpcClient() as ipc, XcpClient() as xcp:
        for client, bit in ((ipc, wire.IPC), (xcp, wire.XCP)):
            for sent, addressed in ((b"X", None), *((b"s3.P%d X" % address, address) for address in masks)):
                expected = {a for a, mask in masks.items() if mask & bit and addressed in (None, a)}
                client.send(sent + b"\n" if client is ipc else wire.frame(sent + b"\n"))
                if not expected:
                    expect_answer(client, b"?\r\n", sent.decode())
                client.expect_nothing_more()
                actual = {address for address, process in processes.items() if process.waiting()}
                assert actual == expected, f"port {bit}, {sent!r}: expected {expected}, got {actual}"


def test_the_wildcard_passes_over_gpsd_in_any_spelling(tessd):
    with QueueProcess(2001) as process, IpcClient() as client:
        for name in (b"GPSD", b"gpsd", b"GpsD"):
            process.register(name)
        client.ask(b"X", b"?\r\n")
        client.ask(b"* X", b"?\r\n")
        client.ask(b"s3.* X", b"?\r\n")
        process.register(b"GPSD2")
        client.send(b"X\n")
        process.expect_command(b"X")
        client.send(b"s3.gPSd Y\n")
        for _ in range(3):
            process.expect_command(b"Y")
        client.expect_nothing_more()
        assert process.waiting() == []


def test_commands_of_one_client_arrive_in_order(tessd):
    with QueueProcess(2001) as process, IpcClient() as client:
        process.register(b"ENC")
        for first in range(0, 60, 6):
            client.send(b"".join(b"s3.ENC %d|s3.ENC %d\n" % (n, n + 1) for n in range(first, first + 6, 2)))
            for number in range(first, first + 6):
                process.expect_command(b"%d" % number)


def test_every_matching_process_gets_its_copy_and_the_last_send_decides(tessd):
    """Only the last of several sends says whether the client reads "?"."""
    with QueueProcess(2001) as alive, QueueProcess(2002) as also_alive, IpcClient() as client:
        dead = QueueProcess(2003)
        alive.register(b"A")
        dead.register(b"B")
        dead.die()
        client.ask(b"X", b"?\r\n")
        alive.expect_command(b"X")
        also_alive.register(b"C")
        client.send(b"Y\n")
        client.expect_nothing_more()
        alive.expect_command(b"Y")
        also_alive.expect_command(b"Y")
        # B moves to an address that lives; A's owner goes: the first send fails now, the last succeeds.
        also_alive.register(b"B")
        alive.close()
        client.send(b"Z\n")
        client.expect_nothing_more()
        also_alive.expect_command(b"Z")
        also_alive.expect_command(b"Z")


def test_a_process_that_ended_is_answered_for_at_once(tessd):
    for end in (QueueProcess.die, QueueProcess.close):
        process = QueueProcess(2001)
        try:
            with IpcClient() as client:
                process.register(b"ENC")
                client.send(b"s3.ENC X\n")
                process.expect_command(b"X")
                end(process)
                watch = Stopwatch()
                for _ in range(20):
                    client.ask(b"s3.ENC X", b"?\r\n")
                # A wait for each would take twice as long.
                assert watch.seconds() < 20 * 0.25 / 2 * settings.SLOW, f"20 answers took {watch.seconds():.2f} s"
        finally:
            process.close()


def test_a_process_that_came_back_at_its_address_is_reached_again(tessd):
    first = QueueProcess(2001)
    with IpcClient() as client:
        first.register(b"ENC")
        first.close()
        client.ask(b"s3.ENC X", b"?\r\n")
        with QueueProcess(2001) as second:
            client.send(b"s3.ENC Y\n")
            second.expect_command(b"Y")


def test_an_address_longer_than_its_field_is_cut_but_counted_whole(tessd):
    with QueueProcess(2001) as process, IpcClient() as client:
        process.register(b"E" * 255)
        for length in (255, 256, 300, 900):
            client.send(b"s3." + b"E" * length + b" X\n")
            process.expect_command(b"X")
        client.ask(b"s3." + b"E" * 254 + b" X", b"?\r\n")
        client.ask(b"s" * 300 + b".ENC X", b"?\r\n")
        client.ask(b"*" * 300 + b" X", b"?\r\n")


def test_an_unregistered_process_gets_nothing_more(tessd):
    with QueueProcess(2001) as process, IpcClient() as client:
        process.register(b"ENC")
        client.send(b"s3.ENC X\n")
        process.expect_command(b"X")
        process.unregister()
        client.ask(b"s3.ENC X", b"?\r\n")
        client.ask(b"X", b"?\r\n")
        assert process.waiting() == []
