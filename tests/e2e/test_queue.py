"""The queue from outside: which datagrams are records, and who sent them."""

from __future__ import annotations

import array
import fcntl
import os
import socket
import struct

import pytest

from harness import proc, settings, wire
from harness.clients import IpcClient
from harness.daemon import ERROR_RUNTIME, LOCAL_PORTS
from harness.queue_process import QueueProcess, queue_path, unbound_sender

DROPPED_ID = 250002


@pytest.fixture
def process(tessd):
    with QueueProcess(2001) as opened:
        yield opened


def test_datagrams_of_a_wrong_size_are_dropped_and_logged_and_the_queue_goes_on(process, tessd):
    whole = wire.registration(b"ENC", wire.IPC)
    sizes = (0, 1, 15, wire.RECORD + 1, 65536)
    for count, size in enumerate(sizes, start=1):
        process.send(whole.ljust(size, b"\0")[:size])
        process.expect_daemon_done()
        dropped = [text for identifier, text in tessd.entries() if identifier == DROPPED_ID]
        assert len(dropped) == count, f"a datagram of {size} bytes: {tessd.log_text()}"
        if size <= wire.RECORD:
            assert str(size) in dropped[-1], dropped[-1]
    with IpcClient() as client:
        client.ask(b"s3.ENC X", b"?\r\n")  # none of them registered anything


def test_records_of_the_smallest_and_the_largest_size_are_served(process):
    process.send(wire.record(wire.UNREGISTER))
    assert process.receive().line == b"Registered process list is empty"
    process.send(wire.registration(b"ENC", wire.IPC).ljust(wire.RECORD, b"\0"))
    assert process.receive().tag == 0
    with IpcClient() as client:
        client.send(b"s3.ENC X\n")
        process.expect_command(b"X")


def test_the_sender_is_who_the_kernel_says_not_who_the_record_says(process):
    with QueueProcess(2002) as victim, IpcClient() as client:
        process.send(wire.record(wire.REGISTER, wire.word(wire.IPC) + b"ENC\0", sender=2002))
        assert process.receive().tag == 0
        client.send(b"s3.ENC X\n")
        process.expect_command(b"X")
        process.send(wire.record(wire.UNREGISTER, sender=2002))
        assert process.receive().tag == 0
        assert victim.waiting() == []


def test_a_sender_without_an_address_gets_no_answer_and_no_commands(process):
    with unbound_sender() as anonymous, IpcClient() as client:
        anonymous.send(wire.record(wire.REGISTER, wire.word(wire.IPC) + b"ENC\0", sender=2001))
        process.expect_daemon_done()
        client.ask(b"s3.ENC X", b"?\r\n")
        process.register(b"ENC")  # the name is taken over by one that can be reached
        client.send(b"s3.ENC Y\n")
        process.expect_command(b"Y")
        assert process.waiting() == []


def test_a_sender_outside_the_queue_directory_has_no_address(process):
    os.mkdir("/run/elsewhere")
    for path in (
        "/run/elsewhere/2001",
        queue_path("02001"),
        queue_path("name"),
        queue_path("+2001"),
        queue_path("0"),
        queue_path("2147483648"),
    ):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as outsider, IpcClient() as client:
            outsider.bind(path)
            outsider.settimeout(5)
            outsider.sendto(wire.registration(b"OUT", wire.IPC), queue_path(wire.DAEMON))
            process.expect_daemon_done()
            client.ask(b"s3.OUT X", b"?\r\n")
            outsider.setblocking(False)
            with pytest.raises(BlockingIOError):
                outsider.recv(100)
        assert process.waiting() == [], path


