"""The terminal programs for the serial line, with the options that the document for operators gives: backspace works."""

from __future__ import annotations

import os
import re
import shutil
from collections.abc import Iterator

import pytest

from harness import settings
from harness.com2 import SerialCable
from harness.terminal import Terminal
from harness.waiting import wait_until

PORT = "/dev/ttyUSB0"
DELETE = b"\x7f"  # what the key sends on a terminal of our days

pytestmark = pytest.mark.skipif(settings.emulated(), reason="the programs of this machine are what is tested")


def commands() -> dict[str, str]:
    """What the document says to type, by program."""
    with open(os.path.join(settings.PROJECT, "docs/operators.md"), encoding="utf-8") as file:
        rows = re.findall(rf"^\| (\w+) \| `([^`]*{PORT}[^`]*)`", file.read(), re.MULTILINE)
    return dict(rows)


@pytest.fixture
def line(launch) -> Iterator[str]:
    """A daemon with the serial line, whose far end is the port of the document."""
    with SerialCable() as cable:
        launch("--notelnet", "--noxcp", "--noipcsocket").wait_running()
        os.symlink(cable.user_device, PORT)
        yield PORT


def test_the_document_has_the_usual_programs():
    assert set(commands()) == {"picocom", "minicom", "tio", "screen", "socat"}


def wait_for_line(terminal: Terminal) -> None:
    """Until an answer comes: what is typed before the program has opened the line gets none."""

    def answered() -> bool:
        terminal.type(b"DELAY\r")
        try:
            terminal.wait_for(b"OK", 1)
        except OSError:
            return False
        return True

    wait_until(answered, "an answer", 20)


@pytest.mark.parametrize("program", ["picocom", "minicom", "tio", "screen", "socat"])
def test_backspace_takes_a_character_back(line, program):
    if not shutil.which(program):
        pytest.skip(f"{program} is not installed")
    with Terminal("sh", "-c", f"cd /tmp; {commands()[program]}") as terminal:
        wait_for_line(terminal)
        terminal.type(b"DELAY 5:0.0|RIGHTTT" + DELETE + DELETE + b"\r")
        terminal.expect(b"OK")
        terminal.type(b"DELAY\r")
        terminal.expect(b" RIGHT")  # with a blank only in the list of what is pending
        terminal.type(b"DELAY CLEAR\r")
        terminal.expect(b"OK")
        assert b" RIGHTT" not in terminal.shown, terminal.shown
