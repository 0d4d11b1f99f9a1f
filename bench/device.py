"""What the benchmarks share: the tests' harness, and namespaces to run in."""

from __future__ import annotations

import os
import sys
import tempfile
from collections.abc import Callable

_PROJECT = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
sys.path[:0] = [os.path.join(_PROJECT, "tests/e2e"), os.path.join(_PROJECT, "tools")]

import device_ns  # noqa: E402
from harness import settings  # noqa: E402
from harness.daemon import Daemon  # noqa: E402


def run(what: Callable[[], None]) -> None:
    """In private namespaces that look like the device."""
    with tempfile.TemporaryDirectory(prefix="tessd-bench-") as folder:
        Daemon.artefacts = os.open(folder, os.O_DIRECTORY | os.O_PATH | os.O_CLOEXEC)
        try:
            device_ns.run_in_device(what, keep=[settings.BIN_DIR])
        finally:
            os.close(Daemon.artefacts)
