#!/usr/bin/python3
"""Boots the emulated board and shows how to use it; scripts/board runs this.

With a terminal, that becomes the board's console. Without one, a command goes over each port and the board is switched off;
ends with status 0 when everything went as it should.
"""

from __future__ import annotations

import socket
import subprocess
import sys
import time

from board import HOST, PASSWORD, USER, Board, BoardError

SECONDS = 60.0  # more than any step takes; generous: a loaded machine
HOW_TO_USE = """\
The board starts here; this terminal is its console, with a shell of root.

    telnet {host} {port}             log in as {user} with the password {password}; 's3.ENC GETX', 'quit'
    picocom --omap delbs --echo --emap crcrlf,delbs {terminal}
                                    its serial line, for 's3.ENC SETX 7'; Ctrl-A Ctrl-X leaves it
    tessctl console                 on the board: a dialogue over /tmp/socket; Ctrl-D leaves it
    tessctl check                   on the board: what works, port by port
    tail -f /var/log/messages       on the board: the log; Ctrl-C leaves it
    /etc/init.d/tessd restart       on the board
    poweroff                        on the board: ends all of it; so does Ctrl-A X

"""


def on_terminal() -> int:
    with Board(on_terminal=True) as board:
        print(
            HOW_TO_USE.format(host=HOST, port=board.telnet_port, user=USER, password=PASSWORD, terminal=board.com2_terminal),
            flush=True,
        )
        board.start()
        return board.process.wait()


class Telnet:
    """A session of a client that says nothing of its own accord; the server shows it what it types."""

    def __init__(self, port: int) -> None:
        self._socket = socket.create_connection((HOST, port), SECONDS)
        for prompt, keys in (("UserName:\r\n", USER), ("PassWord:\r\n", PASSWORD)):
            self._until(prompt)
            self._socket.sendall(keys.encode() + b"\r\n")
        self._until(f"User {USER} connected\r\n")

    def ask(self, line: str) -> str:
        self._socket.sendall(line.encode() + b"\r\n")
        return self._until("\r\n\r\n").removeprefix(line + "\r\n").rstrip()

    def _until(self, end: str) -> str:
        text = b""
        while not text.endswith(end.encode()):
            piece = self._socket.recv(1)
            if not piece:
                raise BoardError(f"telnet: the board has closed after {text!r}")
            text += piece
        return text.decode()


def ask_com2(board: Board, line: str) -> str:
    board.com2.send(line.encode() + b"\r")
    return board.com2.wait_for(b"\r\n\r\n", SECONDS).decode().rstrip()


def ask_with_tessctl(board: Board, port: str, line: str) -> str:
    """On the console, where log lines are shown too: the answer alone is a number."""
    status, shown = board.run(f"tessctl send --port {port} '{line}'", SECONDS)
    answers = [text for text in shown.splitlines() if text.isdigit()]
    if status != 0 or len(answers) != 1:
        raise BoardError(f"{port}: tessctl ended with status {status} and\n{shown}")
    return answers[0]


def demonstrate(board: Board) -> None:
    begin = time.monotonic()
    board.start()
    board.wait_started(SECONDS)
    print(f"The board has started in {time.monotonic() - begin:.1f} s. A command over each port:\n")
    ask_telnet = Telnet(board.telnet_port).ask
    # The first leaves what the others find.
    for port, line, expected, ask in (
        ("telnet", "s3.ENC SETX 5", "0", ask_telnet),
        ("com2", "s3.ENC GETX", "5", lambda line: ask_com2(board, line)),
        ("ipc", "s3.ENC GETX", "5", lambda line: ask_with_tessctl(board, "ipc", line)),
        ("xcp", "s3.ENC GETX", "5", lambda line: ask_with_tessctl(board, "xcp", line)),
    ):
        answer = ask(line)
        print(f"    {port:<8} {line:<16} -> {answer}")
        if answer != expected:
            raise BoardError(f"{port}: expected {expected!r}, got {answer!r}")
    board.console.send(b"poweroff\n")
    if (status := board.wait_off(SECONDS)) != 0:
        raise BoardError(f"the emulator ended with status {status}")
    print("\nThe board is off.")


def main() -> int:
    if sys.stdin.isatty() and sys.stdout.isatty():
        return on_terminal()
    with Board() as board:
        try:
            demonstrate(board)
        except (BoardError, OSError, subprocess.TimeoutExpired) as error:
            print(f"board: {error}", file=sys.stderr)
            print("--- its console:\n" + board.console.shown.decode(errors="replace"), file=sys.stderr)
            return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
