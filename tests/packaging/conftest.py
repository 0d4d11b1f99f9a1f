"""Tests of what is installed: the library for device processes, and the Debian packages.

TESSD_BUILD_DIR names the build that is installed from, build/release without it; the packages are those of scripts/package.
"""

from __future__ import annotations

import os
import pathlib
import subprocess
import sys

import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("TESSD_BUILD_DIR") or PROJECT / "build/release").resolve()
PACKAGES = PROJECT / "build/packages"

sys.path.insert(0, str(PROJECT / "tools"))
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))


def pytest_configure(config: pytest.Config) -> None:
    config.addinivalue_line("markers", "slow: takes more than a few seconds")


def run(*command: str | os.PathLike, **options: object) -> str:
    """Runs a command that must succeed; returns what it printed."""
    words = [os.fspath(word) for word in command]
    done = subprocess.run(words, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False, timeout=300, **options)
    assert done.returncode == 0, f"{' '.join(words)} ended with {done.returncode}:\n{done.stdout}"
    return done.stdout


@pytest.fixture(scope="session")
def prefix(tmp_path_factory: pytest.TempPathFactory) -> pathlib.Path:
    """Everything installed under a prefix of its own."""
    folder = tmp_path_factory.mktemp("prefix")
    run("cmake", "--install", BUILD, "--prefix", folder)
    return folder
