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
CTRL_C, CTRL_D, UP, TAB = b"\x03", b"\x04", b"\x1b[A", b"\t"


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
    assert os.path.exists("/tmp/.local/state/tessctl/history")
    expect_remembered()


def test_the_history_outlives_an_interruption(echo):
    terminal = type_to_remember()
    terminal.process.kill()
    terminal.process.wait()
    expect_remembered()


def test_the_history_of_earlier_versions_is_taken_over(echo):
    with open("/tmp/.tessctl_history", "w", encoding="ascii") as file:
        file.write("_HiStOrY_V2_\ns3.ECHO\\040remembered\n")
    expect_remembered()
    assert not os.path.exists("/tmp/.tessctl_history")


def test_bytes_are_passed_through_where_no_locale_is_set(tessd):
    """The terminal of the harness has LC_ALL=C."""
    with QueueProcess(2001) as process:
        process.register(b"ENC")
        terminal = tessctl.on_terminal("console")
        for text in "Gr\u00f6\u00dfe \u20ac \U0001f600".encode(), b"\xe9t\xe9 \xff\xfe":
            terminal.expect(PROMPT)
            terminal.type(b"s3.ENC " + text + b"\r")
            process.expect_command(text)
        terminal.expect(PROMPT)
        terminal.type(UP + b"\r")  # also out of the history
        process.expect_command(text)
        terminal.expect(b"\r\n" + PROMPT)
        leave(terminal)


def test_ctrl_c_clears_the_line(echo):
    terminal = tessctl.on_terminal("console")
    terminal.expect(PROMPT)
    terminal.type(b"s3.ECHO half")
    terminal.expect(b"half")
    for _ in range(2):  # on an empty line, too
        terminal.type(CTRL_C)
        terminal.expect(b"^C\r\n")
        terminal.expect(PROMPT)
    terminal.type(b"s3.ECHO whole\r")
    terminal.expect(b"\x1b[Jwhole\r\n")
    assert echo.answered == 1
    leave(terminal)


def test_ctrl_z_stops_it_until_it_is_called_back(tessd):
    shell = Terminal("/usr/bin/env", "ASAN_OPTIONS=detect_leaks=0", "bash", "--norc", "-i")
    shell.type(f"PS1='shell> '; {tessctl.PROGRAM} console\r".encode())
    shell.expect(PROMPT)
    shell.type(b"\x1a")
    shell.expect(b"Stopped")
    shell.expect(b"shell> ")
    shell.type(b"fg\r")
    shell.expect(PROMPT)
    shell.type(b"*\r")
    shell.expect(b"0\r\n")
    shell.type(CTRL_D)
    shell.expect(b"shell> ")
    shell.type(b"exit $?\r")
    assert shell.expect_end() == DONE, shell.shown


def test_it_says_how_to_leave_and_to_get_help(echo):
    terminal = tessctl.on_terminal("console")
    hint = b"\\h shows help, \\q or Ctrl-D leaves.\r\n"
    terminal.expect(hint)
    for word in b"quit", b"exit", b"help":
        terminal.expect(PROMPT)
        terminal.type(word + b"\r")
        terminal.expect(b"Not sent: " + hint)
        terminal.expect(b"'* " + word + b"' would send the word to every process.\r\n")
    terminal.expect(PROMPT)
    terminal.type(b"\\h\r")
    terminal.expect(b"Tab completes")
    terminal.expect(PROMPT)
    terminal.type(b"* quit\r")
    terminal.expect(b"\x1b[Jquit\r\n")
    assert echo.answered == 1
    terminal.type(b"\\q\r")
    assert terminal.expect_end() == DONE, terminal.shown


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
