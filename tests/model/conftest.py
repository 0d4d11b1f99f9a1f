"""The model test: the program tessd against a model of what it promises, in namespaces that look like the device.

Daemons, clients and processes are those of the end-to-end tests, whose harness/settings.py says what can be chosen."""

from __future__ import annotations

import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.realpath(__file__))), "e2e"))
sys.path.insert(0, os.path.dirname(os.path.realpath(__file__)))

from harness import settings  # noqa: E402
from harness.hooks import pytest_configure, pytest_runtest_protocol  # noqa: E402, F401

# Hypothesis keeps tables there.
os.environ.setdefault("HYPOTHESIS_STORAGE_DIRECTORY", os.path.join(settings.PROJECT, "build", "hypothesis"))

# Nothing here measures time: a longer wait costs nothing, but when something is missing, and a busy machine is no reason.
settings.SLOW *= 12
