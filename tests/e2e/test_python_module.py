"""The Python module: its client against the real daemon, and what its process does beyond what the example shows."""

from __future__ import annotations

import os
import signal
import subprocess
import sys
import threading
import time
from collections.abc import Callable, Iterator

import pytest

from harness import settings
from harness.manager import ServiceManager
from harness.queue_process import AnsweringProcess, QueueProcess
from harness.waiting import wait_until

sys.path.insert(0, os.path.join(settings.PROJECT, "python"))

import tess  # noqa: E402
from tess import answers  # noqa: E402

pytestmark = pytest.mark.skipif(settings.BYTEORDER != sys.byteorder, reason="its words are in this machine's byte order")

ECHO = [sys.executable, os.path.join(settings.PROJECT, "examples/echo.py")]


@pytest.fixture
def serve(tessd) -> Iterator[Callable[..., tess.Process]]:
    """Runs a process in a thread until the test ends, and waits until it is registered."""
    running = []

    def start(name: str, answer: Callable[[str], str], **options: int) -> tess.Process:
        process = tess.Process(name, answer, **options)
        thread = threading.Thread(target=process.run)
        thread.start()
        running.append((process, thread))
        wait_until(lambda: process._standing == "registered", "the process registered", 10)
        return process

    yield start
    for process, thread in running:
        process.stop()
        thread.join(10 * settings.SLOW)
        assert not thread.is_alive(), process.name


@pytest.mark.parametrize(
    "text, sent",
    [
        ("", b"OK\r\n\r\n"),
        ("\n\n", b"OK\r\n\r\n"),
        (" ", b" \r\n\r\n"),
        ("5", b"5\r\n\r\n"),
        ("5\r\n\r\n", b"5\r\n\r\n"),
        ("a\nb\n", b"a\r\nb\r\n\r\n"),
        ("a\n\nb", b"a\r\n \r\nb\r\n\r\n"),
        ("\na", b" \r\na\r\n\r\n"),
        ("?", b"?\r\n"),
        ("?\nwhat", b"? \r\nwhat\r\n\r\n"),
        ("a\0b", b"ab\r\n\r\n"),
        ("Z\u00fcrich", "Z\u00fcrich\r\n\r\n".encode()),
        ("\udcff", b"\xff\r\n\r\n"),
    ],
)
def test_an_answer_is_made_of_a_text(text, sent):
    assert answers.reply(text) == sent


def test_a_long_answer_is_cut_behind_line_ends():
    line = b"x" * 6000 + b"\r\n"
    assert answers.pieces(line + line) == [line, line]
    assert answers.pieces(b"x" * 9000) == [b"x" * 8175, b"x" * 825]
    assert answers.pieces(b"") == []


def test_a_client_gets_what_a_process_answers(serve):
    said = {"HELLO": "a\nb", "EMPTY": "", "LONG": "x" * 6000 + "\n" + "y" * 6000, "BYTE": "\udcff"}
    serve("PY", lambda command: said[command])
    with tess.Client() as client:
        assert client.ask("s3.PY HELLO") == "a\nb"
        assert client.ask("s3.PY EMPTY") == "OK"
        assert client.ask("s3.PY LONG") == said["LONG"]
        assert client.ask("s3.PY BYTE") == "\udcff"
        assert client.ask("*") == "0"


def test_a_command_comes_as_it_was_sent(serve):
    serve("PY", lambda command: f"<{command}>")
    with tess.Client() as client:
        assert client.ask("s3.PY SETX 5") == "<SETX 5>"
        assert client.ask("s3.PY Z\u00fcrich \udcff") == "<Z\u00fcrich \udcff>"


def test_what_was_not_carried_out_is_an_exception(serve):
    def answer(command: str) -> str:
        if command == "RAISE":
            raise ValueError("it is\nstuck")
        if command == "BARE":
            raise AssertionError
        return {"BOIL": "?", "FAIL": "50 degrees\nError: too hot", "LOOK": "Error: is the first line\nonly"}[command]

    serve("PY", answer)
    with tess.Client() as client:
        for line, error, text in (
            ("s3.NONE X", tess.CommandRefused, "?"),
            ("s3.PY BOIL", tess.CommandRefused, "?"),
            ("s3.PY FAIL", tess.CommandFailed, "50 degrees\nError: too hot"),
            ("s3.PY RAISE", tess.CommandFailed, "Error: it is stuck"),
            ("s3.PY BARE", tess.CommandFailed, "Error: AssertionError"),
            ("DELAY X|Y", tess.CommandFailed, "Error Setting Command: Invalid Arguments."),
        ):
            with pytest.raises(error) as caught:
                client.ask(line)
            assert caught.value.answer == text, line
        assert client.ask("s3.PY LOOK") == "Error: is the first line\nonly"


