"""Tests of the namespaces that look like the device, through the command line and from Python."""

from __future__ import annotations

import os
import shutil
import signal
import subprocess
import sys
import time
from collections.abc import Iterator
from pathlib import Path

import pytest

PROJECT = Path(__file__).resolve().parents[2]
TOOL = PROJECT / "tools" / "device_ns.py"

sys.path.insert(0, str(TOOL.parent))

from device_ns import DeviceError, bind, run_in_device, unbind  # noqa: E402

SECONDS = 20.0


def device(*command: str, options: tuple[str, ...] = (), tool: Path = TOOL, **keywords: object) -> subprocess.CompletedProcess:
    return subprocess.run(
        [sys.executable, str(tool), *options, "--", *command],
        text=True,
        capture_output=True,
        check=False,
        timeout=SECONDS,
        **keywords,
    )


def shell(script: str, **keywords: object) -> str:
    done = device("sh", "-c", script, **keywords)
    assert done.returncode == 0, done.stderr
    return done.stdout


@pytest.fixture
def under_tmp() -> Iterator[Path]:
    """A folder that the new /tmp hides."""
    folder = Path("/tmp") / f"device-ns-test-{os.getpid()}"
    folder.mkdir()
    yield folder
    shutil.rmtree(folder)


def test_inside_there_is_an_empty_tmp_and_the_queue_directory_and_nothing_else_in_run() -> None:
    # The project itself and this Python may lie there.
    tree = shell("ls /tmp; ls /run; stat -c '%a %U' /run/tess/queue /tmp", options=("--cwd", "/")).split("\n")
    assert tree[-3:] == ["770 root", "1777 root", ""]
    assert "tess" in tree
    assert not [name for name in tree[:-3] if name != "tess" and not str(PROJECT).startswith((f"/tmp/{name}", f"/run/{name}"))]


def test_what_is_made_inside_is_not_seen_outside(under_tmp: Path) -> None:
    name = under_tmp.name + "-inside"
    assert shell(f"touch /tmp/{name} && ls -d /tmp/{name}") == f"/tmp/{name}\n"
    assert not Path("/tmp", name).exists()


def test_the_host_name_is_s3_unless_another_is_given() -> None:
    outside = os.uname().nodename
    assert shell("hostname") == "s3\n"
    assert shell("hostname", options=("--hostname", "crate7")) == "crate7\n"
    assert os.uname().nodename == outside


def test_the_loopback_is_up_and_alone_and_the_datagram_queue_holds_ten() -> None:
    script = (
        "import socket; s = socket.create_server(('127.0.0.1', 23)); socket.create_connection(('127.0.0.1', 23));"
        "print(socket.if_nameindex(), open('/proc/sys/net/unix/max_dgram_qlen').read().strip())"
    )
    done = device(sys.executable, "-c", script)
    assert done.stderr == ""
    assert done.stdout == "[(1, 'lo')] 10\n"


def test_dev_holds_harmless_devices_and_no_serial_line() -> None:
    assert shell("cd /dev && echo *") == "fd full null ptmx pts random shm stderr stdin stdout tty urandom zero\n"
    assert shell("cd /dev && echo x >null && head -c 3 zero | wc -c && head -c 3 urandom | wc -c") == "3\n3\n"


def test_pseudo_terminals_are_its_own() -> None:
    script = (
        "import os, glob; near, far = os.openpty(); print(os.ttyname(far), sorted(glob.glob('/dev/pts/*')));"
        "os.write(far, b'x'); print(os.read(near, 9))"
    )
    assert device(sys.executable, "-c", script).stdout == "/dev/pts/0 ['/dev/pts/0', '/dev/pts/ptmx']\nb'x'\n"


def test_one_file_is_put_in_the_place_of_another(capfd: pytest.CaptureFixture) -> None:
    outside = Path("/etc/passwd").read_bytes()

    def inside() -> None:
        Path("/tmp/ours").write_text("ours\n")
        for target in ("/etc/passwd", "/dev/ttyS1"):
            bind("/tmp/ours", target)
            print(Path(target).read_text(), end="")
        bind("/dev/null", "/dev/ttyS1")
        print(repr(Path("/dev/ttyS1").read_text()))
        unbind("/dev/ttyS1")
        unbind("/etc/passwd")
        print(Path("/dev/ttyS1").read_text(), Path("/etc/passwd").read_bytes() == outside)
        with pytest.raises(DeviceError, match="cannot mount /tmp/no-such on /dev/ttyS1: No such file or directory"):
            bind("/tmp/no-such", "/dev/ttyS1")
        with pytest.raises(DeviceError, match="cannot unmount /tmp/ours: Invalid argument"):
            unbind("/tmp/ours")

    assert run_in_device(inside) == 0
    assert capfd.readouterr() == ("ours\nours\n''\nours\n True\n", "")
    assert Path("/etc/passwd").read_bytes() == outside


def test_only_own_processes_are_seen_and_orphans_are_collected() -> None:
    script = """
        orphan=$(sh -c 'sleep 600 >/dev/null & echo $!')
        kill $orphan
        while [ -e /proc/$orphan ]; do :; done
        echo /proc/[0-9]*
    """
    assert shell(script) == "/proc/1 /proc/2\n"


@pytest.mark.parametrize(
    ("script", "status"),
    [
        ("exit 0", 0),
        ("exit 7", 7),
        ("kill -TERM $$", 128 + signal.SIGTERM),
        ("kill -KILL $$", 128 + signal.SIGKILL),
        ("kill -INT $$", 128 + signal.SIGINT),
    ],
)
def test_the_status_of_the_command_is_passed_on(script: str, status: int) -> None:
    assert device("sh", "-c", script).returncode == status


