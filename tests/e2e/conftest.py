"""End-to-end tests of tessd: the program itself, its sockets, its queues, in namespaces that look like the device.

What can be chosen is described in harness/settings.py. Tests that take longer than a few seconds by their nature are
marked `slow`."""

from __future__ import annotations

import os
import sys
from collections.abc import Callable, Iterator

import pytest

sys.path.insert(0, os.path.dirname(os.path.realpath(__file__)))

from harness import accounts, settings  # noqa: E402
from harness.daemon import LOCAL_PORTS, SOCKET_PORTS, Daemon  # noqa: E402
from harness.isolation import run_isolated  # noqa: E402
from harness.queue_process import AnsweringProcess  # noqa: E402
from harness.shifted_clock import ShiftedClock  # noqa: E402


def pytest_configure(config: pytest.Config) -> None:
    config.addinivalue_line("markers", "slow: takes long because time itself is what it tests")
    config.addinivalue_line("markers", "deadline(seconds): after this the test is killed; 60 without it")
    if not os.access(settings.TESSD, os.X_OK):
        raise pytest.UsageError(f"{settings.TESSD} is missing: build it, or name its folder in TESSD_BIN_DIR")


@pytest.hookimpl(tryfirst=True)
def pytest_runtest_protocol(item: pytest.Item, nextitem: pytest.Item | None) -> bool:
    item.ihook.pytest_runtest_logstart(nodeid=item.nodeid, location=item.location)
    for report in run_isolated(item, settings.HOSTNAME):
        item.ihook.pytest_runtest_logreport(report=report)
    item.ihook.pytest_runtest_logfinish(nodeid=item.nodeid, location=item.location)
    return True


@pytest.fixture
def launch() -> Iterator[Callable[..., Daemon]]:
    """Starts daemons as Daemon() does. Those that still run at the end of the test must then stop in order; none may
    have left a sanitizer's report."""
    started: list[Daemon] = []

    def start(*arguments: str, **options: object) -> Daemon:
        daemon = Daemon(*arguments, **options)
        started.append(daemon)
        return daemon

    yield start
    for daemon in started:
        if not daemon.end_seen:
            daemon.stop()
        daemon.expect_no_sanitizer_report()


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
