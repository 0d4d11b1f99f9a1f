"""tessctl send: lines go out, answers come back."""

from __future__ import annotations

import contextlib
import datetime
import json
import re
import socket
import subprocess
import threading
import time

import pytest

from harness import settings, tessctl
from harness.clients import IpcClient
from harness.queue_process import AnsweringProcess, QueueProcess
from harness.tessctl import DONE, NO_ANSWER, NO_CONNECTION, REFUSED, WRONG_USAGE
from harness.waiting import Stopwatch, wait_until

pytestmark = tessctl.needs_tessctl

TIME = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z ")
NO_ANSWER_WITHIN = "tessctl: /tmp/socket: no answer to 's3.SILENT X' within {} s: is the process stuck, or tessd?\n"
CLOSED = "tessctl: /tmp/socket: tessd has closed the connection: are ten others connected, or has it ended?\n"


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


@pytest.mark.parametrize("behind", [(), ("--",)], ids=["", "--"])
def test_every_argument_is_sent_as_it_stands(echo, behind):
    lines = ["[A,B]", "[A]", "[]", "[", "{}", "%%", "++", "close", "\x01[", "a,b", " c"]
    tessctl.run("send", *behind, *lines, "").expect(DONE, "".join(line.strip(" ") + "\n" for line in lines), "")
    tessctl.run("send", "--", "--wait", "-p").expect(DONE, "--wait\n-p\n", "")


def test_no_lines_at_all_are_done_at_once(tessd):
    tessctl.run("send").expect(DONE, "", "")


@pytest.mark.parametrize("port", ["ipc", "xcp"])
def test_a_refusal_is_printed_and_makes_the_status(echo, port):
    tessctl.run("send", "-p", port, "s3.NOBODY X").expect(REFUSED, "?\n", "")
    tessctl.run("send", "-p", port, "s3.ECHO A", "s3.NOBODY X|s3.NOBODY Y", "s3.ECHO B").expect(REFUSED, "A\n?\n?\nB\n", "")


@pytest.mark.parametrize("port", ["ipc", "xcp"])
@pytest.mark.parametrize(
    "program, said",
    [
        (["sh", "-c", "echo half; exit 3"], "half\nError: sh ended with status 3\n"),
        (["sh", "-c", "kill -9 $$"], "Error: sh was ended by signal 9\n"),
        (["sleep", "1000"], "Error: sleep did not end within 0.5 s\n"),
        (["/nowhere/at-all"], "Error: /nowhere/at-all: No such file or directory\n"),
        (["sh", "-c", "echo '?'; exit 1"], "?\n"),
        (["echo", "Error: too hot"], "Error: too hot\n"),
    ],
    ids=["status", "signal", "time", "missing", "refusal", "its own words"],
)
def test_a_command_that_failed_makes_the_status(tessd, port, program, said):
    with tessctl.serving("P", *program, options=("--timeout", "0.5")):
        tessctl.run("send", "-p", port, "s3.P go", "*").expect(REFUSED, said + "0\n", "")


def test_what_the_daemon_itself_refuses_makes_the_status(tessd):
    tessctl.run("send", "DELAY soon|X").expect(REFUSED, "Error Setting Command: Invalid Arguments.\n", "")


def test_an_error_in_the_midst_of_an_answer_is_none(tessd):
    with AnsweringProcess(2001, b"LOG", lambda _: b"Error: yesterday\r\nall is well\r\n\r\n"):
        tessctl.run("send", "s3.LOG SHOW").expect(DONE, "Error: yesterday\nall is well\n", "")


def test_each_command_of_a_line_is_answered_before_the_next_goes_out(tessd):
    """Of a line that is sent whole, the quicker process answers first."""
    line = "s3.SLOW a|s3.QUICK b"
    with tessctl.serving("SLOW", "sh", "-c", "sleep 0.5; cat"), AnsweringProcess(2001, b"QUICK", lambda text: text + b"\r\n\r\n"):
        tessctl.run("send", line).expect(DONE, "b\na\n", "")
        tessctl.run("send", "--each", line).expect(DONE, "a\nb\n", "")
        tessctl.run("send", "--each", lines=f"{line}|DELAY CLEAR|X\n").expect(DONE, "a\nb\nOK\n", "")
        result = tessctl.run("send", "--each", "s3.QUICK a| reset")
        result.expect(WRONG_USAGE, "")
        assert "would restart the device" in result.errors, result.errors


