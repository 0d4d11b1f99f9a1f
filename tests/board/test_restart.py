"""RESET, and what becomes of those who were connected."""

from __future__ import annotations

import re

import pytest
from users import SECONDS, Telnet, shell, type_on_line, wait_until

BOOT = b"Linux version "


def expect_next_session(board) -> None:
    """The board comes up again, with everything forgotten and everything served."""
    board.console.wait_for(BOOT, SECONDS)
    board.wait_started(SECONDS)
    board.com2.rest()
    type_on_line(board, b"s3.ENC GETX", b"0\r\n\r\n")
    with Telnet(board) as telnet:
        assert telnet.get() == 0
    assert "0\n" in shell(board, "tessctl send --port xcp 's3.ENC GETX'")


def is_gone(client: Telnet) -> bool:
    """Whether the board does not know the connection any more, as seen when something is sent there."""
    client.socket.settimeout(1)
    try:
        client.socket.sendall(b"*\r\n")
        return client.socket.recv(4096) == b""
    except TimeoutError:
        return False
    except OSError:
        return True


@pytest.mark.parametrize("port", ["telnet", "com2", "ipc"])
def test_reset_typed_by_an_operator_restarts_the_board(board, port):
    client = Telnet(board)
    client.ask(b"s3.ENC SETX 9", b"0\r\n\r\n", within=SECONDS)
    board.console.rest()
    if port == "telnet":
        client.send(b"RESET\r\n")
    elif port == "com2":
        board.com2.send(b"RESET\r")
    else:
        board.console.send(b"tessctl console\n")
        board.console.wait_for(b"tess> ", SECONDS)
        board.console.send(b"RESET\r")
    shown = board.console.wait_for(BOOT, SECONDS)
    # It is the kernel that restarts, in the midst of everything; nothing was stopped before.
    assert b"51001 Normal application exit" not in shown
    board.wait_started(SECONDS)
    wait_until(lambda: is_gone(client), "an old connection that has ended")
    client.close()
    board.com2.rest()
    type_on_line(board, b"s3.ENC GETX", b"0\r\n\r\n")
    with Telnet(board) as telnet:
        assert telnet.get() == 0


def test_everybody_is_served_until_the_restart(board):
    with Telnet(board) as telnet:
        telnet.send(b"RESET\r\n")
        telnet.expect(b"RESET\r\n", within=SECONDS)
        telnet.expect_alive()
        type_on_line(board, b"s3.ENC SETX 9", b"0\r\n\r\n")
    expect_next_session(board)


def test_a_re_initialisation_runs_first(board):
    shell(
        board,
        "mkdir -p /usr/lib/tess && printf '#!/bin/sh\\necho re-initialised >/dev/console\\n' >/usr/lib/tess/version-reinit && "
        "chmod +x /usr/lib/tess/version-reinit",
    )
    with Telnet(board) as telnet:
        telnet.send(b"RESET REINIT demo\r\n")
        shown = board.console.wait_for(BOOT, SECONDS)
    assert re.search(rb"^re-initialised\r?$", shown, re.MULTILINE), shown


def test_a_reset_for_another_host_is_refused(board):
    with Telnet(board) as telnet:
        telnet.ask(b"RESET REINIT s3", b"Error Processing Reset Command.\r\n\r\n", within=SECONDS)
        assert telnet.get() == 0
