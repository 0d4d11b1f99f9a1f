"""The audit log: who has sent what, when TESS_AUDIT=1 asks for it."""

from __future__ import annotations

import os

import pytest

from harness import items, wire
from harness.accounts import ALICE
from harness.clients import IpcClient, XcpClient
from harness.queue_process import QueueProcess
from harness.telnet import FAREWELL, TelnetClient

LINE, REFUSED, LOGIN, LOGIN_REFUSED, RESET = range(250041, 250046)
HEADS = {
    LINE: "audit: line ",
    REFUSED: "audit: refused ",
    LOGIN: "audit: login ",
    LOGIN_REFUSED: "audit: login refused ",
    RESET: "audit: reset ",
}


def audited(tessd) -> list[tuple[int, dict]]:
    """The lines of the audit log, taken apart."""
    lines = [(number, text) for number, text in tessd.entries() if number in HEADS]
    wrong = [text for number, text in lines if not text.startswith(HEADS[number])]
    assert not wrong, wrong
    return [(number, items.Item.parse(b"x " + text[len(HEADS[number]) :].encode()).values) for number, text in lines]


@pytest.fixture
def audited_tessd(start_tessd):
    return start_tessd(environment={"TESS_AUDIT": "1"})


def test_lines_and_refusals_are_logged_with_who_sent_them(audited_tessd):
    with QueueProcess(1500) as process, IpcClient() as client:
        process.register(b"ENC")
        client.send(b"s3.ENC SETX 5\n")
        process.expect_command(b"SETX 5")
        client.ask(b"s3.NONE X|*", b"?\r\n0\r\n\r\n")
    who = {"port": b"ipc", "connection": "0xbb010000", "peer": f"pid {os.getpid()} uid {os.getuid()}".encode(), "user": b""}
    assert audited(audited_tessd) == [
        (LINE, who | {"text": b"s3.ENC SETX 5"}),
        (LINE, who | {"text": b"s3.NONE X|*"}),
        (REFUSED, who | {"text": b"s3.NONE X"}),
    ]


def test_delayed_lines_are_logged_when_they_run(audited_tessd):
    with IpcClient() as client:
        client.ask(b"DELAY 10|s3.NONE X", b"OK\r\n\r\n")
        client.ask(b"DELAY CLEAR", b"OK\r\n\r\n")
        client.expect_nothing_more()
    logged = audited(audited_tessd)
    assert (LINE, {"port": b"delay", "text": b"s3.NONE X"}) in logged, logged
    assert (REFUSED, {"port": b"delay", "text": b"s3.NONE X"}) in logged, logged


def test_logins_are_logged_and_no_password_is(start_socket_tessd):
    tessd = start_socket_tessd(environment={"TESS_AUDIT": "1"})
    with TelnetClient() as telnet:
        telnet.log_in()
        telnet.expect_nothing_more()
        peer = "{}:{}".format(*telnet.socket.getsockname()).encode()
    for name, password in ((ALICE.name, b"wrong guess"), (b"secret", b"secret")):
        with TelnetClient() as telnet:
            telnet.give_name(name)
            telnet.send(password + b"\r\n")
            telnet.expect(FAREWELL)
            telnet.expect_close()
    logged = audited(tessd)
    assert [number for number, _ in logged] == [LOGIN, LINE, LOGIN_REFUSED, LOGIN_REFUSED], logged
    who = {"port": b"telnet", "connection": f"0x{wire.FIRST_TELNET_ID:08x}", "peer": peer, "user": b"alice"}
    assert logged[0][1] == who and logged[1][1] == who | {"text": b"*"}
    assert [values["user"] for _, values in logged[2:]] == [b"alice", b""]
    whole = str(tessd.entries())
    assert "secret" not in whole and "guess" not in whole


def test_resets_are_logged(audited_tessd):
    with QueueProcess(2001) as process, IpcClient() as client:
        process.send(wire.record(wire.RESET, b"RESET A\0"))
        process.receive()
        client.ask(b"RESET A", b"Error Processing Reset Command.\r\n\r\n")
    logged = audited(audited_tessd)
    assert logged[0] == (RESET, {"process": 2001, "text": b"RESET A", "result": b"refused"})
    assert [(number, values["text"]) for number, values in logged[1:]] == [(LINE, b"RESET A"), (REFUSED, b"RESET A")]


def test_nobody_can_forge_a_line(audited_tessd):
    evil = b'X" user="root" text="\t\x1b[2J2026-11-21T05:15:00.123Z    [TESS] 250043 \xff\\'
    with XcpClient() as client:
        client.send_frame(evil)
        client.expect_frame(b"?\r\n")
    logged = audited(audited_tessd)
    assert [(number, values["user"], values["text"]) for number, values in logged] == [
        (LINE, b"", evil),
        (REFUSED, b"", evil),
    ]
    assert all(" " <= c <= "~" for _, text in audited_tessd.entries() for c in text)


def test_the_longest_line_is_logged_whole(audited_tessd):
    with IpcClient() as client:
        client.ask(b'"' * 1000, b"?\r\n")
    assert [values["text"] for _, values in audited(audited_tessd)] == [b'"' * 1000] * 2


@pytest.mark.parametrize("value", [None, "0", "yes", ""])
def test_without_the_variable_nothing_is_logged(start_tessd, value):
    tessd = start_tessd(environment={} if value is None else {"TESS_AUDIT": value})
    with IpcClient() as client:
        client.ask(b"s3.NONE X", b"?\r\n")
    assert audited(tessd) == []
