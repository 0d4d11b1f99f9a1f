"""The packages at work: installed, served by a real service manager, upgraded under clients, removed, purged.

Needs root and the packages of scripts/package."""

from __future__ import annotations

import os
import pathlib
import re
import socket
import subprocess
from collections.abc import Iterator

import doc_examples  # of tools/
import pytest
import service_manager
from conftest import PACKAGES, PROJECT, run
from service_manager import NONE, System
from terminal import Terminal

pytestmark = [
    pytest.mark.slow,
    pytest.mark.skipif(service_manager.why_not() is not None, reason=str(service_manager.why_not())),
    pytest.mark.skipif(not list(PACKAGES.glob("*.deb")), reason="there are no packages: scripts/package makes them"),
]

BOTH_CAPABILITIES = 1 << 10 | 1 << 22  # CAP_NET_BIND_SERVICE, CAP_SYS_BOOT
SECCOMP_FILTER = "2"
ALL = ("tessd", "tess-tools", "libtess-framework1", "libtess-dev")
SETTINGS = "/etc/default/tessd"


@pytest.fixture
def system(packages: pathlib.Path) -> Iterator[System]:
    with System(packages) as running:
        yield running


def install(system: System, *names: str) -> str:
    return system.run("sh", "-c", "dpkg -i " + " ".join(f"/packages/{name}_*.deb" for name in names or ALL))


def version(system: System, package: str) -> str:
    return system.run("dpkg-query", "-W", "-f", "${Version}", package)


def main_pid(system: System) -> int:
    return int(system.run("systemctl", "show", "-P", "MainPID", "tessd"))


def is_active(system: System) -> bool:
    return system.run("systemctl", "is-active", "tessd", check=False).strip() == "active"


class Client(socket.socket):
    """A client of /tmp/socket inside."""

    def __init__(self, system: System) -> None:
        super().__init__(socket.AF_UNIX)
        self.settimeout(10)
        self.connect(system.path("/tmp/socket"))

    def ask(self, line: bytes) -> bytes:
        self.sendall(line + b"\n")
        answer = b""
        while not answer.endswith((b"\r\n\r\n", b"?\r\n")):
            piece = self.recv(4096)
            assert piece, f"closed after {answer!r}"
            answer += piece
        return answer


def as_user(system: System, user: str, *command: str) -> subprocess.CompletedProcess:
    process = system.start(
        "runuser", "-u", user, "--", *command, text=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE
    )
    out, error = process.communicate(timeout=30)
    return subprocess.CompletedProcess(command, process.returncode, out, error)


def test_what_is_installed_serves_its_group_and_nobody_else(system):
    install(system)
    assert is_active(system), system.run("journalctl", "-u", "tessd")
    system.run("useradd", "--groups", "tess", "alice")
    system.run("useradd", "stranger")
    encoder = system.start("runuser", "-u", "alice", "--", "/usr/libexec/tess/encoder", stderr=subprocess.PIPE)
    assert b"registered at tessd as ENC" in encoder.stderr.readline()

    assert Client(system).ask(b"s3.ENC SETX 5") == b"0\r\n\r\n"
    sent = as_user(system, "alice", "tessctl", "send", "s3.ENC GETX")
    assert (sent.returncode, sent.stdout.split()) == (0, ["5"]), sent
    refused = as_user(system, "stranger", "tessctl", "send", "s3.ENC GETX")
    assert refused.returncode == 3 and "Permission denied" in refused.stderr, refused

    queue = os.stat(system.path("/run/tess/queue"))
    assert oct(queue.st_mode & 0o7777) == "0o2770"
    greeting = run(
        "nsenter",
        "-t",
        str(system.init),
        "-n",
        "/usr/bin/python3",
        "-c",
        "import socket; s = socket.create_connection(('127.0.0.1', 23), 10); d = b''\n"
        "while b'UserName:' not in d: d += s.recv(100)\nprint('greeted')",
    )
    assert greeting == "greeted\n"


@pytest.fixture
def operator(system) -> str:
    """Somebody of group tess, with the packages installed."""
    install(system)
    system.run("useradd", "--create-home", "--groups", "tess", "alice")
    return "alice"


@pytest.mark.parametrize("document", doc_examples.DOCUMENTS)
def test_an_operator_gets_what_the_document_says(system, operator, document):
    session = doc_examples.Session(document)
    home = pathlib.Path(system.path("/home/alice"))
    for name, text in session.files.items():
        (home / name).write_text(text)
        (home / name).chmod(0o755)
    (home / "script").write_text(session.script)
    system.run("chown", "-R", "alice:", "/home/alice")
    session.expect(as_user(system, operator, "sh", "-c", "cd && exec bash script 2>&1").stdout)


