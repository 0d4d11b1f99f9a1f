"""Commands for another device: two systems, and between them a network and ssh as they are everywhere.

Needs what test_packages.py needs."""

from __future__ import annotations

import contextlib
import pathlib
import subprocess
from collections.abc import Iterator

import pytest
from service_manager import NONE, System, connect
from terminal import Terminal
from test_packages import as_user, install, pytestmark  # noqa: F401

DEVICE = "me@device"


def let_in(desk: System, device: System) -> None:
    """alice at her desk becomes `me` on the device, by her key; neither has a password."""
    desk.run("useradd", "--create-home", "alice")
    device.run("useradd", "--create-home", "--groups", "tess", "--shell", "/bin/sh", "me")
    desk.run("runuser", "-u", "alice", "--", "ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", "/home/alice/.ssh/id_ed25519")
    key = desk.run("cat", "/home/alice/.ssh/id_ed25519.pub")
    device.run("sh", "-c", f"mkdir ~me/.ssh && echo '{key.strip()}' >~me/.ssh/authorized_keys && chown -R me: ~me/.ssh")
    known = device.run("cat", "/etc/ssh/ssh_host_ed25519_key.pub")
    desk.run("sh", "-c", f"echo '10.0.0.2 device' >>/etc/hosts; echo 'device {known.strip()}' >/etc/ssh/ssh_known_hosts")


@pytest.fixture
def device(packages: pathlib.Path) -> Iterator[System]:
    with System(packages) as system:
        install(system, "tessd", "tess-tools")
        encoder = system.start("/usr/libexec/tess/encoder", stderr=subprocess.PIPE)
        assert b"registered" in encoder.stderr.readline()
        yield system
        system.end(encoder)


@pytest.fixture
def desk(packages: pathlib.Path, device: System) -> Iterator[System]:
    """Where nobody has a daemon."""
    with System(packages, NONE) as system:
        install(system, "tess-tools")
        connect(system, device)
        let_in(system, device)
        device.run("sh", "-c", "mkdir -p /run/sshd && /usr/sbin/sshd")
        yield system


def there(desk: System, *words: str) -> tuple[int, str, str]:
    done = as_user(desk, "alice", "tessctl", *words)
    return done.returncode, done.stdout, done.stderr


def test_a_command_is_answered_there(desk, device):
    assert there(desk, "send", "-H", DEVICE, "s3.ENC SETX 5", "s3.ENC GETX") == (0, "0\n5\n", "")
    assert there(desk, "send", "-H", DEVICE, "s3.NONE it's $HOME") == (1, "?\n", "")
    status, said, error = there(desk, "check", "-H", DEVICE, "queue", "daemon", "ipc", "xcp", "telnet")
    assert (status, error, said.count("ok ")) == (0, "", 5), said
    status, said, error = there(desk, "ping", "ipc")
    assert status == 1 and "/tmp/socket" in error, (said, error)  # here there is none

    terminal = Terminal(*desk.words("runuser", "-u", "alice", "--", "tessctl", "console", "-H", DEVICE))
    terminal.wait_for(b"tess> ", 10)
    terminal.type(b"s3.ENC GETX\r")
    terminal.wait_for(b"\x1b[J5\r\n", 10)
    terminal.type(b"\x04")
    assert terminal.wait_end(10) == 0

    device.run("sh", "-c", "kill $(cat /run/sshd.pid)")
    status, said, error = there(desk, "send", "-H", DEVICE, "s3.ENC GETX")
    assert (status, said) == (255, "") and "Connection refused" in error, (status, said, error)


@contextlib.contextmanager
def running_there(desk: System, *words: str, until: str) -> Iterator[subprocess.Popen]:
    """Leaves it to whoever calls to end it."""
    process = desk.start("runuser", "-u", "alice", "--", "tessctl", *words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                         stderr=subprocess.PIPE, text=True)  # fmt: skip
    try:
        said = process.stderr.readline()
        assert until in said, said
        yield process
    finally:
        if process.poll() is None:
            desk.end(process)


def end_ssh(desk: System) -> None:
    """As Ctrl-C does."""
    for status in pathlib.Path(desk.path("/proc")).glob("[0-9]*/comm"):
        with contextlib.suppress(OSError):
            if status.read_text() == "ssh\n":
                desk.run("kill", "-INT", status.parent.name)


@pytest.mark.parametrize(
    "words, until",
    [(["serve", "CAT", "--", "cat"], "CAT is served"), (["listen", "CAT"], "listening as CAT")],
    ids=["serve", "listen"],
)
def test_what_ends_here_ends_there(desk, device, words, until):
    with running_there(desk, words[0], "-H", DEVICE, *words[1:], until=until) as process:
        end_ssh(desk)
        assert process.wait(10) != 0
        device.wait(lambda: device.run("tessctl", "send", "s3.CAT X", check=False) == "?\n", "the end there")


def test_watch_ends_there_when_it_ends_here(desk, device):
    with running_there(desk, "watch", "-H", DEVICE, until="watching") as process:
        assert '"watchers": 1\n' in device.run("tessctl", "status", "--json")
        end_ssh(desk)
        assert process.wait(10) != 0
        device.wait(lambda: '"watchers": 0\n' in device.run("tessctl", "status", "--json"), "the end there")
