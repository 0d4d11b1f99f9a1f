"""tessctl check, ping, close, com2, reset and stop."""

from __future__ import annotations

import json
import os

import pytest

from harness import settings, tessctl
from harness.clients import IpcClient
from harness.com2 import SerialLine
from harness.nested import OWN_DEVICE
from harness.queue_process import QueueProcess
from harness.telnet import TelnetClient
from harness.tessctl import DONE, NO_ANSWER, NO_CONNECTION, REFUSED, WRONG_USAGE
from harness.waiting import Stopwatch

pytestmark = tessctl.needs_tessctl

NAMES = ["queue", "daemon", "ipc", "xcp", "telnet", "com2"]


@pytest.fixture
def full_tessd(launch):
    """A daemon with all four ports."""
    with SerialLine() as line:
        tessd = launch().wait_running()
        tessd.line = line
        yield tessd
        tessd.stop()


def test_check_says_that_everything_works(full_tessd):
    tessctl.run("check").expect(
        DONE,
        "ok      queue   /run/tess/queue can be used\n"
        "ok      daemon  /run/tess/queue/1001 is open\n"
        "ok      ipc     /tmp/socket answers\n"
        "ok      xcp     /tmp/xcp answers\n"
        "ok      telnet  127.0.0.1:23 asks for a name\n"
        f"ok      com2    /dev/ttyS1 is open in tessd ({full_tessd.pid})\n",
        "",
    )
    report = json.loads(tessctl.run("check", "--json").expect(DONE, errors="").output)
    assert report["ok"] is True
    assert [(check["name"], check["ok"]) for check in report["checks"]] == [(name, True) for name in NAMES]


def test_check_says_what_is_missing():
    tessctl.run("check").expect(
        REFUSED,
        "ok      queue   /run/tess/queue can be used\n"
        "FAILED  daemon  /run/tess/queue/1001: No such file or directory: is tessd running?\n"
        "FAILED  ipc     /tmp/socket: No such file or directory: is tessd running, and with this port?\n"
        "FAILED  xcp     /tmp/xcp: No such file or directory: is tessd running, and with this port?\n"
        "FAILED  telnet  127.0.0.1:23: Connection refused: is tessd running, and with the telnet port?\n"
        "FAILED  com2    /dev/ttyS1: No such file or directory: this device has no second serial line\n",
        "",
    )
    report = json.loads(tessctl.run("check", "--json").expect(REFUSED, errors="").output)
    assert report["ok"] is False
    assert [check["name"] for check in report["checks"] if check["ok"]] == ["queue"]
    assert report["checks"][1]["what"] == "/run/tess/queue/1001: No such file or directory: is tessd running?"


def test_check_looks_only_at_what_is_wanted(tessd):
    """A device without a serial line and telnet can be healthy."""
    tessctl.run("check").expect(REFUSED)
    output = "ok      ipc     /tmp/socket answers\nok      queue   /run/tess/queue can be used\n"
    tessctl.run("check", "ipc", "queue").expect(DONE, output, "")
    report = json.loads(tessctl.run("check", "--json", "queue", "daemon", "ipc", "xcp").expect(DONE, errors="").output)
    assert report["ok"] is True and [check["name"] for check in report["checks"]] == NAMES[:4], report


def test_check_says_that_the_queue_directory_is_closed_to_this_user(tessd):
    os.chmod(settings.QUEUE_DIR, 0o770)
    output = tessctl.run("check", user=12345, group=12345, extra_groups=[]).expect(REFUSED, errors="").output
    assert output.startswith(
        "FAILED  queue   /run/tess/queue: Permission denied: are you in group tess?\n"
        "FAILED  daemon  /run/tess/queue/1001: Permission denied: are you in group tess?\n"
    ), output


def test_check_in_json_survives_a_path_that_is_no_text():
    environment = {**os.environb, b"TESS_QUEUE_DIR": b"/run/\xff"}
    report = json.loads(tessctl.run("check", "--json", env=environment).expect(REFUSED, errors="").output)
    assert report["checks"][0]["what"].startswith("/run/\ufffd: No such file or directory"), report


def test_check_tells_an_unused_serial_line_from_one_in_other_hands(tessd):
    with SerialLine(), open(settings.SERIAL_LINE, "rb"):
        output = tessctl.run("check").expect(REFUSED).output
        assert "FAILED  com2    /dev/ttyS1 is open in " in output and output.endswith(", not in tessd\n"), output


def test_ping_looks_at_one_port(full_tessd):
    for port, said in {
        "queue": "/run/tess/queue/1001 is open",
        "ipc": "/tmp/socket answers",
        "xcp": "/tmp/xcp answers",
        "telnet": "127.0.0.1:23 asks for a name",
        "com2": f"/dev/ttyS1 is open in tessd ({full_tessd.pid})",
    }.items():
        assert tessctl.run("ping", port).expect(DONE, errors="").output.startswith(said)
    assert tessctl.run("ping").expect(DONE).output.startswith("/tmp/socket answers (")


