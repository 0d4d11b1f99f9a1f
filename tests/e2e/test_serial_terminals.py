"""The terminal programs for the serial line, with the options that the document for operators gives: backspace works."""

from __future__ import annotations

import os
import re
import shlex
import shutil
from collections.abc import Iterator

import pytest

from harness import settings
from harness.com2 import SerialCable
from harness.terminal import Terminal

PORT = "/dev/ttyUSB0"
DELETE = b"\x7f"  # what the key sends on a terminal of our days

pytestmark = pytest.mark.skipif(settings.emulated(), reason="the programs of this machine are what is tested")


def commands() -> dict[str, str]:
    """What the document says to type, by program."""
    with open(os.path.join(settings.PROJECT, "docs/operators.md"), encoding="utf-8") as file:
        rows = re.findall(rf"^\| (\w+) \| `(.*{PORT}.*?)` \|", file.read(), re.MULTILINE)
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


@pytest.mark.parametrize("program", ["picocom", "minicom", "tio", "screen", "socat"])
def test_backspace_takes_a_character_back(line, program):
    if not shutil.which(program):
        pytest.skip(f"{program} is not installed")
    with Terminal("sh", "-c", "exec " + commands()[program]) as terminal:
        terminal.settle()
        terminal.type(b"**" + DELETE + b"\r")
        terminal.expect(b"0\r")
        terminal.type(b"DELAY 5:0.0|RIGHTTT" + DELETE + DELETE + b"\r")
        terminal.expect(b"OK\r")
        terminal.type(b"DELAY\r")
        terminal.expect(b" RIGHT\r")
