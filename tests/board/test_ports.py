"""A session on each of the four ports."""

from __future__ import annotations

import re

import pytest
from users import SECONDS, Telnet, expect_on_line, shell, type_on_line


def test_what_one_port_sets_all_others_get(board):
    with Telnet(board) as telnet:
        telnet.ask(b"s3.ENC SETX 42", b"0\r\n\r\n", within=SECONDS)
        type_on_line(board, b"s3.ENC GETX", b"42\r\n\r\n")
        for port in ("ipc", "xcp"):
            assert "42\n" in shell(board, f"tessctl send --port {port} 's3.ENC GETX'")
        telnet.send(b"quit\r\n")
        telnet.expect(b"quit\r\n", within=SECONDS)
        telnet.expect_close(within=SECONDS)


def test_a_wrong_password_is_refused(board):
    with Telnet(board, log_in=False) as telnet:
        telnet.give_name(within=SECONDS)
        telnet.send(b"nonsense\r\n")
        telnet.expect(b"\r\n", within=SECONDS)
        telnet.expect_close(within=SECONDS)
    board.console.wait_for(b"251526 Failed login, password invalid", SECONDS)


@pytest.mark.parametrize("port", ["ipc", "xcp"])
def test_a_dialogue_on_the_console(board, port):
    board.console.rest()
    board.console.send(f"tessctl console --port {port}\n".encode())
    for typed, answer in (b"s3.ENC SETX 7", b"0"), (b"s3.ENC GETX", b"7"), (b"s3.NOBODY X", b"?"), (b"*", b"0"):
        board.console.wait_for(b"tess> ", SECONDS)
        board.console.send(typed + b"\r")
        board.console.wait_for(re.compile(rb"(\n|\x1b\[J)" + re.escape(answer) + rb"\r\n"), SECONDS)
    board.console.wait_for(b"tess> ", SECONDS)
    board.console.send(b"\x04")
    board.console.wait_for(b"board# ", SECONDS)


def test_everything_works_that_can_be_seen_from_the_board(board):
    shown = shell(board, "tessctl check")
    assert "FAILED" not in shown
    assert len(re.findall(r"^ok ", shown, re.MULTILINE)) == 6, shown


@pytest.mark.parametrize(
    ("program", "status", "answer"),
    [
        ("sh -c 'echo half; exit 3'", 1, "Error: sh ended with status 3"),
        ("/nowhere/at-all", 1, "Error: /nowhere/at-all: No such file or directory"),
        ("/etc/passwd", 1, "Error: /etc/passwd: Permission denied"),
        ("cat", 0, "X"),
    ],
)
def test_a_process_of_the_device_that_is_a_program(board, program, status, answer):
    shell(
        board,
        f"tessctl serve PROGRAM -- {program} >/tmp/serve.log 2>&1 & until grep -q 'is served' /tmp/serve.log; do sleep 1; done",
    )
    ended, shown = board.run("tessctl send 's3.PROGRAM X'", SECONDS)
    assert (ended, answer + "\n" in shown) == (status, True), shown


def test_half_lines_and_corrections_are_for_the_line_discipline(board):
    for piece in b"s3.ENC SETX 12", b"3\x08", b"4\r":
        board.com2.send(piece)
    expect_on_line(board, b"0\r\n\r\n")
    type_on_line(board, b"never mind\x17\x17s3.ENC GETX", b"124\r\n\r\n")