def test_looking_at_telnet_keeps_nobody_waiting(socket_tessd):
    watch = Stopwatch()
    tessctl.run("ping", "telnet").expect(DONE)
    assert watch.seconds() < 0.9 * settings.SLOW, "it was taken for a client that may have options to negotiate"


def test_ping_fails_without_a_daemon():
    for port, said in {
        "queue": "/run/tess/queue/1001: No such file or directory: is tessd running?",
        "ipc": "/tmp/socket: No such file or directory: is tessd running, and with this port?",
        "telnet": "127.0.0.1:23: Connection refused: is tessd running, and with the telnet port?",
    }.items():
        tessctl.run("ping", port).expect(REFUSED, "", f"tessctl: {said}\n")
    tessctl.run("ping", "nonsense").expect(WRONG_USAGE, "")


def test_ping_finds_a_full_port_out(tessd):
    clients = [IpcClient() for _ in range(10)]
    for client in clients:
        client.expect_nothing_more()
    errors = tessctl.run("ping").expect(REFUSED, "").errors
    assert errors.startswith("tessctl: /tmp/socket: tessd has closed the connection: are ten others connected"), errors
    for client in clients:
        client.close()


def test_close_closes_all_connections_or_the_telnet_ones(socket_tessd):
    with TelnetClient() as telnet, IpcClient() as ipc:
        telnet.log_in()
        tessctl.run("close", "--telnet").expect(DONE, "", "")
        telnet.expect_close()
        ipc.ask(b"*", b"0\r\n\r\n")
        tessctl.run("close").expect(DONE, "", "")
        ipc.expect_close()


def test_com2_writes_to_the_serial_line(full_tessd):
    tessctl.run("com2", "hello").expect(DONE, "", "")
    full_tessd.line.expect(b"hello\r\n")
    tessctl.run("com2", "-n", "prompt> ").expect(DONE, "", "")
    full_tessd.line.expect(b"prompt> ")


def test_com2_says_when_the_line_did_not_take_it(tessd):
    tessctl.run("com2", "hello").expect(
        REFUSED,
        "",
        "tessctl: /dev/ttyS1: tessd has not written the text: is there a second serial line, does its far end read, and does"
        " tessd run with the COM2 port?\n",
    )
    tessctl.run("com2", "x" * 8175).expect(
        WRONG_USAGE, "", "tessctl: the text is too long, the limit is 8176 bytes with its line end\n"
    )
    tessctl.run("com2").expect(WRONG_USAGE, "")


def test_reset_restarts_the_device(start_tessd):
    tessd = start_tessd(launcher=OWN_DEVICE)
    tessctl.run("reset", "--yes").expect(DONE, "OK\n", "")
    tessd.kill()


def test_reset_asks_first(start_tessd):
    tessd = start_tessd(launcher=OWN_DEVICE)
    tessctl.run("reset").expect(REFUSED, "", "tessctl: refusing without --yes: standard input is not a terminal\n")
    for typed, status in (b"n\r", REFUSED), (b"\r", REFUSED), (b"y\r", DONE):
        terminal = tessctl.on_terminal("reset")
        terminal.expect(b"Restart this device? [y/N]")
        terminal.type(typed)
        assert terminal.expect_end() == status, terminal.shown
    tessd.kill()


def test_reset_with_a_reinitialisation_wants_this_host(start_tessd):
    tessd = start_tessd(launcher=OWN_DEVICE, environment={"TESS_REINIT": "/bin/true"})
    tessctl.run("reset", "--reinit", "elsewhere", "--yes").expect(REFUSED, "Error Processing RESET Command\n", "")
    terminal = tessctl.on_terminal("reset", "--reinit", "s3")
    terminal.expect(b"Re-initialise the software of 's3' and restart it? [y/N]")
    terminal.type(b"yes\r")
    assert terminal.expect_end() == DONE and b"OK" in terminal.shown, terminal.shown
    tessd.kill()


def test_stop_ends_the_daemon(start_tessd):
    tessd = start_tessd()
    tessctl.run("stop").expect(DONE, "", "")
    tessd.expect_normal_end()


def test_requests_that_are_not_answered_end(launch):
    with QueueProcess(1001):
        for command in ["com2", "X"], ["reset", "--yes"]:
            tessctl.run(*command).expect(
                NO_ANSWER, "", f"tessctl: {settings.QUEUE_DIR}/1001: no answer from tessd within 5 s: is it stuck?\n"
            )


def test_without_a_daemon_nothing_is_asked():
    tessctl.run("reset", "--yes").expect(
        NO_CONNECTION, "", f"tessctl: {settings.QUEUE_DIR}/1001: No such file or directory: is tessd running?\n"
    )
