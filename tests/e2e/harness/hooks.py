"""What every folder of tests with the real program hands to pytest: each test in namespaces of its own, and daemons that must
end in order. A conftest.py takes these names over."""

from __future__ import annotations

import os
from collections.abc import Callable, Iterator

import pytest

from harness import settings
from harness.daemon import Daemon
from harness.isolation import run_isolated


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


@pytest.fixture(name="launch")
def launch_daemons() -> Iterator[Callable[..., Daemon]]:
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
