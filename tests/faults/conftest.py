"""What becomes of the daemon when calls of the system fail, when the device has nothing left, and when threads meet at odd
moments. The tests run in namespaces, with the fixtures of the end-to-end tests.

TESSD_FAULTS_PART=K/N takes every N-th row of the table of effects only, from the K-th on.
TESSD_FAULTS_WRITE names a file to which effects are written, a JSON text a line, in place of being compared."""

from __future__ import annotations

import os
import sys

import pytest

HERE = os.path.dirname(os.path.realpath(__file__))
END_TO_END = os.path.join(os.path.dirname(HERE), "e2e")
sys.path[:0] = [HERE, END_TO_END]

import harness.accounts  # noqa: E402
from harness import settings  # noqa: E402
from harness.hooks import launch_daemons, pytest_configure, pytest_runtest_protocol  # noqa: E402, F401

settings.TESSD = os.path.join(settings.BIN_DIR, "faults", "tessd")


@pytest.fixture(autouse=True)
def _accounts() -> None:
    harness.accounts.install()