def test_a_sender_that_moved_its_directory_away_is_nobody_elses_address(process):
    """Its name leads to another's socket by now; where it leads is not asked."""
    with IpcClient() as client, socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as outsider:
        process.register(b"ENC")
        os.mkdir("/run/elsewhere")
        outsider.bind(f"/run/elsewhere/{process.address}")
        os.rename("/run/elsewhere", "/run/away")
        os.symlink(settings.QUEUE_DIR, "/run/elsewhere")
        outsider.sendto(wire.record(wire.UNREGISTER), queue_path(wire.DAEMON))
        process.expect_daemon_done()
        client.send(b"s3.ENC X\n")
        process.expect_command(b"X")


def test_a_relative_queue_directory_is_meant_from_where_the_daemon_started(launch):
    os.chdir("/run")
    launch(*LOCAL_PORTS, environment={"TESS_QUEUE_DIR": "own/queue"}).wait_running()
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as process:
        process.bind("/run/own/queue/2001")
        process.settimeout(5 * settings.SLOW)
        process.sendto(wire.registration(b"ENC", wire.IPC), f"/run/own/queue/{wire.DAEMON}")
        got = wire.Message.parse(*process.recvfrom(65536))
        assert (got.kind, got.tag, got.origin) == (wire.REPLY, 0, f"/run/own/queue/{wire.DAEMON}"), got


def test_the_highest_address_is_served(tessd):
    with QueueProcess(settings.HIGHEST_QUEUE_ADDRESS) as process, IpcClient() as client:
        process.register(b"ENC")
        client.send(b"s3.ENC X\n")
        process.expect_command(b"X")


def test_no_byte_of_an_earlier_message_is_seen_in_a_later_one(process):
    with IpcClient() as client:
        process.send(wire.record(wire.REGISTER, wire.word(wire.IPC) + b"SECRET".ljust(4000, b"s")))
        assert process.receive().tag == 0
        process.send(wire.record(wire.REGISTER, wire.word(wire.IPC) + b"E"))
        assert process.receive().tag == 0
        client.send(b"s3.E X\n")
        process.expect_command(b"X")


def test_descriptors_that_come_with_a_record_do_not_stay_open(process, tessd):
    process.expect_daemon_done()
    before = proc.descriptors(tessd.pid)
    rights = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", [0, 1, 2]))]
    for datagram in (wire.record(wire.REPLY, b"\0"), wire.record(0), b"short", bytes(wire.RECORD + 1)):
        for _ in range(20):
            process.socket.settimeout(5 * settings.SLOW)
            process.socket.sendmsg([datagram], rights, 0, queue_path(wire.DAEMON))
        process.expect_daemon_done()
    after = proc.descriptors(tessd.pid)
    assert after == before, f"before {before}, after {after}"


def test_descriptors_that_come_with_a_command_do_not_stay_open(tessd):
    with IpcClient() as client:
        client.expect_nothing_more()
        before = proc.descriptors(tessd.pid)
        rights = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", [0, 1, 2]))]
        for _ in range(20):
            client.socket.sendmsg([b"*\n"], rights)
            client.expect(b"0\r\n\r\n")
        after = proc.descriptors(tessd.pid)
        assert after == before, f"before {before}, after {after}"


def test_the_daemons_words_are_in_its_own_byte_order(process):
    """Guards the tests themselves: a record in the other order is not understood."""
    swapped = {"little": ">", "big": "<"}[settings.BYTEORDER]
    process.send(struct.pack(swapped + "IIII", wire.UNREGISTER, 0, 0, 0))
    process.expect_daemon_done()
    assert process.waiting() == []


def test_a_directory_that_another_process_keeps_locked_ends_the_start(launch):
    directory = os.open(settings.QUEUE_DIR, os.O_RDONLY | os.O_DIRECTORY)
    try:
        fcntl.flock(directory, fcntl.LOCK_EX)
        tessd = launch(*LOCAL_PORTS)
        tessd.expect_end(1)
    finally:
        os.close(directory)
    said = f"queue address 1001: {settings.QUEUE_DIR}: Resource temporarily unavailable: "
    said += "another process has kept the directory locked for 2 seconds"
    tessd.expect_entries([(250001, said), ERROR_RUNTIME])
