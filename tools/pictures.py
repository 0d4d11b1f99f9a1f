#!/usr/bin/python3
"""Draws what tessctl shows at work; runs inside the private namespaces that device_ns.py makes.

    tools/pictures.py BIN-FOLDER FOLDER

Starts tessd and a few processes, has clients send commands, and writes what `tessctl top` and `tessctl watch` show
meanwhile to top.svg and watch.svg in FOLDER.
"""

from __future__ import annotations

import contextlib
import os
import re
import subprocess
import sys
import threading
import time
from collections.abc import Iterator

import ask
from demo import Program, make_account, start_daemon
from screen import Screen
from serial_line import SerialCable
from terminal import Terminal

COLUMNS, ROWS = 80, 24  # of a Terminal
SECONDS = 20.0
ANSWERS = {"THERM": "21.5", "LOAD": "0.08"}
LINES = ("s3.ENC SETX 5", "s3.ENC GETX", "s3.THERM GET", "s3.LOAD GET", "s3.ENC GETX")


@contextlib.contextmanager
def processes(folder: str) -> Iterator[None]:
    """The example process, and two that print an answer."""
    encoder = Program(folder, "encoder")
    encoder.wait_for_log("registered at tessd")
    tessctl = os.path.join(folder, "tessctl")
    serving = []
    for name, answer in ANSWERS.items():
        process = subprocess.Popen([tessctl, "serve", name, "--", "echo", answer], stderr=subprocess.PIPE, text=True)
        serving.append(process)
        process.stderr.readline()  # it is served
    yield
    for process in serving:
        process.terminate()
        process.wait(SECONDS)
    encoder.stop()


def converse(stop: threading.Event) -> None:
    """A client that sends the lines again and again, and waits for each answer."""
    client = ask.LineSocket()
    while not stop.is_set():
        for line in LINES:
            client.ask(line)
        stop.wait(0.02)
    client.close()


def draw_top(tessctl: str, path: str) -> None:
    """As soon as there are rates."""
    with Terminal(tessctl, "top", "--interval", "0.5") as terminal:
        end = time.monotonic() + SECONDS
        while time.monotonic() < end:
            while terminal.look(0.2):  # until it is drawn
                pass
            screen = Screen(COLUMNS, ROWS)
            screen.write(terminal.shown)
            if len(screen.lines) > 1 and not screen.lines[1].startswith("0.0 "):
                write(path, screen.svg("tessctl top"))
                return
        raise SystemExit(f"tessctl top shows no rates: {screen.lines}")


def draw_watch(tessctl: str, path: str) -> None:
    """From a client's coming to its going, and a refusal."""
    with Terminal(tessctl, "watch") as terminal:
        terminal.wait_for(b"watching\r\n", SECONDS)
        session = ask.TelnetSession()
        session.ask("s3.ENC SETX 7")
        session.ask("s3.NONE GETX")
        session.close()
        client = ask.LineSocket()
        client.ask("s3.THERM GET")
        client.ask("s3.LOAD GET")
        client.close()
        shown = terminal.wait_for(b"ipc", SECONDS)
        while not re.search(rb"ipc .*disconnect", shown):
            shown += terminal.wait_for(b"\n", SECONDS)
    screen = Screen(COLUMNS, ROWS)
    screen.write(shown)
    write(path, screen.svg("tessctl watch"))


def write(path: str, text: str) -> None:
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)
    print(path)


def draw(folder: str, to: str) -> None:
    tessctl = os.path.join(os.path.abspath(folder), "tessctl")
    make_account()
    stop = threading.Event()
    with SerialCable():
        daemon = start_daemon(folder)
        with processes(folder):
            draw_watch(tessctl, f"{to}/watch.svg")
            talkers = [threading.Thread(target=converse, args=(stop,)) for _ in range(3)]
            for talker in talkers:
                talker.start()
            time.sleep(1)
            draw_top(tessctl, f"{to}/top.svg")
            stop.set()
            for talker in talkers:
                talker.join()
        daemon.stop()


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("usage: pictures.py BIN-FOLDER FOLDER")
    draw(sys.argv[1], sys.argv[2])