def test_an_operator_holds_the_dialogue_of_the_document(system, operator):
    as_user(system, operator, "bash", "-c", f"cd; exec >/dev/null\n{doc_examples.preparation('operators.md')}")
    (dialogue,) = [text for language, _, text in doc_examples.blocks("operators.md") if language == "dialogue"]
    command = doc_examples.commands(dialogue)[0][0].split()
    terminal = Terminal(*system.words("runuser", "-u", operator, "--", *command))
    doc_examples.hold_dialogue(dialogue, terminal, 10)
    terminal.type(b"\x04")
    assert terminal.wait_end(10) == 0


def test_the_unit_of_the_document_serves_a_script_through_an_absence_of_the_daemon(system):
    install(system, "tessd", "tess-tools")
    files = doc_examples.Session("processes.md").files | doc_examples.Session("integrators.md").files
    for name, folder in (
        ("thermometer.sh", "/usr/local/bin"),
        ("thermometer.service", "/etc/systemd/system"),
        ("add-thermometer.sh", "/root"),
    ):
        path = pathlib.Path(system.path(f"{folder}/{name}"))
        path.write_text(files[name])
        path.chmod(0o755 if name.endswith(".sh") else 0o644)
    system.run("/bin/sh", "-e", "/root/add-thermometer.sh")  # comes back when it is registered
    assert Client(system).ask(b"s3.THERM SET 21.5") == b"OK\r\n\r\n"

    system.run("systemctl", "mask", "--runtime", "--now", "tessd")
    system.run("systemctl", "restart", "thermometer", check=False)
    system.wait(
        lambda: int(system.run("systemctl", "show", "-P", "NRestarts", "thermometer")) >= 6, "a process that goes on trying"
    )
    system.run("systemctl", "unmask", "--runtime", "tessd")
    system.run("systemctl", "start", "tessd")
    system.wait(lambda: Client(system).ask(b"s3.THERM GET") == b"21.5\r\n\r\n", "an answer of the script")


def test_the_daemon_has_two_rights_and_a_sandbox(system):
    install(system, "tessd")
    status = dict(
        line.split(":\t", 1) for line in system.run("cat", f"/proc/{main_pid(system)}/status").splitlines() if ":\t" in line
    )
    for which in ("CapEff", "CapPrm", "CapBnd", "CapAmb"):
        assert int(status[which], 16) == BOTH_CAPABILITIES, which
    assert status["NoNewPrivs"] == "1"
    assert status["Seccomp"] == SECCOMP_FILTER
    user, group = system.run("id", "-u", "tess").strip(), system.run("id", "-g", "tess").strip()
    assert status["Uid"].split() == [user] * 4
    assert status["Gid"].split() == [group] * 4


def test_the_serial_line_is_served(system):
    terminal = system.start(
        "perl",
        "-e",
        """
        open(M, "+<", "/dev/ptmx") or die; my $n = pack("i", 0);
        ioctl(M, 0x40045431, $n) or die;
        ioctl(M, 0x80045430, $n) or die; $| = 1; print unpack("i", $n), "\\n";
        while (my $line = <STDIN>) {
            syswrite(M, $line);
            my $got = "";
            while ($got !~ /\\n\\r?\\n/) { sysread(M, $got, 100, length $got) or die; }
            print unpack("H*", $got), "\\n"; }""",
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        text=True,
    )
    number = terminal.stdout.readline().strip()
    system.run(
        "sh",
        "-c",
        f": >/dev/ttyS1; chown root:dialout /dev/pts/{number}; chmod 660 /dev/pts/{number}; "
        f"mount --bind /dev/pts/{number} /dev/ttyS1",
    )
    install(system, "tessd")
    assert is_active(system), system.run("journalctl", "-u", "tessd")
    terminal.stdin.write("*\n")
    terminal.stdin.flush()
    assert bytes.fromhex(terminal.stdout.readline()).startswith(b"0\r")
    system.end(terminal)


