"""The bridge to a broker at work, installed and set up as docs/fleet.md says: Debian's mosquitto, with TLS, as the service that
it is there.

Needs what test_packages.py needs."""

from __future__ import annotations

import os
import pathlib
import subprocess
import textwrap
from collections.abc import Iterator

import pytest
from conftest import PROJECT
from service_manager import System
from test_packages import SECCOMP_FILTER, Client, files, install, pytestmark  # noqa: F401

CONF = "/etc/tess/mqtt.conf"
WRONG_SETTINGS = 78
DEVICE = "d1"
FOLDER = "/srv/fleet"  # where somebody makes the certificates, and asks


def example(first: str) -> str:
    """The example of the document that begins with these words."""
    lines = (PROJECT / "docs/fleet.md").read_text(encoding="utf-8").splitlines()
    (start,) = [number for number, line in enumerate(lines) if line.startswith("    ") and line.lstrip().startswith(first)]
    indent = len(lines[start]) - len(lines[start].lstrip())
    end = next(number for number in range(start, len(lines)) if lines[number].strip() and lines[number][:indent].strip())
    return textwrap.dedent("\n".join(lines[start:end])).strip() + "\n"


def certificates() -> str:
    """The broker's as it stands there, and one for a device and an operator by the same commands."""
    steps = example("openssl req -x509")
    name = steps[steps.index("openssl req -newkey") :].replace(" -extfile broker.ext", "")
    name = name.replace('echo "subjectAltName=DNS:broker.example" >broker.ext\n', "")
    assert "broker.ext" in steps and "broker.ext" not in name, steps
    return steps + "".join(
        name.replace("broker", file).replace(f"/CN={file}", f"/CN={who}")
        for file, who in (("device", DEVICE), ("me", "operator"))
    )


SET_UP = """
set -eu
cd /srv/fleet
sh -eu certificates.sh
install -o mosquitto -m 400 ca.crt broker.crt broker.key /etc/mosquitto/certs
install -g tess-mqtt -m 640 ca.crt device.crt device.key /etc/tess
install -D -m 600 fleet.conf /root/.config/tess/fleet.conf
echo 127.0.0.1 broker.example >>/etc/hosts
"""


def set_up(system: System) -> None:
    bridge = example("broker = broker.example")
    assert f"device = {DEVICE}\n" in bridge, bridge
    operator = "".join(line.replace("/etc/tess/device", f"{FOLDER}/me") + "\n" for line in bridge.splitlines()[:4])
    os.mkdir(system.path(FOLDER))
    for path, text in (
        (f"{FOLDER}/certificates.sh", certificates()),
        (f"{FOLDER}/fleet.conf", operator),
        ("/etc/mosquitto/conf.d/fleet.conf", example("listener 8883")),
        ("/etc/mosquitto/acl", example("user operator")),
        (CONF, bridge),
    ):
        pathlib.Path(system.path(path)).write_text(text)
    system.run("sh", "-c", SET_UP)


def shown(system: System, what: str) -> str:
    return system.run("systemctl", "show", "-P", what, "tess-mqtt").strip()


def in_folder(system: System, command: str) -> str:
    return system.run("sh", "-c", f"cd {FOLDER} && HOME=/root {command}").strip()


def ask(system: System, line: str, name: str = "1") -> str:
    """The properties of the answer, and its text: by the command of the document."""
    command = example("mosquitto_rr").replace("'s3.ENC GETX'", f"'{line}' -F '%P | %p' -W 10")
    assert f"-t tess/{DEVICE}/command" in command and "correlation-data 1 " in command, command
    return in_folder(system, command.replace("correlation-data 1 ", f"correlation-data {name} "))


def status(system: System) -> str:
    """What the broker keeps of the device."""
    tls = "--cafile ca.crt --cert me.crt --key me.key"
    return in_folder(system, f"mosquitto_sub -V 5 -h broker.example -p 8883 {tls} -t tess/{DEVICE}/status -C 1 -W 10")


def start_broker(system: System) -> None:
    os.unlink(system.path("/etc/systemd/system/mosquitto.service"))
    system.run("systemctl", "daemon-reload")
    system.run("systemctl", "start", "mosquitto")


@pytest.fixture
def system(packages: pathlib.Path) -> Iterator[System]:
    """A device with the bridge, which nobody has set up yet."""
    with System(packages) as running:
        install(running, "tessd", "tess-tools", "tess-mqtt")
        yield running


@pytest.fixture
def device(system: System) -> Iterator[System]:
    """With a process, and a bridge that was started before there was a broker."""
    set_up(system)
    system.run("systemctl", "enable", "--now", "tess-mqtt")
    encoder = system.start("/usr/libexec/tess/encoder", stderr=subprocess.PIPE)
    assert b"registered" in encoder.stderr.readline()
    start_broker(system)
    system.wait(lambda: '"names":["ENC"]' in status(system), "a device that is online, and its process")
    yield system
    system.end(encoder)