def test_answers_in_json_belong_to_their_lines(echo):
    result = tessctl.run("send", "--json", "s3.ECHO A|s3.ECHO B", "s3.NOBODY X", "").expect(REFUSED, errors="")
    first, second = map(json.loads, result.output.splitlines())
    assert 0 <= first.pop("milliseconds") < 10_000 * settings.SLOW and second.pop("milliseconds") >= 0
    assert first == {"line": "s3.ECHO A|s3.ECHO B", "answers": ["A", "B"], "refused": False}
    assert second == {"line": "s3.NOBODY X", "answers": ["?"], "refused": True}
    result = tessctl.run("send", "--json", "--each", "--timestamps", "s3.ECHO A|s3.ECHO B").expect(DONE, errors="")
    each = [json.loads(line) for line in result.output.splitlines()]
    assert [(one["line"], one["answers"]) for one in each] == [("s3.ECHO A", ["A"]), ("s3.ECHO B", ["B"])]
    assert all(TIME.fullmatch(one["time"] + " ") for one in each), each


def test_a_line_without_an_answer_is_reported_in_json_too(tessd):
    with QueueProcess(2002) as process:
        process.register(b"SILENT")
        result = tessctl.run("send", "--json", "--wait", "0.5", "s3.SILENT X").expect(
            NO_ANSWER, errors=NO_ANSWER_WITHIN.format(0.5)
        )
        report = json.loads(result.output)
        assert report["answers"] == [] and report["refused"] is False and report["milliseconds"] >= 500, report


def test_answers_are_stamped_with_their_times(echo):
    before = datetime.datetime.now(datetime.UTC)
    lines = tessctl.run("send", "--timestamps", "s3.ECHO A", "*").expect(DONE, errors="").output.splitlines()
    assert [TIME.sub("", line) for line in lines] == ["A", "0"], lines
    came = datetime.datetime.fromisoformat(lines[0].split()[0])
    assert before - datetime.timedelta(milliseconds=1) <= came <= datetime.datetime.now(datetime.UTC), lines


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
            NO_ANSWER, "A\n?\n", NO_ANSWER_WITHIN.format(0.5)
        )
        assert watch.seconds() >= 0.5


def test_there_is_a_time_limit_also_when_nobody_asks_for_one(tessd):
    with QueueProcess(2001) as process:
        process.register(b"SILENT")
        tessctl.run("send", "s3.SILENT X").expect(NO_ANSWER, "", NO_ANSWER_WITHIN.format(5))


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


def test_an_answer_that_never_ends_is_left():
    """The test is the daemon: nobody else can make a pause in the answer, which would be its end."""
    with socket.socket(socket.AF_UNIX) as server:
        server.bind(settings.IPC_PATH)
        server.listen()
        sending = subprocess.Popen([tessctl.PROGRAM, "send", "--wait", "1", "s3.ENC X"], stdout=subprocess.PIPE)
        connection, _ = server.accept()
        assert connection.recv(100) == b"s3.ENC X\n"
        watch, gap, longest = Stopwatch(), Stopwatch(), 0.0
        with contextlib.suppress(BrokenPipeError, ConnectionResetError):
            while sending.poll() is None:
                assert watch.seconds() < 10 + 5 * settings.SLOW, "it still listens"
                connection.sendall(b"more\r\n")
                longest, gap = max(longest, gap.seconds()), Stopwatch()
                threading.Event().wait(0.01)
        assert sending.wait(10) == DONE
        assert watch.seconds() >= 10 or longest > 0.15, f"left after {watch.seconds():.1f} s, without a pause"
        assert set(sending.communicate()[0].split()) == {b"more"}
        connection.close()


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
    """Two of them fit: the third waits until the daemon has read those."""
    with QueueProcess(2001) as process, open("/tmp/errors", "w+", encoding="utf-8") as errors:
        process.register(b"ENC")
        lines = [f"X{number}" + "x" * 400 for number in range(4)]
        with tessctl.held(tessd):
            sending = subprocess.Popen(
                [tessctl.PROGRAM, "send", "-p", port, "--wait", "1.5", *(f"s3.ENC {line}" for line in lines)], stderr=errors
            )
            wait_until(lambda: open("/tmp/errors", encoding="utf-8").read().count("no answer to") == 2, "two are sent", 10)
            assert sending.poll() is None
            time.sleep(0.5)  # in which the third would have been sent as well
        for line in lines:
            process.expect_command(line.encode())
        assert sending.wait(20 * settings.SLOW) == NO_ANSWER


