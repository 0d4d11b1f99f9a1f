"""The model test: the program tessd against a model of what it promises, in namespaces that look like the device.

Daemons, clients and processes are those of the end-to-end tests, whose harness/settings.py says what can be chosen."""

from __future__ import annotations

import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.realpath(__file__))), "e2e"))
sys.path.insert(0, os.path.dirname(os.path.realpath(__file__)))

from harness.hooks import pytest_configure, pytest_runtest_protocol  # noqa: E402, F401
