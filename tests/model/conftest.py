"""The model test: the program tessd against a model of what it promises, in namespaces that look like the device.

Daemons, clients and processes are those of the end-to-end tests, whose harness/settings.py says what can be chosen."""

from __future__ import annotations

import os
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.realpath(__file__))), "e2e"))
sys.path.insert(0, os.path.dirname(os.path.realpath(__file__)))

from harness import settings  # noqa: E402
from harness.isolation import run_isolated  # noqa: E402


def pytest_configure(config: pytest.Config) -> None:
    config.addinivalue_line("markers", "deadline(seconds): after this the test is killed")
    if not os.access(settings.TESSD, os.X_OK):
        raise pytest.UsageError(f"{settings.TESSD} is missing: build it, or name its folder in TESSD_BIN_DIR")


@pytest.hookimpl(tryfirst=True)
def pytest_runtest_protocol(item: pytest.Item, nextitem: pytest.Item | None) -> bool:
    item.ihook.pytest_runtest_logstart(nodeid=item.nodeid, location=item.location)
    for report in run_isolated(item, settings.HOSTNAME):
        item.ihook.pytest_runtest_logreport(report=report)
    item.ihook.pytest_runtest_logfinish(nodeid=item.nodeid, location=item.location)
    return True
