"""Tests of tessd on an emulated board, from outside: what its console, its serial line and telnet show. scripts/board --test
builds the board and runs them.

Every test has a board of its own. Points in time are the board's, from its /proc/uptime, where it matters which they are."""

from __future__ import annotations

import os
import pathlib
import sys
from collections.abc import Iterator

import pytest

HERE = pathlib.Path(__file__).resolve().parent
PROJECT = HERE.parents[1]
for folder in ("tools/board", "tools", "tests/e2e", "tests/board"):
    sys.path.insert(0, str(PROJECT / folder))

from board import Board  # noqa: E402
from users import SECONDS  # noqa: E402

FIGURES: dict[str, str] = {}


def pytest_configure() -> None:
    for what in ("TESSD_BOARD_KERNEL", "TESSD_BOARD_IMAGE"):
        if not os.path.exists(os.environ.get(what, "")):
            raise pytest.UsageError(f"{what} names no file: scripts/board --test sets it")


def pytest_terminal_summary(terminalreporter: pytest.TerminalReporter) -> None:
    for name, value in FIGURES.items():
        terminalreporter.write_line(f"{name}: {value}")


@pytest.fixture
def figures() -> dict[str, str]:
    """What is printed at the end, by name."""
    return FIGURES


@pytest.fixture
def board() -> Iterator[Board]:
    """A board on which tessd serves and the encoder has registered. What its console has shown follows a failure."""
    with Board() as started:
        started.start()
        started.wait_started(SECONDS)
        yield started
        print("--- console:\n" + started.console.shown.decode(errors="replace"))
        print(f"--- serial line:\n{started.com2.shown!r}")
