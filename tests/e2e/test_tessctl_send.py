"""tessctl send: lines go out, answers come back."""

from __future__ import annotations

import socket
import subprocess
import threading

import pytest

from harness import settings, tessctl, wire
from harness.clients import IpcClient, XcpClient
from harness.queue_process import AnsweringProcess, QueueProcess
from harness.tessctl import DONE, NO_ANSWER, NO_CONNECTION, REFUSED, WRONG_USAGE
from harness.waiting import Stopwatch

pytestmark = tessctl.needs_tessctl


@pytest.mark.parametrize("port", ["ipc", "xcp"])
def test_a_line_is_sent_and_its_answer_printed(echo, port):
    tessctl.run("send", "--port", port, "s3.ECHO SETX 5").expect(DONE, "SETX 5\n", "")


@pytest.mark.parametrize("port", ["ipc", "xcp"])
def test_lines_are_answered_in_order(echo, port):
    tessctl.run("send", "-p", port, "s3.ECHO A", "*", "s3.ECHO B|s3.ECHO C", "DELAY").expect(DONE, "A\n0\nB\nC\nOK\n", "")


def test_lines_come_from_standard_input(echo):
    tessctl.run("send", lines="s3.ECHO A\n\ns3.ECHO B\r\n   \ns3.ECHO C").expect(DONE, "A\nB\nC\n", "")


def test_a_line_end_inside_an_argument_makes_two_lines(echo):
    tessctl.run("send", "s3.ECHO A\ns3.ECHO B").expect(DONE, "A\nB\n", "")


def test_no_lines_at_all_are_done_at_once(tessd):
    tessctl.run("send").expect(DONE, "", "")


@pytest.mark.parametrize("port", ["ipc", "xcp"])
def test_a_refusal_is_printed_and_makes_the_status(echo, port):
    tessctl.run("send", "-p", port, "s3.NOBODY X").expect(REFUSED, "?\n", "")
    tessctl.run("send", "-p", port, "s3.ECHO A", "s3.NOBODY X|s3.NOBODY Y", "s3.ECHO B").expect(REFUSED, "A\n?\n?\nB\n", "")


def test_the_tag_goes_along_on_xcp(tessd):
    with QueueProcess(2001) as process:
        process.register(b"ENC")
        sending = subprocess.Popen([tessctl.PROGRAM, "send", "-p", "xcp", "--tag", "1234", "s3.ENC X"], stdout=subprocess.PIPE)
        command = process.expect_command(b"X")
        assert command.tag & 0xFFFF == 1234, f"tag {command.tag:#x}"
        process.reply(command.tag, b"yes\r\n\r\n")
        assert sending.communicate(timeout=10 * settings.SLOW)[0] == b"yes\n"


def test_a_line_without_an_answer_ends_the_wait_and_not_the_others(echo):
    with QueueProcess(2002) as process:
        process.register(b"SILENT")
        watch = Stopwatch()
        tessctl.run("send", "--wait", "0.5", "s3.SILENT X", "s3.ECHO A", "s3.NOBODY B").expect(
            NO_ANSWER, "A\n?\n", "tessctl: no answer to 's3.SILENT X' within 0.5 s\n"
        )
        assert watch.seconds() >= 0.5


def test_there_is_a_time_limit_also_when_nobody_asks_for_one(tessd):
    with QueueProcess(2001) as process:
        process.register(b"SILENT")
        tessctl.run("send", "s3.SILENT X").expect(NO_ANSWER, "", "tessctl: no answer to 's3.SILENT X' within 5 s\n")


@pytest.mark.parametrize("port", ["ipc", "xcp"])
@pytest.mark.parametrize(
    "text, printed",
    [
        (b"one\r\ntwo\r\n\r\n", "one\ntwo\n"),
        (b"without an empty line\r\n", "without an empty line\n"),
        (b"without any end", "without any end\n"),
        (b"a\r\n" * 2000 + b"\r\n", "a\n" * 2000),
    ],
    ids=["lines", "no empty line", "no end", "long"],
)
def test_answers_of_all_shapes_are_printed_whole(tessd, port, text, printed):
    with AnsweringProcess(2001, b"ENC", lambda _: text):
        tessctl.run("send", "-p", port, "s3.ENC X").expect(DONE, printed, "")


def test_an_answer_that_never_ends_is_left(tessd):
    with QueueProcess(2001) as process:
        process.register(b"ENC")
        sending = subprocess.Popen([tessctl.PROGRAM, "send", "--wait", "1", "s3.ENC X"], stdout=subprocess.PIPE)
        command = process.expect_command(b"X")
        watch, gap, longest = Stopwatch(), Stopwatch(), 0.0
        while sending.poll() is None:
            longest, gap = max(longest, gap.seconds()), Stopwatch()
            assert watch.seconds() < 10 + 5 * settings.SLOW, "it still listens"
            process.reply(command.tag, b"more\r\n")
            threading.Event().wait(0.01)
        assert sending.returncode == DONE
        assert watch.seconds() >= 10 or longest > 0.15, f"left after {watch.seconds():.1f} s, without a pause"
        assert set(sending.communicate()[0].split()) == {b"more"}


