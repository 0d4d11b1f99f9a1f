"""End-to-end tests of tessd: the program itself, its sockets, its queues, in namespaces that look like the device.

What can be chosen is described in harness/settings.py. Tests that take longer than a few seconds by their nature are
marked `slow`."""

from __future__ import annotations

import os
import sys
from collections.abc import Callable, Iterator

import pytest

sys.path.insert(0, os.path.dirname(os.path.realpath(__file__)))

from harness import accounts  # noqa: E402
from harness.daemon import LOCAL_PORTS, SOCKET_PORTS, Daemon  # noqa: E402
from harness.hooks import launch_daemons, pytest_configure, pytest_runtest_protocol  # noqa: E402, F401
from harness.mqtt import sound_bridges  # noqa: E402, F401
from harness.queue_process import AnsweringProcess  # noqa: E402
from harness.shifted_clock import ShiftedClock  # noqa: E402


@pytest.fixture
def start_tessd(launch: Callable[..., Daemon]) -> Callable[..., Daemon]:
    """Starts a daemon with the local ports and waits until it says so."""

    def start(*arguments: str, **options: object) -> Daemon:
        return launch(*LOCAL_PORTS, *arguments, **options).wait_running()

    return start


@pytest.fixture
def tessd(start_tessd: Callable[..., Daemon]) -> Daemon:
    """A daemon that serves the local ports."""
    return start_tessd()


@pytest.fixture
def start_socket_tessd(launch: Callable[..., Daemon]) -> Callable[..., Daemon]:
    """Starts a daemon with telnet and the local ports, and accounts to log in with, and waits until it says so."""

    def start(**options: object) -> Daemon:
        return launch(*SOCKET_PORTS, **options).wait_running()

    accounts.install()
    return start


@pytest.fixture
def socket_tessd(start_socket_tessd: Callable[..., Daemon]) -> Daemon:
    """A daemon that serves telnet and the local ports."""
    return start_socket_tessd()


@pytest.fixture
def clock() -> ShiftedClock:
    """A clock that the test sets ahead, for the daemons that are started with its environment."""
    return ShiftedClock()


@pytest.fixture
def clocked_tessd(start_tessd: Callable[..., Daemon], clock: ShiftedClock) -> Daemon:
    """A daemon that serves the local ports and lives by the clock."""
    return start_tessd(environment=clock.environment)


@pytest.fixture
def clocked_socket_tessd(start_socket_tessd: Callable[..., Daemon], clock: ShiftedClock) -> Daemon:
    """A daemon that serves telnet and the local ports and lives by the clock."""
    return start_socket_tessd(environment=clock.environment)


@pytest.fixture
def echo(tessd: Daemon) -> Iterator[AnsweringProcess]:
    """A process that answers with the command."""
    with AnsweringProcess(2001, b"ECHO", lambda command: command + b"\r\n\r\n") as process:
        yield process
