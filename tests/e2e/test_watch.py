"""What passes is told to processes that watch, in order; they never hold anything up."""

from __future__ import annotations

import shutil
import time

import pytest

from harness import items, settings, wire
from harness.accounts import ALICE
from harness.clients import IpcClient, XcpClient
from harness.measure import system_calls
from harness.queue_process import QueueProcess
from harness.telnet import FAREWELL, TelnetClient
from harness.waiting import wait_until

FIRST_IPC = f"0x{wire.FIRST_IPC_ID:08x}"


@pytest.fixture
def watcher(tessd):
    with items.Watcher(3001) as opened:
        yield opened


def told(events: list[items.Item]) -> list[tuple]:
    """Without times; a peer's process number is whatever it is."""
    return [(event.word, {key: value for key, value in event.values.items() if key not in ("time", "peer")}) for event in events]


def test_a_command_is_followed_from_its_line_to_its_answer(watcher):
    with QueueProcess(1500) as process:
        process.register(b"ENC", wire.IPC)
        with IpcClient() as client:
            client.send(b"s3.ENC SETX 5\n")
            process.reply(process.expect_command(b"SETX 5").tag, b"0\r\n\r\n")
            client.expect(b"0\r\n\r\n")
        events = watcher.events("disconnect")
        process.unregister()
        events += watcher.events("unregister")
    conn = {"connection": FIRST_IPC, "port": b"ipc"}
    assert told(events) == [
        ("register", {"name": b"ENC", "process": 1500, "ports": wire.IPC}),
        ("connect", conn),
        ("line", conn | {"text": b"s3.ENC SETX 5"}),
        ("forward", conn | {"process": 1500}),
        ("answer", conn | {"process": 1500, "text": b"0\r\n\r\n"}),
        ("disconnect", conn),
        ("unregister", {"name": b"ENC", "process": 1500}),
    ]
    times = [event["time"] for event in events]
    assert times == sorted(times) and abs(times[-1] - time.time()) < 60 * settings.SLOW, times


def test_refusals_and_answers_for_nobody_are_told(watcher):
    with QueueProcess(1500) as process, IpcClient() as client:
        client.ask(b"s3.NONE X | s3.NONE Y", b"?\r\n?\r\n")
        process.reply(wire.FIRST_IPC_ID + wire.ID_STEP, b"for nobody")
        events = watcher.events("drop")
    conn = {"connection": FIRST_IPC, "port": b"ipc"}
    assert told(events)[1:] == [
        ("line", conn | {"text": b"s3.NONE X | s3.NONE Y"}),
        ("refuse", conn | {"text": b"s3.NONE X"}),
        ("refuse", conn | {"text": b"s3.NONE Y"}),
        ("drop", {"connection": "0xbb020000", "process": 1500, "text": b"for nobody"}),
    ]


def test_delayed_lines_are_told_without_a_connection(watcher):
    with IpcClient() as client:
        client.ask(b"DELAY 10|s3.NONE X", b"OK\r\n\r\n")
        events = watcher.events("refuse")
    assert told(events)[-2:] == [
        ("line", {"connection": "0x00000000", "port": b"delay", "text": b"s3.NONE X"}),
        ("refuse", {"connection": "0x00000000", "port": b"delay", "text": b"s3.NONE X"}),
    ]


def test_logins_are_told_and_no_password_is(start_socket_tessd):
    start_socket_tessd()
    with items.Watcher(3001) as watcher:
        with TelnetClient() as telnet:
            telnet.log_in()
            telnet.expect_nothing_more()
        events = watcher.events("disconnect")
        for name, password in ((ALICE.name, b"wrong guess"), (b"secret", b"secret")):
            with TelnetClient() as telnet:
                telnet.give_name(name)
                telnet.send(password + b"\r\n")
                telnet.expect(FAREWELL)
            events += watcher.events("disconnect")
    logins = [event for event in told(events) if event[0] == "login"]
    assert [(event["user"], event["accepted"]) for _, event in logins] == [(b"alice", 1), (b"alice", 0), (b"", 0)]
    assert [event["text"] for event in events if event.word == "line"] == [b"*"]
    assert "secret" not in str(events) and "guess" not in str(events), events