def test_it_comes_back_after_a_crash_and_stays_away_after_a_stop(system):
    install(system)
    before = main_pid(system)
    system.run("sh", "-c", f"kill -KILL {before}")
    system.wait(lambda: is_active(system) and main_pid(system) not in (0, before), "a daemon started anew")
    assert Client(system).ask(b"*") == b"0\r\n\r\n"
    system.run("tessctl", "stop")
    system.wait(
        lambda: system.run("systemctl", "show", "-P", "ActiveState", "tessd").strip() == "inactive", "a daemon that stays away"
    )
    assert system.run("systemctl", "show", "-P", "Result", "tessd").strip() == "success"


def test_options_come_from_a_file_of_the_device_which_an_upgrade_leaves_alone(system):
    install(system, "tessd")
    settings = pathlib.Path(system.path(SETTINGS))
    explained = settings.read_text()
    assert not [line for line in explained.splitlines() if line and not line.startswith("#")]
    options = re.search(r'(?m)^#(TESSD_OPTIONS="(.+)")$', explained)
    settings.write_text(explained.replace(options[0], options[1]))
    system.run("systemctl", "restart", "tessd")
    expected = ["/usr/sbin/tessd", *options[2].split(), ""]
    assert system.run("cat", f"/proc/{main_pid(system)}/cmdline").split("\0") == expected
    install(system, "later")
    assert options[1] in settings.read_text().splitlines()
    assert system.run("cat", f"/proc/{main_pid(system)}/cmdline").split("\0") == expected


def test_the_service_manager_shows_version_and_ports_and_which_lines_are_errors(system):
    install(system)
    status = system.run("systemctl", "show", "-P", "StatusText", "tessd").strip()
    assert status == f"tessd {version(system, 'tessd')}, ports telnet ipc xcp"
    errors = system.run("journalctl", "-q", "-o", "cat", "-u", "tessd", "-p", "err")
    assert errors == "", errors
    system.run("systemctl", "stop", "tessd")
    by_hand = system.start("/usr/sbin/tessd", "--nocom2", stderr=subprocess.DEVNULL)
    system.wait(lambda: os.path.exists(system.path("/tmp/socket")), "a daemon started by hand")
    system.run("systemctl", "start", "tessd", check=False)
    errors = system.run("journalctl", "-q", "-o", "cat", "-u", "tessd", "-p", "err", "_COMM=tessd").splitlines()
    assert [re.sub(r".*\[TESS\] (\d+).*", r"\1", line) for line in errors][:2] == ["250001", "51008"], errors
    assert not [line for line in errors if line.startswith("<")], errors
    system.end(by_hand)


def test_a_watchdog_finds_the_daemon_alive_and_restarts_one_that_hangs(system):
    drop_in = pathlib.Path(system.path("/etc/systemd/system/tessd.service.d/watchdog.conf"))
    drop_in.parent.mkdir(parents=True)
    drop_in.write_text("[Service]\nWatchdogSec=5\n")
    install(system, "tessd")
    before = main_pid(system)
    told = system.run("systemctl", "show", "-P", "WatchdogTimestampMonotonic", "tessd")
    system.wait(
        lambda: system.run("systemctl", "show", "-P", "WatchdogTimestampMonotonic", "tessd") != told, "a word of the daemon"
    )
    assert main_pid(system) == before
    system.run("sh", "-c", f"kill -STOP {before}")
    system.wait(lambda: is_active(system) and main_pid(system) not in (0, before), "a daemon started anew")
    assert Client(system).ask(b"*") == b"0\r\n\r\n"


def test_what_a_stranger_has_put_at_the_sockets_paths_does_not_matter(system):
    system.run("useradd", "stranger")
    system.run("runuser", "-u", "stranger", "--", "sh", "-c", "mkdir -m 700 /tmp/socket && : >/tmp/socket/x && : >/tmp/xcp")
    install(system, "tessd")
    assert is_active(system), system.run("journalctl", "-u", "tessd")
    assert Client(system).ask(b"*") == b"0\r\n\r\n"


def test_the_sockets_of_a_daemon_started_by_hand_stay(system):
    install(system, "tessd")
    system.run("systemctl", "stop", "tessd")
    by_hand = system.start("/usr/sbin/tessd", "--nocom2", stderr=subprocess.DEVNULL)
    system.wait(lambda: os.path.exists(system.path("/tmp/socket")), "a daemon started by hand")
    inode = os.stat(system.path("/tmp/socket")).st_ino
    system.run("systemctl", "start", "tessd", check=False)
    assert os.stat(system.path("/tmp/socket")).st_ino == inode
    assert "queue address 1001 is in use" in system.run("journalctl", "-u", "tessd")
    system.end(by_hand)


