"""The daemon tells its state to whoever asks, by message."""

from __future__ import annotations

import os

import pytest

from harness import items, settings, wire
from harness.accounts import ALICE
from harness.clients import IpcClient, XcpClient
from harness.com2 import SerialLine
from harness.queue_process import QueueProcess, unbound_sender
from harness.telnet import TelnetClient
from harness.waiting import wait_until

COUNTS = ["lines", "forwarded", "answered", "refused", "dropped", "unknown", "logins", "login_failures", "queue_waits"]


@pytest.fixture
def asker(tessd):
    with QueueProcess(2001) as opened:
        yield opened


def changes(before: dict[str, int], after: dict[str, int]) -> dict[str, int]:
    return {key: after[key] - before[key] for key in after if after[key] != before[key]}


def test_a_new_daemon_has_done_nothing(asker, tessd):
    answer = items.status(asker)
    (daemon,) = items.of(answer, "daemon")
    assert list(daemon.values) == ["version", "uptime", "pid", "delays", "watchers"], daemon
    assert daemon["pid"] == tessd.pid or settings.emulated()
    assert (daemon["delays"], daemon["watchers"]) == (0, 0)
    assert 0 <= daemon["uptime"] < 60 * settings.SLOW
    (count,) = items.of(answer, "count")
    assert dict(count.values) == dict.fromkeys(COUNTS, 0) and list(count.values) == COUNTS, count
    assert [dict(port.values) for port in items.of(answer, "port")] == [
        {"name": b"xcp", "open": 1, "connections": 0, "limit": 10},
        {"name": b"ipc", "open": 1, "connections": 0, "limit": 10},
    ]
    assert [item.word for item in answer] == ["daemon", "count", "port", "port"]


def test_commands_and_answers_are_counted(asker):
    with QueueProcess(1500) as process, IpcClient() as client:
        process.register(b"ENC")
        before = items.counts(asker)
        for number in range(3):
            client.send(b"s3.ENC X%d\n" % number)
            process.reply(process.expect_command(b"X%d" % number).tag, b"0\r\n\r\n")
            client.expect(b"0\r\n\r\n")
        client.ask(b"s3.NONE X|s3.ENC$ Y", b"?\r\n?\r\n")
        client.ask(b"DELAY nonsense|X", b"Error Setting Command: Invalid Arguments.\r\n\r\n")
        client.ask(b"RESET A B", b"Error Processing Reset Command.\r\n\r\n")
        process.reply(0xBBFF0000, b"for nobody")
        process.send(wire.record(4711))
        process.expect_daemon_done()
        after = items.status(asker)
    assert changes(before, dict(items.of(after, "count")[0].values)) == {
        "lines": 6, "forwarded": 3, "answered": 3, "refused": 4, "dropped": 1, "unknown": 1,
    }  # fmt: skip
    (listed,) = items.of(after, "process")
    expected = {"name": b"ENC", "address": 1500, "ports": 15, "sent": 3, "answered": 4, "full": 0}
    assert dict(listed.values) == expected, "an answer for nobody is one of the process all the same"


def test_each_connection_is_described(asker):
    with IpcClient() as first:
        first.expect_nothing_more()
        with XcpClient() as second:
            second.expect_nothing_more()
            told = items.of(items.status(asker), "connection")
    peer = f"pid {os.getpid()} {open('/proc/self/comm', encoding='utf-8').read().strip()} uid {os.getuid()}".encode()
    assert [(conn["port"], conn["id"], conn["peer"], conn["user"], conn["waits"]) for conn in told] == [
        (b"ipc", f"0x{wire.FIRST_IPC_ID:08x}", peer, b"", b""),
        (b"xcp", f"0x{wire.FIRST_XCP_ID:08x}", peer, b"", b""),
    ]
    assert all(0 <= conn["idle"] <= conn["connected"] < 60 * settings.SLOW for conn in told), told


def test_a_telnet_client_is_described_from_its_login_on(socket_tessd):
    def clients() -> list[items.Item]:
        return items.of(items.status(asker), "connection")

    with QueueProcess(2001) as asker, TelnetClient() as telnet:
        telnet.give_name()
        (told,) = clients()
        host, port = telnet.socket.getsockname()
        assert told["peer"] == f"{host}:{port}".encode()
        assert (told["port"], told["user"], told["waits"]) == (b"telnet", b"", b"password")
        telnet.send(ALICE.password + b"\r\n")
        telnet.expect_connected(ALICE.name)
        (told,) = clients()
        assert (told["user"], told["waits"]) == (b"alice", b"")
        counts = items.counts(asker)
        assert (counts["logins"], counts["login_failures"], counts["lines"]) == (1, 0, 0), "a password is no line"