def test_a_peer_cannot_forge_a_line(watcher):
    with XcpClient() as client:
        client.send_frame(b'A" accepted=1\tconnect time=1 \x1b[2J \xff\\')
        client.expect_frame(b"?\r\n")
        events = watcher.events("refuse")
    assert [event["text"] for event in events if event.word == "line"] == [b'A" accepted=1\tconnect time=1 \x1b[2J \xff\\']


def test_who_does_not_want_to_watch_any_longer_is_told_nothing_more(watcher):
    watcher.watch(False)
    with IpcClient() as client:
        client.expect_nothing_more()
    watcher.send(wire.registration(b"", 0))
    assert watcher.receive().kind == wire.REPLY, "nothing was told in front of this"
    assert items.of(items.status(watcher), "daemon")[0]["watchers"] == 0


def test_watching_twice_is_watching_once(watcher):
    watcher.watch(True, tag=6)
    with IpcClient() as client:
        client.expect_nothing_more()
        events = watcher.events("line")
    assert [event.word for event in events] == ["connect", "line"]


def test_a_ninth_watcher_is_refused(tessd):
    watchers = [items.Watcher(3001 + number) for number in range(items.MAX_WATCHERS)]
    with QueueProcess(4000) as late:
        late.send(wire.record(wire.WATCH, b"\1", tag=9))
        answer = late.receive()
        assert (answer.kind, answer.tag, answer.text) == (wire.WATCH_TEXT, 9, b"watch on=0 full=1\n\0")
        watchers[0].watch(False)
        late.send(wire.record(wire.WATCH, b"\1"))
        assert late.receive().text == b"watch on=1\n\0"
        with IpcClient() as client:
            client.expect_nothing_more()
        for watcher in watchers[1:]:
            assert [event.word for event in watcher.events("disconnect")] == ["connect", "line", "disconnect"]
            watcher.close()


def test_a_watcher_that_stalls_holds_nobody_up_and_is_told_what_it_lost(watcher):
    lines = 200
    with IpcClient() as client, items.Watcher(3002) as reader:
        for number in range(lines):
            client.ask(b"* %d" % number, b"?\r\n")
            reader.events("refuse")  # so that every line goes in records of its own
        before = watcher.events("lost")
        lost = before.pop()
        assert lost["records"] > 0
        kept = [event["text"] for event in before if event.word == "line"]
        assert kept == [b"* %d" % number for number in range(len(kept))], "the first ones, in order"
        client.ask(b"* after", b"?\r\n")
        behind: list[items.Item] = []
        while b"* after" not in [event["text"] for event in behind if event.word == "refuse"]:
            behind += watcher.events("refuse")
        told_of = len(before) + lost["lines"] + len(behind)
        assert told_of == 1 + 2 * (lines + 1), f"{len(before)} came, {lost['lines']} are said to be lost, then {len(behind)}"


def test_a_watcher_that_dies_is_forgotten(tessd):
    watcher = items.Watcher(3001)
    watcher.die()
    with QueueProcess(2001) as asker, IpcClient() as client:
        client.expect_nothing_more()
        wait_until(lambda: items.of(items.status(asker), "daemon")[0]["watchers"] == 0, "the watcher is forgotten", 5)
        client.expect_nothing_more()
    watcher.close()


def accepted_client() -> IpcClient:
    """One that a watcher who comes later is not told of."""
    client = IpcClient()
    client.expect_nothing_more()
    return client


@pytest.mark.skipif(
    settings.emulated() or settings.sanitized() or shutil.which("strace") is None, reason="strace counts only what is not traced"
)
def test_a_command_takes_two_system_calls_more_while_somebody_watches(tessd):
    commands = 100
    with QueueProcess(1500) as process, accepted_client() as client, items.Watcher(3001) as watcher:

        def converse() -> None:
            for _ in range(commands):
                client.send(b"s3.ENC X\n")
                process.reply(process.expect_command(b"X").tag, b"0\r\n\r\n")
                client.expect(b"0\r\n\r\n")
                watcher.waiting()

        watcher.watch(False)
        process.register(b"ENC")
        converse()
        with system_calls(tessd.pid) as alone:
            converse()
        watcher.send(wire.record(wire.WATCH, b"\1"))
        watcher.receive()
        with system_calls(tessd.pid) as watched:
            converse()
    extra = {name: (watched[name] - alone[name]) / commands for name in watched if name != "futex"}
    # Each thread also wakes up once a second.
    assert 1 <= sum(extra.values()) < 2 + 0.5, extra