def version_reinit(system: System, script: str) -> None:
    program = pathlib.Path(system.path("/usr/lib/tess/version-reinit"))
    program.parent.mkdir(exist_ok=True)
    program.write_text("#!/bin/sh\n" + script)
    program.chmod(0o755)


def test_re_initialising_has_all_rights_and_then_the_device_restarts(system):
    install(system, "tessd")
    version_reinit(system, "id -u >/etc/reinitialised && grep -c 'CapEff:.*ffff' /proc/self/status >>/etc/reinitialised\n")
    log = os.open(system.path("/etc"), os.O_PATH)
    assert system.run("hostname").strip() == "device"
    Client(system).sendall(b"RESET REINIT device\n")
    system.wait(lambda: os.path.exists(system.path("/etc/reinitialised")), "the program's mark")
    assert (
        system.wait(
            lambda: pathlib.Path(f"/proc/self/fd/{log}/reinitialised").read_text().count("\n") == 2
            and pathlib.Path(f"/proc/self/fd/{log}/reinitialised").read_text(),
            "both lines",
        )
        == "0\n1\n"
    )
    os.close(log)
    system.wait_for_restart()


@pytest.mark.parametrize("script", ["exit 3\n", "kill -9 $$\n", None], ids=["fails", "is killed", "is missing"])
def test_a_re_initialisation_that_goes_wrong_is_said(system, script):
    install(system, "tessd")
    if script is not None:
        version_reinit(system, script)
    assert Client(system).ask(b"RESET REINIT device") == b"Error Processing Reset Command.\r\n\r\n"


def test_a_reset_restarts_the_device(system):
    install(system, "tessd")
    Client(system).sendall(b"RESET\n")
    system.wait_for_restart()


def test_an_upgrade_restarts_it_under_its_clients(system):
    install(system)
    encoder = system.start("/usr/libexec/tess/encoder", stderr=subprocess.PIPE)
    assert b"registered" in encoder.stderr.readline()
    client, before = Client(system), main_pid(system)
    assert client.ask(b"s3.ENC SETX 5") == b"0\r\n\r\n"
    install(system, "later")
    assert client.recv(100) == b"", "expected the connection to be closed"
    assert is_active(system) and main_pid(system) != before
    assert version(system, "tessd") == "99.0"
    # The new one does not know the process: that registers again.
    again = Client(system)
    system.wait(lambda: again.ask(b"s3.ENC GETX") == b"5\r\n\r\n", "the process, registered again")
    system.end(encoder)


def test_who_has_disabled_it_keeps_it_so_over_an_upgrade(system):
    install(system, "tessd")
    system.run("systemctl", "disable", "--now", "tessd")
    install(system, "later")
    assert system.run("systemctl", "is-enabled", "tessd", check=False).strip() == "disabled"


# Files that the package tools keep for themselves.
_NOT_OURS = re.compile(
    r"^/(var/(lib/dpkg|cache|log)|etc/(passwd|group|shadow|gshadow|subuid|subgid)-|etc/ld\.so\.cache|etc/\.pwd\.lock)"
    r"|/etc/\.updated"
)


def files(system: System) -> set[str]:
    listing = system.run(
        "find",
        "/etc",
        "/usr",
        "/var",
        "/opt",
        "/srv",
        "/root",
        "/run/tess",
        "/run/tess-mqtt",
        "/tmp/socket",
        "/tmp/xcp",
        "!",
        "-path",
        "/var/lib/systemd/*timer*",
        check=False,
    )
    return {line for line in listing.splitlines() if line.startswith("/") and not _NOT_OURS.match(line)}


def accounts(system: System) -> str:
    return system.run("sh", "-c", "cat /etc/passwd /etc/group /etc/shadow /etc/gshadow")


@pytest.mark.parametrize("first_process", [service_manager.SERVICE_MANAGER, NONE], ids=["service manager", "none"])
def test_a_purge_leaves_user_and_group_and_nothing_else(packages, first_process):
    with System(packages, first_process) as system:
        names = (*ALL, "tess-mqtt")
        before, known = files(system), accounts(system)
        install(system, *names)
        served = accounts(system)
        for user in ("tess:x:", "tess-mqtt:x:"):
            assert user in served and user not in known
        assert os.path.lexists(system.path("/etc/systemd/system/multi-user.target.wants/tessd.service"))
        pathlib.Path(system.path(SETTINGS)).write_text("TESSD_OPTIONS=--nocom2\n")
        system.run("dpkg", "--remove", *names)
        if first_process != NONE:
            assert system.run("systemctl", "is-active", "tessd", check=False).strip() == "inactive"
        system.wait(lambda: not os.path.exists(system.path("/tmp/socket")), "the end of the daemon")
        assert os.path.exists(system.path(SETTINGS))
        system.run("dpkg", "--purge", *names)
        assert files(system) - before == set()
        assert before - files(system) == set()
        assert accounts(system) == served