@pytest.mark.parametrize("port, path", [("ipc", settings.IPC_PATH), ("xcp", settings.XCP_PATH)])
def test_a_daemon_that_takes_no_connections_is_not_waited_for_without_end(tessd, port, path):
    said = f"tessctl: {path}: Connection timed out: tessd takes no connections: is it stuck?\n"
    with tessctl.held(tessd), contextlib.ExitStack() as waiting:
        with pytest.raises(BlockingIOError):
            while True:
                client = waiting.enter_context(socket.socket(socket.AF_UNIX))
                client.setblocking(False)
                client.connect(path)
        watch = Stopwatch()
        tessctl.run("send", "-p", port, "--wait", "0.5", "*").expect(NO_ANSWER, "", said)
        assert watch.seconds() >= 0.5
        tessctl.run("ping", port).expect(REFUSED, "", said)
        terminal = tessctl.on_terminal("console", "-p", port)
        assert terminal.expect_end(20) == NO_ANSWER and said.strip().encode() in terminal.shown, terminal.shown


def test_a_daemon_that_does_not_read_is_not_waited_for_without_end(tessd):
    with tessctl.held(tessd):
        result = tessctl.run("send", "--wait", "0.3", *("x" * 500 for _ in range(4)))
        result.expect(NO_ANSWER)
        assert result.errors.endswith("tessctl: /tmp/socket: tessd does not read: is it stuck?\n"), result.errors


@pytest.mark.parametrize("line", ["s3.ECHO A\rs3.ECHO B", "A\0B", "A\r\rB\r"], ids=repr)
def test_a_line_that_the_daemon_would_cut_is_not_sent(echo, line):
    would_be_cut = (
        "tessctl: a line with a carriage return or a NUL in it would become two commands: send them as lines of their own\n"
    )
    tessctl.run("send", lines="s3.ECHO 1\n" + line).expect(WRONG_USAGE, "1\n", would_be_cut)
    if "\0" not in line:
        tessctl.run("send", "s3.ECHO 1", line).expect(WRONG_USAGE, "", would_be_cut)


def test_an_answer_controls_no_terminal(tessd):
    answer = b"\x1b[2Jred\x07 \xc3\xa4\tb\r\n\r\n"
    with AnsweringProcess(2001, b"ENC", lambda _: answer):
        for command in ["send", "s3.ENC X"], ["console"]:
            terminal = tessctl.on_terminal(*command)
            if command == ["console"]:
                terminal.type(b"s3.ENC X\r")
            terminal.expect(b"\\x1b[2Jred\\x07 \xc3\xa4")
            if command == ["console"]:
                terminal.type(b"\x04")
            assert terminal.expect_end() == DONE
            assert b"\x1b[2J" not in terminal.shown and b"\x07" not in terminal.shown, terminal.shown
        tessctl.run("send", "s3.ENC X").expect(DONE, "\x1b[2Jred\x07 \u00e4\tb\n", "")


def test_without_a_daemon_there_is_no_connection():
    for port, path in ("ipc", settings.IPC_PATH), ("xcp", settings.XCP_PATH):
        tessctl.run("send", "-p", port, "X").expect(
            NO_CONNECTION, "", f"tessctl: {path}: No such file or directory: is tessd running, and with this port?\n"
        )


def test_a_daemon_that_has_died_is_told_from_one_that_is_not_there():
    with socket.socket(socket.AF_UNIX) as dead:
        dead.bind(settings.IPC_PATH)
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
    result.expect(NO_CONNECTION, "", CLOSED)
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
        results[0].expect(NO_CONNECTION, "", CLOSED)


@pytest.mark.parametrize("seconds", ["nan", "inf", "-inf", "-1", "86401", "1e300", "", "5s"])
def test_a_time_that_is_none_is_wrong_usage(seconds):
    serve = ["serve", "CAT", "--timeout", seconds, "--", "cat"]
    for arguments, least in (["send", "--wait", seconds, "X"], 0.001), (["send", "--linger", seconds, "X"], 0), (serve, 0.001):
        errors = tessctl.run(*arguments).expect(WRONG_USAGE, "").errors
        assert f"a time is a number of seconds, {least} to 86400" in errors, errors
