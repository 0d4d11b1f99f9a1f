"""tessctl console, at a terminal."""

from __future__ import annotations

import os

import pytest

from harness import tessctl
from harness.queue_process import QueueProcess
from harness.terminal import Terminal
from harness.tessctl import DONE, NO_CONNECTION, WRONG_USAGE

pytestmark = tessctl.needs_tessctl

PROMPT = b"tess> "
CTRL_D, UP, TAB = b"\x04", b"\x1b[A", b"\t"


def leave(terminal) -> None:
    terminal.type(CTRL_D)
    assert terminal.expect_end() == DONE, terminal.shown


@pytest.mark.parametrize("port", ["ipc", "xcp"])
def test_a_dialogue_goes_to_and_fro(echo, port):
    terminal = tessctl.on_terminal("console", "--port", port)
    for typed, answer in (b"s3.ECHO one", b"one"), (b"s3.NOBODY X", b"?"), (b"*", b"0"):
        terminal.expect(PROMPT)
        terminal.type(typed + b"\r")
        terminal.expect(b"\n")  # of what was typed
        terminal.expect(answer + b"\r\n")
    terminal.expect(PROMPT)
    leave(terminal)


def test_an_answer_appears_above_the_line_being_typed(tessd):
    with QueueProcess(2001) as process:
        process.register(b"ENC")
        terminal = tessctl.on_terminal("console")
        terminal.expect(PROMPT)
        terminal.type(b"s3.ENC GETX\r")
        command = process.expect_command(b"GETX")
        terminal.expect(PROMPT)
        terminal.type(b"half a li")
        terminal.expect(b"half a li")
        process.reply(command.tag, b"42\r\n\r\n")
        terminal.expect(b"42\r\n")
        terminal.expect(PROMPT + b"half a li")  # drawn again below
        terminal.type(b"ne\r")
        process.expect_command(b"half a line")
        process.reply(command.tag, b"no line end")
        terminal.expect(b"no line end\r\n")
        leave(terminal)


def type_to_remember() -> Terminal:
    terminal = tessctl.on_terminal("console")
    terminal.expect(PROMPT)
    terminal.type(b"s3.ECHO remembered\r")
    terminal.expect(b"\x1b[Jremembered\r\n")
    return terminal


def expect_remembered() -> None:
    """By another console than the one that it was typed into."""
    terminal = tessctl.on_terminal("console")
    terminal.expect(PROMPT)
    terminal.type(UP)
    terminal.expect(b"s3.ECHO remembered")
    terminal.type(b"\r")
    terminal.expect(b"\x1b[Jremembered\r\n")
    leave(terminal)


def test_lines_come_back_from_the_history_also_the_next_time(echo):
    terminal = type_to_remember()
    terminal.expect(PROMPT)
    leave(terminal)
    assert os.path.exists("/tmp/.tessctl_history")
    expect_remembered()


def test_the_history_outlives_an_interruption(echo):
    terminal = type_to_remember()
    terminal.type(b"\x03")  # Ctrl-C
    assert terminal.expect_end() != DONE
    expect_remembered()


def test_words_are_completed(echo):
    terminal = tessctl.on_terminal("console")
    terminal.expect(PROMPT)
    terminal.type(b"del" + TAB)
    terminal.expect(b"DELAY ")
    terminal.type(b"\r")
    terminal.expect(b"OK\r\n")
    terminal.type(b"s3.ECHO first\r")
    terminal.expect(b"\x1b[Jfirst\r\n")
    terminal.type(b"s3.e" + TAB + b"second\r")
    terminal.expect(b"\x1b[Jsecond\r\n")
    terminal.type(b"re" + TAB)
    terminal.expect(b"REINIT  RESET")
    leave_line = b"\x15"  # Ctrl-U
    terminal.type(leave_line)
    leave(terminal)


def test_a_line_that_is_too_long_is_not_sent(tessd):
    terminal = tessctl.on_terminal("console")
    terminal.expect(PROMPT)
    terminal.type(b"x" * 1007 + b"\r")
    terminal.expect(b"Not sent: a line of 1007 bytes is too long, the limit is 1006")
    terminal.type(b"*\r")
    terminal.expect(b"0\r\n")
    leave(terminal)


def test_a_daemon_that_ends_takes_the_console_along(start_tessd):
    tessd = start_tessd()
    terminal = tessctl.on_terminal("console")
    terminal.expect(PROMPT)
    tessd.stop()
    assert terminal.expect_end() == NO_CONNECTION
    assert b"tessctl: /tmp/socket: tessd has closed the connection" in terminal.shown


def test_it_wants_a_terminal_and_a_daemon(tessd):
    tessctl.run("console").expect(
        WRONG_USAGE, "", "tessctl: console wants a terminal; 'tessctl send' reads lines from anywhere\n"
    )
    tessd.stop()
    terminal = tessctl.on_terminal("console")
    assert terminal.expect_end() == NO_CONNECTION
    assert b"is tessd running, and with this port?" in terminal.shown