def test_it_may_be_installed_again_after_a_removal(system):
    install(system, "tessd")
    system.run("dpkg", "--remove", "tessd")
    install(system, "tessd")
    assert is_active(system)
    assert Client(system).ask(b"*") == b"0\r\n\r\n"


def test_where_nobody_manages_services_the_init_script_of_the_package_starts_it(packages):
    with System(packages, NONE) as system:
        install(system)
        system.run("/etc/init.d/tessd", "start")
        assert "is running" in system.run("/etc/init.d/tessd", "status")
        assert Client(system).ask(b"*") == b"0\r\n\r\n"


def control(package: pathlib.Path, field: str) -> str:
    return run("dpkg-deb", "-f", package, field).strip()


def test_the_packages_depend_on_each_other_and_symbols_for_the_debugger_stand_beside_them():
    names = {path.name.partition("_")[0]: path for path in PACKAGES.glob("*.deb")}
    assert "python3-tess" in names
    with_programs = {"tessd", "tess-tools", "libtess-framework1", "tess-mqtt"}
    assert set(names) >= set(ALL) | {f"{name}-dbgsym" for name in with_programs}
    library = control(names["libtess-framework1"], "Version")
    assert f"libtess-framework1 (= {library})" in control(names["libtess-dev"], "Depends").split(", ")


def test_the_bridge_waits_for_its_settings(tmp_path):
    package = next(PACKAGES.glob("tess-mqtt_*.deb"))
    assert f"tessd (= {control(package, 'Version')})" in control(package, "Depends").split(", ")
    run("dpkg-deb", "-R", package, tmp_path)
    assert (tmp_path / "DEBIAN/conffiles").read_text().split() == ["/etc/tess/mqtt.conf"]
    settings = [line for line in (tmp_path / "etc/tess/mqtt.conf").read_text().splitlines() if line and line[0] != "#"]
    assert settings == []
    # Every setting is right as it stands there, once it is wanted: but those that contradict each other.
    text = re.sub(r"(?m)^#(?=\w+ = )(?!plain|psk)", "", (tmp_path / "etc/tess/mqtt.conf").read_text())
    (tmp_path / "mqtt.conf").write_text(text)
    said = run(tmp_path / "usr/sbin/tess-mqtt", "--config", tmp_path / "mqtt.conf", "--check")
    assert said.endswith("device d1, broker broker.example:8883, with TLS\n"), said


def test_the_symbols_file_has_what_the_library_exports(tmp_path):
    library = next(PACKAGES.glob("libtess-framework1_*.deb"))
    run("dpkg-deb", "-R", library, tmp_path)
    listed = set(re.findall(r"(?m)^ (\S+)@TESS_FRAMEWORK_1 ", (tmp_path / "DEBIAN/symbols").read_text()))
    exported = {
        line.split()[-1].partition("@")[0]
        for line in run("nm", "-D", "--defined-only", next(tmp_path.rglob("*.so.1"))).splitlines()
    }
    assert listed == exported
    source = (PROJECT / "debian/libtess-framework1.symbols").read_text()
    named = set(re.findall(r'(?m)^ (?:\(c\+\+(?:\|arch-bits=64)?\)"(.*)|(\w+))@TESS_FRAMEWORK_1', source))
    demangled = set(run("c++filt", *sorted(exported)).splitlines())
    assert {cpp or plain for cpp, plain in named} == demangled


def test_the_copyright_file_says_who_and_that_no_licence_has_been_granted(tmp_path):
    run("dpkg-deb", "-x", next(PACKAGES.glob("tessd_*.deb")), tmp_path)
    text = (tmp_path / "usr/share/doc/tessd/copyright").read_text()
    fields = dict(re.findall(r"(?m)^([A-Z][\w-]*): (.*)$", text))
    assert fields["Format"] == "https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/"
    assert re.fullmatch(r"\d{4}(-\d{4})? the tessd maintainers", fields["Copyright"])
    assert "No licence has been granted yet" in text