def test_a_request_over_a_broker_is_answered_by_a_process_of_the_device(device):
    answer = ask(device, "s3.ENC SETX 5")
    assert answer.endswith(" | 0") and "status:answered" in answer and f"device:{DEVICE}" in answer, answer
    assert Client(device).ask(b"s3.ENC GETX") == b"5\r\n\r\n"
    assert ask(device, "s3.ENC GETX", "2").endswith(" | 5")
    for command, said in (("status", "online"), ("send", "5")):
        told = in_folder(device, example(f"tessctl fleet {command}").splitlines()[0])
        assert [line for line in told.splitlines() if line.startswith(f"{DEVICE} ") and said in line.split()], told
    assert "status:refused" in ask(device, "s3.NOBODY GETX", "3")
    assert "status:refused" in ask(device, "RESET", "4")
    device.run("systemctl", "stop", "tess-mqtt")
    assert '"status":"offline"' in status(device)
    assert shown(device, "Result") == "success"


def test_the_bridge_has_no_rights_but_those_of_the_group_and_a_sandbox(device):
    lines = device.run("cat", f"/proc/{shown(device, 'MainPID')}/status").splitlines()
    of_bridge = dict(line.split(":\t", 1) for line in lines if ":\t" in line)
    for which in ("CapEff", "CapPrm", "CapBnd", "CapAmb"):
        assert int(of_bridge[which], 16) == 0, which
    assert of_bridge["NoNewPrivs"] == "1"
    assert of_bridge["Seccomp"] == SECCOMP_FILTER
    user, group, tess = (device.run("id", *words).strip() for words in (("-u", "tess-mqtt"), ("-g", "tess-mqtt"), ("-g", "tess")))
    assert of_bridge["Uid"].split() == [user] * 4
    assert of_bridge["Gid"].split() == [group] * 4
    assert set(of_bridge["Groups"].split()) == {group, tess}


def test_without_a_broker_in_its_settings_it_does_not_start_and_says_why(system):
    assert (shown(system, "ActiveState"), shown(system, "UnitFileState")) == ("inactive", "disabled")
    started = system.start("systemctl", "start", "tess-mqtt", stderr=subprocess.DEVNULL)
    assert started.wait(30) != 0
    assert (shown(system, "ActiveState"), shown(system, "ExecMainStatus")) == ("failed", str(WRONG_SETTINGS))
    assert shown(system, "NRestarts") == "0"
    said = system.run("journalctl", "-q", "-o", "cat", "-u", "tess-mqtt", "_COMM=tess-mqtt")
    assert f"{CONF}: it does not name a broker" in said, said


def rights(system: System) -> str:
    return system.run("stat", "-c", "%U:%G %a", CONF).strip()


def test_an_upgrade_starts_it_anew_with_its_settings_and_repeats_nothing(device):
    assert rights(device) == "root:tess-mqtt 640"
    before = shown(device, "MainPID")
    assert ask(device, "s3.ENC SETX 5", "first").endswith(" | 0")
    assert ask(device, "s3.ENC SETX 6", "second").endswith(" | 0")
    device.run("chown", "tess-mqtt", CONF)  # an administrator may see it otherwise
    device.run("chmod", "600", CONF)
    install(device, "later", "later-bridge")
    device.wait(lambda: shown(device, "MainPID") not in ("0", before), "a bridge started anew")
    assert shown(device, "ActiveState") == "active"
    assert rights(device) == "tess-mqtt:tess-mqtt 600"
    device.wait(lambda: '"names":["ENC"]' in status(device), "a device that is online, and its process registered again")
    assert "status:timeout" in ask(device, "s3.ENC SETX 5", "first")
    assert ask(device, "s3.ENC GETX", "third").endswith(" | 6")


def test_an_upgrade_starts_no_bridge_that_nobody_has_started(system):
    install(system, "later", "later-bridge")
    assert (shown(system, "ActiveState"), shown(system, "UnitFileState")) == ("inactive", "disabled")


def test_a_removal_ends_it_and_a_purge_leaves_only_what_the_administrator_has_brought(packages):
    with System(packages) as system:
        install(system, "tessd", "tess-tools")
        before = files(system)
        install(system, "tess-mqtt")
        pathlib.Path(system.path(CONF)).write_text("broker = 127.0.0.1\n")
        pathlib.Path(system.path("/etc/tess/ca.crt")).write_text("")
        system.run("systemctl", "enable", "--now", "tess-mqtt")
        assert shown(system, "ActiveState") == "active"
        system.run("dpkg", "--remove", "tess-mqtt")
        assert shown(system, "ActiveState") == "inactive"
        assert pathlib.Path(system.path(CONF)).read_text() == "broker = 127.0.0.1\n"
        system.run("dpkg", "--purge", "tess-mqtt")
        assert files(system) - before == {"/etc/tess", "/etc/tess/ca.crt"}
