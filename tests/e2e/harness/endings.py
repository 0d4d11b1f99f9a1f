"""How a daemon with all its ports ends: when, and whether it leaves anything open."""

from __future__ import annotations

import os
import re
import signal
import time
from collections.abc import Callable

from harness import com2, settings, wire
from harness.answers import StoodInLine
from harness.daemon import (
    CLOSING_ALL,
    COM2_PORT_CLOSED,
    IPC_PORT_CLOSED,
    NORMAL_EXIT,
    TELNET_PORT_CLOSED,
    XCP_PORT_CLOSED,
    Daemon,
)
from harness.queue_process import QueueProcess, queue_path

_OPENED = {"telnet": (6000, "Opened telnet connection"), "XCP": (36106, "Opened IPC socket connection")}
_CLOSED = {
    "telnet": re.compile(r"Telnet connection closed for .*\.  Active connections = (\d+)"),
    "XCP": re.compile(r"XCP socket connection closed\.  Active connections = (\d+)"),
}
ALL_CLOSED = [
    CLOSING_ALL,
    com2.CONNECTION_CLOSED,
    COM2_PORT_CLOSED,
    TELNET_PORT_CLOSED,
    XCP_PORT_CLOSED,
    IPC_PORT_CLOSED,
    NORMAL_EXIT,
]
AT_ONCE = 0.5  # seconds from a signal to the end
SERVED_AFTER_STOP = 2.0  # seconds from a stop message to the teardown


def end_by_signal(tessd: Daemon, number: int = signal.SIGTERM) -> float:
    """Sends it and waits for the end. Returns the seconds that it took, as time_to_end() does."""
    return time_to_end(tessd, lambda: tessd.signal(number))


def time_to_end(tessd: Daemon, what: Callable[[], object]) -> float:
    """Seconds from the begin of `what` to the end of the daemon, without those in which others had the processors."""
    in_line = StoodInLine(tessd.pid)
    began = time.monotonic()
    what()
    deadline = began + 20 * settings.SLOW
    while not tessd.ended() and time.monotonic() < deadline:
        in_line.seconds()
        time.sleep(0.002)
    seconds = time.monotonic() - began - in_line.seconds()
    tessd.wait_end(0.1)
    return seconds


def send_stop_message() -> None:
    with QueueProcess(2999) as process:
        process.send(wire.record(wire.STOP))


def expect_end_at_once(tessd: Daemon) -> None:
    """SIGTERM ends it whatever anybody waits for."""
    seconds = end_by_signal(tessd)
    assert seconds <= AT_ONCE * settings.SLOW, f"ended {seconds:.2f} s after SIGTERM\n{tessd.log_text()}"


def expect_whole_end(tessd: Daemon, nothing_lost: bool = True) -> None:
    """It has ended: status 0, every connection and port closed with its line, no file left.

    nothing_lost    all log lines before the end are there too"""
    tessd.expect_normal_end(0.1)
    entries = tessd.entries()
    end = entries.index(CLOSING_ALL)
    at_last = [entry for entry in entries[end:] if entry in ALL_CLOSED]
    assert at_last == ALL_CLOSED, f"expected the lines {ALL_CLOSED} in this order, got\n{tessd.log_text()}"
    for kind, (identifier, text) in _OPENED.items():
        opened = sum(entry[0] == identifier and entry[1].startswith(text) for entry in entries)
        left = [int(match[1]) for entry in entries if (match := _CLOSED[kind].fullmatch(entry[1]))]
        assert (
            len(left) >= opened or not nothing_lost
        ), f"{opened} {kind} connections opened, {len(left)} closed\n{tessd.log_text()}"
        assert not left or left[-1] == 0, f"{left[-1]} {kind} connections left open\n{tessd.log_text()}"
    expect_no_files()


def expect_no_files() -> None:
    files = (queue_path(wire.DAEMON), settings.IPC_PATH, settings.XCP_PATH)
    left = [path for path in files if os.path.lexists(path)]
    assert not left, f"left behind: {left}"
