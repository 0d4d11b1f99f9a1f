"""A small Debian system with a real service manager as its first process, in namespaces of its own.

Its files are a layer over a minimal root that is made once; what happens inside is forgotten at the end and is not seen
outside: it has its own network, processes, host name, /tmp, /run and devices, and a control group that goes with it.
"""

from __future__ import annotations

import contextlib
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import time

PROJECT = pathlib.Path(__file__).resolve().parents[2]
INCLUDE = "systemd,systemd-sysv,libedit2,libncurses6,openssh-client,openssh-server,mosquitto,mosquitto-clients,openssl"
ROOT = PROJECT / "build/packaging" / INCLUDE.replace(",", "+")  # another list, another root
SECONDS = 60.0

# $1 the place of the new root, $2 the minimal one, $3 packages, $4... what becomes the first process.
_FURNISH = r"""
set -eu
place=$1 lower=$2 packages=$3
shift 3
mount -t tmpfs tmpfs "$place"
mkdir "$place/upper" "$place/work" "$place/root"
mount -t overlay overlay -o "lowerdir=$lower,upperdir=$place/upper,workdir=$place/work" "$place/root"
cd "$place/root"
mkdir packages old
mount --bind "$packages" packages
mount -t proc proc proc
mount --bind proc/sys proc/sys
mount -o remount,bind,ro proc/sys
mount -t sysfs -o ro sysfs sys
mount -t tmpfs tmpfs sys/fs/cgroup
mount -t cgroup2 cgroup2 sys/fs/cgroup
mount -t tmpfs -o mode=755 tmpfs dev
for device in null zero full random urandom tty; do
    : >dev/$device
    mount --bind /dev/$device dev/$device
done
mkdir dev/pts dev/shm
mount -t devpts -o newinstance,ptmxmode=0666,mode=620 devpts dev/pts
ln -s pts/ptmx dev/ptmx
ln -s /proc/self/fd dev/fd
mount -t tmpfs -o mode=755 tmpfs run
mount -t tmpfs -o mode=1777 tmpfs tmp
for unit in dev-hugepages.mount sys-fs-fuse-connections.mount sys-kernel-debug.mount sys-kernel-tracing.mount getty.target \
    ssh.service mosquitto.service; do
    ln -sf /dev/null etc/systemd/system/$unit
done
echo device >etc/hostname
hostname device
pivot_root . old
cd /
umount -l /old
exec env -i container=lxc PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"
"""

SERVICE_MANAGER = ("/lib/systemd/systemd", "--unit=multi-user.target", "--show-status=no")
NONE = ("sleep", "infinity")


def why_not() -> str | None:
    """The reason why there can be no such system here, if there is one."""
    if os.geteuid() != 0:
        return "needs root"
    if not ROOT.exists() and not shutil.which("debootstrap"):
        return "needs debootstrap"
    return None


def make_root() -> None:
    """The minimal root, unless it is there already."""
    if ROOT.exists():
        return
    lines = subprocess.run(
        [
            "apt-get",
            "indextargets",
            "--format",
            "$(REPO_URI) $(RELEASE)",
            "Identifier: Packages",
            "Origin: Debian",
            "Component: main",
        ],
        check=True,
        text=True,
        capture_output=True,
    ).stdout.splitlines()
    mirror = next(line.split()[0] for line in lines if line.endswith(" bookworm"))
    new = ROOT.with_name("root.new")
    shutil.rmtree(new, ignore_errors=True)
    new.parent.mkdir(parents=True, exist_ok=True)
    subprocess.run(
        ["debootstrap", "--variant=minbase", f"--include={INCLUDE}", "bookworm", new, mirror],
        check=True,
        stdout=subprocess.DEVNULL,
    )
    new.rename(ROOT)


def connect(*systems: System) -> None:
    """Two systems get a network, of 10.0.0.1 and 10.0.0.2."""
    first, second = ([*("nsenter", "-t", str(system.init), "-n", "ip")] for system in systems)
    make = ["link", "add", "eth0", "type", "veth", "peer", "name", "eth0", "netns", str(systems[1].init)]
    subprocess.run([*first, *make], check=True)
    for number, ip in enumerate((first, second), 1):
        subprocess.run([*ip, "address", "add", f"10.0.0.{number}/24", "dev", "eth0"], check=True)
        subprocess.run([*ip, "link", "set", "eth0", "up"], check=True)


