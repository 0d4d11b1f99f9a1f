"""Tests of what is installed: the library for device processes, and the Debian packages.

TESSD_BUILD_DIR names the build that is installed from, build/release without it; the packages are those of scripts/package.
"""

from __future__ import annotations

import os
import pathlib
import re
import shutil
import subprocess
import sys

import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("TESSD_BUILD_DIR") or PROJECT / "build/release").resolve()
PACKAGES = PROJECT / "build/packages"

sys.path.insert(0, str(PROJECT / "tools"))
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

import service_manager  # noqa: E402


def pytest_configure(config: pytest.Config) -> None:
    config.addinivalue_line("markers", "slow: takes more than a few seconds")


def run(*command: str | os.PathLike, seconds: float = 300, **options: object) -> str:
    """Runs a command that must succeed; returns what it printed."""
    words = [os.fspath(word) for word in command]
    done = subprocess.run(
        words, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False, timeout=seconds, **options
    )
    assert done.returncode == 0, f"{' '.join(words)} ended with {done.returncode}:\n{done.stdout}"
    return done.stdout


@pytest.fixture(scope="session")
def prefix(tmp_path_factory: pytest.TempPathFactory) -> pathlib.Path:
    """Everything installed under a prefix of its own."""
    folder = tmp_path_factory.mktemp("prefix")
    run("cmake", "--install", BUILD, "--prefix", folder)
    return folder


@pytest.fixture(scope="session")
def packages(tmp_path_factory: pytest.TempPathFactory) -> pathlib.Path:
    """The packages, and tessd and the bridge once more as later versions."""
    service_manager.make_root()
    folder = tmp_path_factory.mktemp("packages")
    for package in PACKAGES.glob("*.deb"):
        shutil.copy(package, folder)
    for package, later in (("tessd", "later"), ("tess-mqtt", "later-bridge")):
        tree = folder / "tree"
        run("dpkg-deb", "-R", next(folder.glob(f"{package}_*.deb")), tree)
        control = (tree / "DEBIAN/control").read_text()
        control = re.sub(r"(?m)^Version: .*", "Version: 99.0", control)
        (tree / "DEBIAN/control").write_text(re.sub(r"tessd \(= .*?\)", "tessd (= 99.0)", control))
        run("dpkg-deb", "--root-owner-group", "-b", tree, folder / f"{later}_{package}.deb")
        shutil.rmtree(tree)
    return folder