def test_a_command_that_does_not_exist_gives_127() -> None:
    done = device("no-such-command", env={"PATH": "/usr/bin:/bin"})
    assert (done.returncode, done.stderr) == (127, "device_ns: no-such-command: No such file or directory\n")


def test_a_restart_inside_ends_only_the_inside() -> None:
    done = device(sys.executable, "-c", "import ctypes, time; ctypes.CDLL(None).reboot(0x1234567); time.sleep(60)")
    assert done.returncode == 128 + signal.SIGHUP


def test_nothing_survives_the_command() -> None:
    marker = f"600.{os.getpid()}"
    shell(f"setsid sleep {marker} >/dev/null 2>&1 &")
    wait_until_gone(marker)


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM])
def test_nothing_survives_the_tool(number: signal.Signals) -> None:
    marker = f"601.{os.getpid()}"
    with subprocess.Popen([sys.executable, str(TOOL), "--", "sleep", marker]) as tool:
        wait_until(lambda: running(marker), "the command runs")
        tool.send_signal(number)
    wait_until_gone(marker)


def test_a_project_under_tmp_is_reachable_at_its_own_path(under_tmp: Path) -> None:
    copy = under_tmp / "clone" / "tools" / TOOL.name
    copy.parent.mkdir(parents=True)
    shutil.copy(TOOL, copy)
    (under_tmp / "hidden").touch()
    assert (
        shell(f"pwd; ls {under_tmp}; ls {copy.parents[1]}", tool=copy, cwd=copy.parents[1])
        == f"{copy.parents[1]}\nclone\ntools\n"
    )


def test_kept_paths_are_reachable_and_the_same_inside_and_outside(under_tmp: Path) -> None:
    file, folder, link = under_tmp / "file", under_tmp / "folder", under_tmp / "link"
    file.write_text("text\n")
    folder.mkdir()
    link.symlink_to(folder)
    options = tuple(f"--keep={path}" for path in (file, folder, link))
    assert shell(f"cat {file}; touch {link}/new; ls {under_tmp}", options=options) == "text\nfile\nfolder\nlink\n"
    assert (folder / "new").exists()


@pytest.mark.parametrize(("path", "why"), [("/tmp", "it is new inside"), ("/tmp/no/such", "it does not exist")])
def test_a_path_that_cannot_be_kept_is_refused_in_a_line(path: str, why: str) -> None:
    done = device("true", options=("--keep", path))
    assert (done.returncode, done.stdout, done.stderr) == (1, "", f"device_ns: cannot keep {path}: {why}\n")


def test_without_root_and_user_namespaces_it_says_so_in_a_line() -> None:
    # Inside, where it disturbs nobody: no further user namespaces, and no rights.
    script = (
        "echo 0 >/proc/sys/user/max_user_namespaces; "
        f"exec setpriv --bounding-set=-all --inh-caps=-all {sys.executable} {TOOL} -- true"
    )
    done = device("unshare", "--user", "--map-root-user", "sh", "-c", script)
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr.startswith("device_ns: cannot make private namespaces: this needs root, or a system that allows user")
    assert done.stderr.count("\n") == 1


def test_an_ordinary_user_is_root_inside(under_tmp: Path) -> None:
    if os.geteuid() != 0:
        pytest.skip("the other tests have shown it")
    tool = under_tmp / "tools" / TOOL.name  # the project may lie where only root can look
    tool.parent.mkdir()
    shutil.copy(TOOL, tool)
    done = subprocess.run(
        [
            "setpriv",
            "--reuid=65534",
            "--regid=65534",
            "--clear-groups",
            "--inh-caps=-all",
            "/usr/bin/python3",
            str(tool),
            "--",
            "sh",
            "-c",
            "id -u; hostname",
        ],
        text=True,
        capture_output=True,
        check=False,
        cwd="/",
    )
    assert (done.returncode, done.stdout, done.stderr) == (0, "0\ns3\n", "")


def test_a_function_runs_inside_and_its_result_comes_back(capfd: pytest.CaptureFixture) -> None:
    assert run_in_device(lambda: print(os.uname().nodename, os.getpid())) == 0
    assert run_in_device(lambda: 5) == 5
    assert run_in_device(lambda: sys.exit(6)) == 6
    assert run_in_device(lambda: os.kill(os.getpid(), signal.SIGKILL)) == 128 + signal.SIGKILL
    assert capfd.readouterr() == ("s3 2\n", "")


def test_an_exception_inside_gives_70_and_a_traceback(capfd: pytest.CaptureFixture) -> None:
    def fail() -> None:
        raise ValueError("of this kind")

    assert run_in_device(fail) == 70
    assert capfd.readouterr().err.endswith("ValueError: of this kind\n")


def test_a_call_that_cannot_be_made_raises_and_leaves_no_process() -> None:
    with pytest.raises(DeviceError, match="cannot keep /tmp/no/such"):
        run_in_device(lambda: 0, keep=["/tmp/no/such"])
    with pytest.raises(ChildProcessError):
        os.waitpid(-1, os.WNOHANG)


def running(marker: str) -> bool:
    for name in filter(str.isdigit, os.listdir("/proc")):
        try:
            words = Path("/proc", name, "cmdline").read_bytes().split(b"\0")
        except OSError:
            continue  # it ended meanwhile
        if words[:2] == [b"sleep", marker.encode()]:
            return True
    return False


def wait_until_gone(marker: str) -> None:
    wait_until(lambda: not running(marker), f"'sleep {marker}' has ended")


def wait_until(condition, what: str) -> None:
    deadline = time.monotonic() + SECONDS
    while not condition():
        assert time.monotonic() < deadline, f"not in {SECONDS:g} s: {what}"
        time.sleep(0.01)