class System:
    def __init__(self, packages: pathlib.Path, first_process: tuple[str, ...] = SERVICE_MANAGER) -> None:
        unified = pathlib.Path("/sys/fs/cgroup/unified")
        self._group = (unified if unified.exists() else unified.parent) / f"tessd-packaging.{os.getpid()}.{id(self)}"
        self._place = tempfile.mkdtemp(prefix="tessd-packaging-")
        self._group.mkdir()
        self._manager = first_process == SERVICE_MANAGER

        def enter_group() -> None:
            (self._group / "cgroup.procs").write_text(str(os.getpid()))

        self._outer = subprocess.Popen(
            [
                "unshare",
                "--mount",
                "--propagation",
                "private",
                "--pid",
                "--net",
                "--uts",
                "--ipc",
                "--cgroup",
                "--fork",
                "--kill-child",
                "sh",
                "-c",
                _FURNISH,
                "sh",
                self._place,
                ROOT,
                packages,
                *first_process,
            ],
            preexec_fn=enter_group,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
        )

    def __enter__(self) -> System:
        try:
            self.init = int(self._wait(self._child, "a first process"))
            self._wait(
                lambda: os.path.basename(os.readlink(f"/proc/{self.init}/exe")) in ("systemd", "sleep"), "a furnished root"
            )
            if self._manager:
                self._wait(
                    lambda: self.run("systemctl", "is-system-running", check=False).strip() in ("running", "degraded"),
                    "a service manager that is up",
                )
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_: object) -> None:
        self._outer.kill()  # and with it everything inside
        self._outer.wait()
        self._outer.stderr.close()
        self._wait(
            lambda: not self._group.joinpath("cgroup.events").read_text().startswith("populated 1"), "the end of all inside"
        )
        for folder, _, _ in os.walk(self._group, topdown=False):
            os.rmdir(folder)
        os.rmdir(self._place)

    def _child(self) -> str:
        assert self._outer.poll() is None, self._outer.stderr.read().decode()
        return pathlib.Path(f"/proc/{self._outer.pid}/task/{self._outer.pid}/children").read_text().strip()

    def _wait(self, fact, what: str):
        end = time.monotonic() + SECONDS
        while True:
            with contextlib.suppress(FileNotFoundError):
                if result := fact():
                    return result
            assert time.monotonic() < end, f"not within {SECONDS:g} s: {what}"
            time.sleep(0.05)

    def wait(self, fact, what: str):
        """Waits until fact() is true and returns what it gave."""
        return self._wait(fact, what)

    def wait_for_restart(self) -> None:
        """Returns once something inside has asked the kernel for a restart, which ends it all."""
        status = self._outer.wait(SECONDS)
        assert status in (-signal.SIGHUP, 128 + signal.SIGHUP), f"expected the end by SIGHUP, got {status}"

    def path(self, inside: str) -> str:
        """A path inside as it is reached from outside."""
        return f"/proc/{self.init}/root{inside}"

    def words(self, *command: str) -> list[str]:
        """What starts a command inside."""
        return [
            "nsenter",
            "-t",
            str(self.init),
            "-a",
            "--wdns=/",
            "--",
            "env",
            "-i",
            "--default-signal=INT",  # which a shell has its background jobs ignore
            "LC_ALL=C.UTF-8",
            "TERM=xterm",
            "PATH=/usr/sbin:/usr/bin:/sbin:/bin",
            "DEBIAN_FRONTEND=noninteractive",
            *command,
        ]

    def start(self, *command: str, **options: object) -> subprocess.Popen:
        """Starts a command inside."""
        return subprocess.Popen(self.words(*command), **options)

    @staticmethod
    def end(process: subprocess.Popen) -> None:
        """Kills what start() has started."""
        for child in pathlib.Path(f"/proc/{process.pid}/task/{process.pid}/children").read_text().split():
            os.kill(int(child), signal.SIGKILL)
        process.communicate(timeout=SECONDS)

    def run(self, *command: str, check: bool = True) -> str:
        """Runs a command inside; returns what it printed."""
        with self.start(
            *command, text=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT
        ) as process:
            text = process.communicate(timeout=SECONDS)[0]
        assert process.returncode == 0 or not check, f"{' '.join(command)} ended with {process.returncode}:\n{text}"
        return text