def test_a_broadcast_is_listened_to_for_longer(echo):
    with QueueProcess(2002) as slow:
        slow.register(b"SLOW")
        sending = subprocess.Popen([tessctl.PROGRAM, "send", "--linger", "3", "hello"], stdout=subprocess.PIPE)
        command = slow.expect_command(b"hello")
        slow.reply(command.tag, b"late\r\n\r\n")
        output = sending.communicate(timeout=20 * settings.SLOW)[0].decode().split()
        assert sorted(output) == ["hello", "late"], output


def test_a_line_that_no_port_carries_is_not_sent(echo):
    limit = tessctl.run("send", "x" * 1006).expect(DONE)  # a broadcast, which the one process answers
    assert limit.output == "x" * 1006 + "\n"
    too_long = "tessctl: a line of 1007 bytes is too long, the limit is 1006\n"
    tessctl.run("send", "s3.ECHO A", "x" * 1007).expect(WRONG_USAGE, "", too_long)
    tessctl.run("send", lines="s3.ECHO A\n" + "x" * 1007).expect(WRONG_USAGE, "A\n", too_long)


@pytest.mark.parametrize("port", ["ipc", "xcp"])
def test_a_thousand_lines_of_a_script_lose_nothing(echo, port):
    numbers = [str(number) for number in range(1000)]
    tessctl.run("send", "-p", port, lines="".join(f"s3.ECHO {n}\n" for n in numbers), within=60).expect(
        DONE, "".join(f"{n}\n" for n in numbers), ""
    )


@pytest.mark.parametrize("port", ["ipc", "xcp"])
def test_lines_that_are_not_waited_for_never_make_a_burst_that_is_thrown_away(tessd, port):
    with QueueProcess(2001) as process:
        process.register(b"ENC")
        lines = [f"X{number:04}" + "x" * 400 for number in range(50)]
        sending = subprocess.Popen(
            [tessctl.PROGRAM, "send", "-p", port, "--wait", "0.001", *(f"s3.ENC {line}" for line in lines)],
            stderr=subprocess.DEVNULL,
        )
        for line in lines:
            process.expect_command(line.encode())
        assert sending.wait(20 * settings.SLOW) == NO_ANSWER


def test_a_daemon_that_does_not_read_is_not_waited_for_without_end(tessd):
    with XcpClient() as holding, QueueProcess(2001) as process:
        process.register(b"ENC")
        holding.send(wire.frame(b"s3.ENC X\n")[:8])  # holds the service thread
        result = tessctl.run("send", "--wait", "0.3", *("x" * 500 for _ in range(4)))
        assert result.status == NO_ANSWER and result.errors.endswith("tessctl: /tmp/socket: tessd does not read\n"), result.errors


def test_without_a_daemon_there_is_no_connection():
    for port, path in ("ipc", "/tmp/socket"), ("xcp", "/tmp/xcp"):
        tessctl.run("send", "-p", port, "X").expect(
            NO_CONNECTION, "", f"tessctl: {path}: No such file or directory: is tessd running, and with this port?\n"
        )


def test_a_daemon_that_has_died_is_told_from_one_that_is_not_there():
    with socket.socket(socket.AF_UNIX) as dead:
        dead.bind("/tmp/socket")
    tessctl.run("send", "X").expect(
        NO_CONNECTION,
        "",
        "tessctl: /tmp/socket: Connection refused: tessd has ended without cleaning up; start it again\n",
    )


def test_an_eleventh_connection_is_told_why(tessd):
    clients = [IpcClient() for _ in range(10)]
    for client in clients:
        client.expect_nothing_more()
    result = tessctl.run("send", "*")
    assert result.status == NO_CONNECTION, result.errors
    assert result.errors.startswith("tessctl: /tmp/socket: tessd has closed the connection"), result.errors
    for client in clients:
        client.close()


def test_a_daemon_that_ends_meanwhile_is_noticed(start_tessd):
    tessd = start_tessd()
    with QueueProcess(2001) as process:
        process.register(b"SILENT")
        results = []
        sending = threading.Thread(target=lambda: results.append(tessctl.run("send", "s3.SILENT X")))
        sending.start()
        process.expect_command(b"X")
        tessd.stop()
        sending.join()
        results[0].expect(NO_CONNECTION, "", "tessctl: /tmp/socket: tessd has closed the connection\n")


@pytest.mark.parametrize(
    "arguments",
    [
        ["send", "--port", "telnet", "X"],
        ["send", "--wait", "0", "X"],
        ["send", "--wait", "soon", "X"],
        ["send", "--tag", "65536", "X"],
        ["send", "--nonsense"],
        [],
        ["nonsense"],
    ],
    ids=" ".join,
)
def test_wrong_usage_is_explained(arguments):
    result = tessctl.run(*arguments).expect(WRONG_USAGE)
    assert "--help" in result.errors, result.errors


def test_help_and_version_are_everywhere():
    version = tessctl.run("--version").expect(DONE, errors="").output
    assert version.startswith("tessctl ")
    for command in "send", "console", "serve", "listen", "check", "ping", "close", "com2", "reset", "stop":
        assert "Usage: tessctl " + command in tessctl.run(command, "--help").expect(DONE, errors="").output
        tessctl.run(command, "--version").expect(DONE, version, "")