def test_an_answer_that_comes_too_late_is_not_taken_for_the_next_one(serve):
    late = threading.Event()

    def answer(command: str) -> str:
        if command == "SLOW":
            late.wait(20 * settings.SLOW)
        return command

    serve("PY", answer)
    with tess.Client() as client:
        with pytest.raises(tess.NoAnswer):
            client.ask("s3.PY SLOW", seconds=0.2)
        late.set()
        assert client.ask("s3.PY QUICK") == "QUICK"


def test_further_answers_are_dropped(serve):
    serve("PY", lambda command: command)
    with tess.Client() as client:
        assert client.ask("s3.PY A|s3.PY B") == "A"
        time.sleep(0.3)  # B comes, with nobody to take it
        assert client.ask("s3.PY C") == "C"


def test_an_answer_without_an_end_is_over_when_nothing_more_comes(tessd):
    with AnsweringProcess(2001, b"RAW", lambda command: b"no end\r\n"), tess.Client() as client:
        assert client.ask("s3.RAW X") == "no end"


@pytest.mark.parametrize("line", ["A\nB", "A\r", "x" * 1023])
def test_what_is_not_one_line_is_not_sent(tessd, line):
    with tess.Client() as client, pytest.raises(ValueError, match="not one line"):
        client.ask(line)


def test_without_a_daemon_there_is_no_client():
    with pytest.raises(FileNotFoundError):
        tess.Client()


def test_a_daemon_that_ends_is_an_error_and_the_next_one_is_found(start_tessd):
    first = start_tessd()
    with tess.Client() as client:
        assert client.ask("*") == "0"
        first.stop()
        with pytest.raises(OSError):
            client.ask("*")
        start_tessd()
        assert client.ask("*") == "0"


def test_a_process_gets_commands_from_the_ports_that_it_names(serve):
    serve("PY", lambda command: command, ports=tess.XCP)
    with tess.Client() as client, pytest.raises(tess.CommandRefused):
        client.ask("s3.PY X")


@pytest.mark.parametrize("address", [0, -1, 2147483648])
def test_an_address_has_limits(address):
    with pytest.raises(tess.QueueError, match="is not between 1 and 2147483647"):
        tess.Queue(address)


def test_an_address_that_is_taken_is_said():
    os.makedirs(settings.QUEUE_DIR, exist_ok=True)
    with QueueProcess(2001), pytest.raises(tess.QueueError, match="queue address 2001 is in use"):
        tess.Process("PY", str, address=2001)


def test_a_missing_queue_directory_is_made_for_the_group(monkeypatch):
    monkeypatch.setenv("TESS_QUEUE_DIR", "/run/a/b")
    before = os.umask(0o077)
    queue = tess.Queue(2001)
    os.umask(before)
    assert [os.stat(path).st_mode & 0o7777 for path in ("/run/a", "/run/a/b", "/run/a/b/2001")] == [0o770, 0o770, 0o660]
    queue.close()
    assert not os.path.exists("/run/a/b/2001")


def test_the_echo_tells_once_that_it_is_up_and_leaves_at_sigterm(tessd):
    environment = os.environ | {"PYTHONPATH": os.path.join(settings.PROJECT, "python")} | ServiceManager.ENVIRONMENT
    with ServiceManager() as manager, tess.Client() as client:
        with subprocess.Popen(ECHO, env=environment, stderr=subprocess.PIPE, text=True) as echo:
            manager.expect(b"READY=1")
            assert client.ask("s3.ECHO hello, world") == "hello, world"
            echo.send_signal(signal.SIGTERM)
            assert echo.wait(10 * settings.SLOW) == 0
            assert echo.stderr.read() == "registered at tessd as ECHO\n"
        with pytest.raises(tess.CommandRefused):
            client.ask("s3.ECHO hello")


def test_signals_are_as_they_were_after_run(tessd):
    process = tess.Process("PY", str)
    timer = threading.Timer(0.3, os.kill, (os.getpid(), signal.SIGTERM))
    before = signal.getsignal(signal.SIGTERM), signal.getsignal(signal.SIGINT)
    timer.start()
    assert process.run() == 0
    assert (signal.getsignal(signal.SIGTERM), signal.getsignal(signal.SIGINT)) == before
    assert signal.alarm(0) == 0


def test_a_refused_process_ends_with_1(tessd):
    assert tess.Process("PY", str, ports=0).run() == 1
