"""The init script, with the tools of Debian and with those of BusyBox."""

from __future__ import annotations

import os
import pathlib
import re
import shutil
import socket
import subprocess
import time
from collections.abc import Callable

import pytest

import device_ns  # of tools/
from conftest import PROJECT

pytestmark = pytest.mark.skipif(os.geteuid() != 0, reason="needs root, to give a folder to a group")

PID_FILE = pathlib.Path("/run/tessd.pid")
APPLETS = ("cat", "chgrp", "chmod", "grep", "mkdir", "rm", "sh", "sleep", "start-stop-daemon")
RUNNING, ENDED, NOT_RUNNING, WRONG_USAGE, NOT_INSTALLED = 0, 1, 3, 2, 5


class Script:
    """The installed script, with its paths below the prefix; inside the namespaces."""

    def __init__(self, prefix: pathlib.Path, folder: pathlib.Path, tools: str) -> None:
        text = next(prefix.rglob("tessd.init")).read_text()
        for name, path in (("DAEMON", prefix / "sbin/tessd"), ("PREPARE", prefix / "libexec/tess/prepare-device")):
            text, count = re.subn(rf"^{name}=/.*/{path.name}$", f"{name}={path}", text, flags=re.MULTILINE)
            assert count == 1, name
        self.shell = ["dash"]
        if tools == "busybox":
            for applet in APPLETS:
                (folder / applet).symlink_to(str(shutil.which("busybox")))
            # With tessctl, which the other one does without.
            text = text.replace("\nPATH=", f"\nPATH={folder}:{prefix / 'bin'}:", 1)
            self.shell = ["busybox", "sh"]
        self.path = folder / "tessd"
        self.path.write_text(text)

    def __call__(self, action: str, status: int = 0) -> str:
        done = subprocess.run(
            [*self.shell, str(self.path), action],
            env={},
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            timeout=60,
            check=False,
        )
        assert done.returncode == status, f"{action}: expected status {status}, got {done.returncode}:\n{done.stdout}"
        return done.stdout


@pytest.fixture(params=["debian", "busybox"])
def inside(request, prefix, tmp_path) -> Callable[[Callable[[Script], None]], None]:
    """Runs a test with the script in private namespaces with a group tess and no settings."""
    script = Script(prefix, tmp_path, request.param)

    def run(test: Callable[[Script], None]) -> None:
        def prepared() -> int:
            os.mkdir("/tmp/default")
            device_ns.bind("/tmp/default", "/etc/default")
            groups = pathlib.Path("/etc/group").read_text()
            pathlib.Path("/tmp/group").write_text(re.sub(r"^tess:.*\n", "", groups, flags=re.MULTILINE) + "tess:x:64999:\n")
            device_ns.bind("/tmp/group", "/etc/group")
            test(script)
            return 0

        assert device_ns.run_in_device(prepared, keep=[prefix, tmp_path, PROJECT]) == 0

    return run


def pid() -> int:
    return int(PID_FILE.read_text())


def expect_served() -> None:
    with socket.socket(socket.AF_UNIX) as client:
        client.settimeout(20)
        client.connect("/tmp/socket")
        client.sendall(b"*\n")
        assert client.recv(100) == b"0\r\n\r\n"


def test_from_the_start_to_the_stop(inside):
    def test(script: Script) -> None:
        assert script("status", NOT_RUNNING) == "tessd is not running.\n"
        assert script("start") == "Starting tessd: done.\n"
        assert script("status") == "tessd is running.\n"
        expect_served()
        first = pid()
        assert script("start") == "Starting tessd: done.\n"
        assert pid() == first, "a second one was started"
        assert script("restart") == "Stopping tessd: done.\nStarting tessd: done.\n"
        assert pid() != first
        expect_served()
        assert script("stop") == "Stopping tessd: done.\n"
        for path in ("/tmp/socket", "/tmp/xcp", "/run/tess/queue/1001", PID_FILE):
            assert not os.path.lexists(path), path
        assert script("stop") == "Stopping tessd: done.\n"
        assert script("try-restart") == ""
        script("status", NOT_RUNNING)

    inside(test)


def test_group_tess_may_use_it_and_nobody_else(inside):
    def test(script: Script) -> None:
        script("start")
        for path, mode in (
            ("/run/tess", 0o40755),
            ("/run/tess/queue", 0o42770),
            ("/run/tess/queue/1001", 0o140660),
            ("/tmp/socket", 0o140770),
            ("/tmp/xcp", 0o140770),
        ):
            status = os.stat(path)
            assert oct(status.st_mode) == oct(mode), path
            assert status.st_gid == (0 if path == "/run/tess" else 64999), path
        script("stop")

    inside(test)


def test_settings_are_read_as_systemd_reads_them(inside):
    def test(script: Script) -> None:
        pathlib.Path("/etc/default/tessd").write_text(
            "# a comment\nTESSD_OPTIONS=--notelnet --nocom2\nTESS_REINIT=\"/opt/re init\"\nPLAIN='a b'\nnothing\nLAST=1"
        )
        script("start")
        process = pathlib.Path(f"/proc/{pid()}")
        assert process.joinpath("cmdline").read_text().split("\0")[1:] == ["--notelnet", "--nocom2", ""]
        environment = process.joinpath("environ").read_text().split("\0")
        for setting in ("TESS_LOG=syslog", "TESS_REINIT=/opt/re init", "PLAIN=a b", "LAST=1"):
            assert setting in environment, f"{setting} is not in {environment}"
        script("stop")

    inside(test)


def test_a_start_that_fails_is_said(inside):
    def test(script: Script) -> None:
        with socket.create_server(("127.0.0.1", 23)):
            assert script("start", 1).endswith("Starting tessd: failed.\n")
        assert script("status", ENDED) == "tessd has ended, but its /run/tessd.pid is there.\n"
        script("start")
        expect_served()
        script("stop")

    inside(test)


def test_another_process_with_the_daemons_number_is_left_alone(inside):
    def test(script: Script) -> None:
        other = subprocess.Popen(["sleep", "1000"])
        PID_FILE.write_text(f"{other.pid}\n")
        script("status", ENDED)
        script("stop")
        assert other.poll() is None
        script("start")
        assert pid() != other.pid
        script("stop")
        other.kill()
        other.wait()

    inside(test)


def test_a_daemon_that_was_killed_is_started_again(inside):
    def test(script: Script) -> None:
        script("start")
        os.kill(pid(), 9)
        end = time.monotonic() + 20
        while os.path.exists(f"/proc/{pid()}") and time.monotonic() < end:
            time.sleep(0.01)
        script("status", ENDED)
        script("start")
        expect_served()
        script("stop")

    inside(test)


def test_wrong_usage(inside):
    def test(script: Script) -> None:
        assert script("begin", WRONG_USAGE).startswith("usage: ")
        script.path.write_text(re.sub(r"^DAEMON=.*$", "DAEMON=/nowhere/tessd", script.path.read_text(), flags=re.MULTILINE))
        script("start", NOT_INSTALLED)

    inside(test)
