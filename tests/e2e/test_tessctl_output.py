"""What tessctl prints and cannot get rid of is a failure, and said."""

from __future__ import annotations

import subprocess

import pytest

from harness import settings, tessctl
from harness.clients import IpcClient
from harness.tessctl import REFUSED

pytestmark = tessctl.needs_tessctl

CALLS = [["send", "s3.ECHO X"], ["send", "--json", "s3.ECHO X"], ["ping"], ["check", "ipc"], ["check", "--json", "ipc"],
         ["--help"], ["send", "--help"], ["help"], ["help", "send"], ["--version"]]  # fmt: skip


def end(arguments: list[str], redirection: str) -> tuple[int, str]:
    """Status and errors of a run whose standard descriptors a shell has prepared."""
    command = ["sh", "-c", f'exec "$0" "$@" {redirection}', tessctl.PROGRAM, *arguments]
    done = subprocess.run(command, capture_output=True, text=True, timeout=20 * settings.SLOW, check=False)
    return done.returncode, done.stderr


@pytest.mark.parametrize("arguments", CALLS, ids=" ".join)
@pytest.mark.parametrize("redirection, reason", [(">/dev/full", "No space left on device"), (">&-", "Bad file descriptor")],
                         ids=["full", "closed"])  # fmt: skip
def test_lost_output_is_said_and_no_success(echo, arguments, redirection, reason):
    assert end(arguments, redirection) == (REFUSED, f"tessctl: standard output: {reason}\n")


def test_output_that_is_lost_ends_the_sending(echo):
    with IpcClient() as client:
        client.ask(b"s3.ECHO 0", b"0\r\n\r\n")
        assert end(["send", "s3.ECHO 1", "s3.ECHO 2"], ">/dev/full")[0] == REFUSED
        client.ask(b"s3.ECHO 3", b"3\r\n\r\n")
    assert echo.answered == 3, "the second line was sent, too"


def test_what_prints_nothing_needs_no_output(tessd):
    assert end(["close"], ">&-") == (0, "")


def test_lines_that_cannot_be_read_are_no_success(tessd):
    assert end(["send"], "<&-") == (REFUSED, "tessctl: standard input cannot be read\n")