def test_a_serial_line_and_a_port_that_is_closed_are_told(launch):
    with SerialLine():
        launch("--noxcp", "--noipcsocket").wait_running()
        with QueueProcess(2001) as asker:
            told = items.status(asker)
            (conn,) = items.of(told, "connection")
            assert (conn["port"], conn["peer"]) == (b"com2", settings.SERIAL_LINE.encode())
            assert [(port["name"], port["open"]) for port in items.of(told, "port")] == [(b"com2", 1), (b"telnet", 1)]


def test_who_waits_for_a_full_queue_is_told(asker):
    with QueueProcess(1500) as process, QueueProcess(1501) as filler, IpcClient() as client:
        process.register(b"ENC")
        filler.fill(1500)
        before = items.counts(asker)["queue_waits"]
        client.send(b"s3.ENC X\n")

        def waiting() -> bool:
            told = items.status(asker)
            conns, processes = items.of(told, "connection"), items.of(told, "process")
            return [c["waits"] for c in conns] == [b"queue 1500"] and [p["full"] for p in processes] == [1]

        # It is given up after 250 ms; a stuck queue stays full all the same.
        wait_until(lambda: items.of(items.status(asker), "process")[0]["full"] == 1 or waiting(), "the queue is full", 10)
        client.expect(b"?\r\n")
        told = items.status(asker)
        assert items.of(told, "process")[0]["full"] == 1
        assert items.of(told, "count")[0]["queue_waits"] == before + 1


def test_pending_delays_are_counted(asker):
    with IpcClient() as client:
        client.ask(b"DELAY 1:0:0.0|s3.ENC X", b"OK\r\n\r\n")
        client.ask(b"DELAY 1:0:0.0|s3.ENC X", b"OK\r\n\r\n")
        wait_until(lambda: items.of(items.status(asker), "daemon")[0]["delays"] == 2, "two delays are pending", 5)


def test_names_cannot_forge_a_line(asker):
    name = b'E"N\\C" address=1\ncount lines=0\x1b[2J\xff'
    with QueueProcess(1500) as process:
        process.register(name)
        (told,) = items.of(items.status(asker), "process")
        assert (told["name"], told["address"]) == (name, 1500)


def test_everything_at_its_most_arrives_in_several_records(start_socket_tessd):
    """32 processes with the longest names, the connections of all ports."""
    start_socket_tessd()
    with QueueProcess(2001) as asker, QueueProcess(1500) as process:
        for number in range(32):
            name = b"%02d" % number + b"n" * (wire.TEXT - 4 - 3)
            process.register(name)
        clients = [IpcClient() for _ in range(10)] + [XcpClient() for _ in range(10)]
        for client in clients:
            client.expect_nothing_more()
        clients += [TelnetClient() for _ in range(10)]
        for client in clients[20:]:
            client.give_name()
        records = items.status_records(asker)
        assert len(records) > 8, f"{len(records)} records"
        told = items.status(asker)
        for client in clients:
            client.close()
    processes = items.of(told, "process")
    assert [p["name"] for p in processes] == [b"%02d" % number + b"n" * 2598 + b"..." for number in range(32)]
    assert [p["connections"] for p in items.of(told, "port")] == [10, 10, 10]
    assert len(items.of(told, "connection")) == 30


def test_an_asker_that_does_not_read_gets_the_whole_answer_later(asker):
    """Its queue holds fewer records than it has asked for."""
    for number in range(20):
        asker.send(wire.record(wire.STATUS, tag=number))
    asker.wait_taken()
    with IpcClient() as client:
        client.expect_nothing_more()  # nobody waits for it
    tags = [asker.receive().tag for _ in range(20)]
    assert tags == list(range(20))


def test_a_sender_without_an_address_is_not_answered(asker):
    with unbound_sender() as anonymous:
        anonymous.send(wire.record(wire.STATUS))
        anonymous.send(wire.record(wire.WATCH, b"\1"))
    asker.expect_daemon_done()
    assert asker.waiting() == []
    assert items.of(items.status(asker), "daemon")[0]["watchers"] == 0
