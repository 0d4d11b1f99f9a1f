"""What scripts/run and scripts/fleet show, and what their shells let a newcomer do."""

from __future__ import annotations

import os
import re
import subprocess
import sys

import pytest

from harness import settings
from harness.mqtt import needs_bridge
from harness.terminal import Terminal

# A terminal's program gets no environment from us but this.
DEMO = (
    "env",
    f"LSAN_OPTIONS=suppressions={settings.PROJECT}/tests/lsan.supp:print_suppressions=0",
    sys.executable,
    os.path.join(settings.PROJECT, "tools/demo.py"),
    settings.BIN_DIR,
)
PATHS = [f"{name}={os.environ[name]}" for name in ("PATH", "LD_LIBRARY_PATH") if name in os.environ]
FLEET = (*DEMO[:2], *PATHS, sys.executable, os.path.join(settings.PROJECT, "tools/fleet.py"), settings.BIN_DIR, "2")
PROMPT = b"[inside the device]"

pytestmark = pytest.mark.skipif(settings.emulated(), reason="the demo starts programs of this machine only")


def test_without_a_terminal_it_shows_a_command_over_each_port_and_ends():
    done = subprocess.run(DEMO, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=50)
    assert (done.returncode, done.stderr) == (0, ""), done.stdout + done.stderr
    shown = [line.split() for line in done.stdout.splitlines() if " -> " in line]
    assert shown == [
        ["telnet", "s3.ENC", "SETX", "5", "->", "0"],
        ["/dev/ttyS1", "s3.ENC", "GETX", "->", "5"],
        ["/tmp/socket", "s3.ENC", "GETX", "->", "5"],
        ["/tmp/xcp", "s3.ENC", "GETX", "->", "5"],
    ]
    assert done.stdout.endswith("tessd and the example process have stopped.\n")


def test_the_first_screen_of_the_readme_is_what_it_prints():
    with open(os.path.join(settings.PROJECT, "README.md"), encoding="utf-8") as file:
        (shown,) = re.findall(r"^```console\n\$ scripts/run\n(.*?)^```$", file.read(), re.MULTILINE | re.DOTALL)
    done = subprocess.run(DEMO, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=50)
    assert shown.count(" -> ") == 4 and shown in done.stdout, f"README.md shows\n{shown}\nand the demo prints\n{done.stdout}"


def test_a_daemon_that_does_not_start_is_reported():
    os.makedirs(f"{settings.XCP_PATH}/in the way")
    done = subprocess.run(DEMO, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=50)
    assert done.returncode == 1
    assert "demo: tessd ended with status 1\n" in done.stderr and "51008 Error runtime" in done.stderr


def test_in_its_shell_every_port_can_be_tried_by_hand():
    with Terminal(*DEMO) as newcomer:
        newcomer.expect(PROMPT, within=20)
        newcomer.type(b"telnet 127.0.0.1\r")
        newcomer.expect(b"UserName:\r\n")
        newcomer.type(b"alice\r")
        newcomer.expect(b"PassWord:\r\n")
        newcomer.type(b"wonderland\r")
        newcomer.expect(b"User alice connected\r\n")
        newcomer.type(b"s3.ENC GETX\r")
        newcomer.expect(b"\r\n5\r\n\r\n")
        newcomer.type(b"quit\r")
        newcomer.expect(PROMPT)
        assert newcomer.shown.count(b"wonderland") == 1, "only the demo's own text shows the password"

        newcomer.type(b"com2\r")
        newcomer.expect(b"Terminal ready\r\n")
        newcomer.type(b"s3.ENC SETX 7\r")
        newcomer.expect(b"s3.ENC SETX 7\r\n0\r\n\r\n")
        newcomer.type(b"s3.ENC GETXY\x7f\r")  # the Backspace key
        newcomer.expect(b"s3.ENC GETXY\x08\r\n7\r\n\r\n")
        newcomer.type(b"\x01\x18")
        newcomer.expect(PROMPT)

        for line, answer in (
            (b"ask socket 's3.ENC GETX'", b"7\r\n\r\n"),
            (b"ask xcp 's3.ENC GETX'", b"7\r\n\r\n"),
            (b"tessctl send 's3.ENC GETX'", b"7\r\n"),
            (b"ask telnet '*' 's3.ENC GETX'", b"0\r\n\r\n7\r\n\r\n"),
            (b"ask com2 '*' 's3.ENC GETX'", b"0\r\n\r\n7\r\n\r\n"),
            (b"ask socket 's3.NONE GETX'", b"?\r\n"),
            (b"ask socket 'DELAY 10.0|s3.ENC SETX 9' DELAY", b"000:00:0"),
            (b"tail -n 1 /tmp/tessd.log", b"[TESS]"),
        ):
            newcomer.type(line + b"\r")
            newcomer.expect(answer)
            newcomer.expect(PROMPT)
        newcomer.type(b"python3 examples/echo.py &\r")
        newcomer.expect(b"registered at tessd as ECHO\r\n")
        for line, answer in (
            (b"tessctl send 's3.ECHO hello'", b"\rhello\r\n"),
            (b"kill $!; wait $!; echo 'en'ded", b"ended\r\n"),
        ):
            newcomer.type(line + b"\r")
            newcomer.expect(answer)
        newcomer.type(b"exit\r")
        newcomer.expect(b"tessd and the example process have stopped.\r\n")
        assert newcomer.expect_end() == 0


@pytest.fixture
def cables() -> None:
    """Devices of a fleet are connected by virtual cables, which not every kernel has."""
    made = "ip link add b0 type bridge && ip link add v0 type veth peer name v1"
    tried = subprocess.run(["unshare", "-n", "sh", "-c", made], capture_output=True, text=True)
    if tried.returncode != 0:
        pytest.skip(f"no virtual cables: {tried.stderr}")


@needs_bridge
def test_a_fleet_of_two_answers_over_tls_one_at_a_time_and_both_at_once(cables):
    done = subprocess.run(FLEET, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=100 * settings.SLOW)
    assert (done.returncode, done.stderr) == (0, ""), done.stdout + done.stderr
    answers = [re.sub(r"ms:\d+", "ms:N", line.strip()) for line in done.stdout.splitlines() if line.startswith("  status:")]
    assert answers == [
        "status:answered ms:N device:d1 | 0",
        "status:answered ms:N device:d1 | 5",
        "status:refused ms:N device:d1 | ?",
    ]
    assert re.search(r"d1 +answered +\d+ +5\n +d2 +answered +\d+ +0\n +2 answered\n", done.stdout), done.stdout


@needs_bridge
def test_in_the_shell_of_a_fleet_what_it_names_can_be_tried(cables):
    with Terminal(*FLEET) as newcomer:
        newcomer.expect(b"fleet$ ", within=60)
        newcomer.type(b"tessctl fleet send 's3.ENC SETX 7' --all\r")
        newcomer.expect(b"2 answered", within=20)
        newcomer.expect(b"fleet$ ", within=20)
        newcomer.type(b"/tmp/fleet/rr tess/d2/command 's3.ENC GETX'\r")
        newcomer.expect(b"device:d2 | 7", within=20)
        newcomer.type(b"exit\r")
        assert newcomer.expect_end() == 0
