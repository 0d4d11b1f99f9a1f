"""The routers that are compared: how each is started, asked and answered. Everything here runs inside the namespaces of one
router, on loopback or on sockets that are files there."""

from __future__ import annotations

import contextlib
import glob
import json
import os
import shutil
import subprocess
import time

import device  # noqa: F401, of this folder: finds the harness
import dbus_controller  # of this folder
from harness import accounts, proc, settings
from harness.clients import IpcClient
from harness.queue_process import QueueProcess
from harness.telnet import TelnetClient
from harness.waiting import wait_until

PROGRAMS = settings.BIN_DIR
FETCHED = os.path.join(settings.PROJECT, "build/bench-routers")  # by scripts/bench, when they are not installed

_DBUS_CONFIG = """<busconfig><type>session</type><listen>unix:path={path}</listen><auth>EXTERNAL</auth>
<policy context="default"><allow send_destination="*"/><allow receive_sender="*"/><allow own="*"/></policy></busconfig>
"""
_MOSQUITTO_CONFIG = """listener 0 {path}
allow_anonymous true
user root
persistence false
log_dest none
max_queued_messages 0
"""


def program(name: str) -> str:
    """An installed program, or one that was fetched."""
    places = [os.path.join(FETCHED, folder) for folder in ("usr/bin", "usr/sbin")] + ["/usr/bin", "/usr/sbin"]
    found = shutil.which(name, path=os.pathsep.join(places))
    if found is None:
        raise RuntimeError(f"{name} is not there: scripts/bench fetches it")
    return found


def environment() -> dict[str, str]:
    libraries = glob.glob(os.path.join(FETCHED, "usr/lib/*-linux-gnu"))
    return {**os.environ, "LD_LIBRARY_PATH": os.pathsep.join(libraries)} if libraries else dict(os.environ)


class Router:
    """One router in its namespaces, with the process behind it."""

    path = ""  # where clients connect
    protocol = ""
    command: list[str] = []

    def __init__(self) -> None:
        self.process: subprocess.Popen | None = None
        self._answerer: subprocess.Popen | None = None
        self._stack = contextlib.ExitStack()
        self._descriptors = 0
        self.answer = 0

    # What differs

    def prepare(self) -> None:
        """Before the first start."""

    def spawn(self) -> subprocess.Popen:
        return subprocess.Popen(
            self.command, env=environment(), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL
        )

    def answerer(self, answer: int) -> list[str]:
        return [self.protocol, self.path, "-", str(answer)]

    def probe_command(self) -> list[str]:
        """To be started by bench_first_answer."""
        return self.command

    def hold_idle(self, count: int, stack: contextlib.ExitStack) -> None:
        """Connects clients that say nothing."""
        self._hold(self.protocol, self.path, count, stack)

    # What is the same

    def start(self) -> None:
        self.process = self.spawn()
        wait_until(lambda: os.path.exists(self.path), f"{self.path} is there")
        self.use_answers(5)

    def use_answers(self, length: int) -> None:
        """Lets the process behind the router answer with so many bytes."""
        if self.answer == length:
            return
        self._end_answerer()
        self._answerer = subprocess.Popen([f"{PROGRAMS}/bench_answerer", *self.answerer(length)])
        self.answer = length
        wait_until(self._answers, "the process answers")
        self._descriptors = self._steady_descriptors()

    def _steady_descriptors(self) -> int:
        """How many it has open without clients."""
        least = len(proc.descriptors(self.process.pid))
        for _ in range(20):
            time.sleep(0.01)
            least = min(least, len(proc.descriptors(self.process.pid)))
        return least

    def _end_answerer(self) -> None:
        if self._answerer is not None:
            self._answerer.kill()
            self._answerer.wait()
            self._answerer = None

    def _answers(self) -> bool:
        """A command gets through; a router may take a moment to know the process."""
        result = (
            subprocess.run(
                self.load_command(count=1, **{"warm-up": 0}),
                stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL,
                timeout=1,
                check=False,
            )
            if self._is_known()
            else None
        )
        return result is not None and result.returncode == 0

    def _is_known(self) -> bool:
        time.sleep(0.2)  # nothing tells: commands to nobody are lost without a word
        return True

    def load_command(self, protocol: str | None = None, path: str | None = None, **options: object) -> list[str]:
        words = [f"{PROGRAMS}/bench_load", protocol or self.protocol, path or self.path, "--answer", str(self.answer)]
        for name, value in options.items():
            words += [f"--{name.replace('_', '-')}", str(value)]
        return words

    def load(self, idle: int = 0, **options: object) -> dict:
        """Runs the client. Options as of bench_load."""
        with contextlib.ExitStack() as stack:
            if idle:
                self.hold_idle(idle, stack)
            words = self.load_command(watch=self.process.pid, **options)
            result = subprocess.run(words, stdout=subprocess.PIPE, timeout=120, check=True)
        self.settle()
        return json.loads(result.stdout)

    def _hold(self, protocol: str, path: str, count: int, stack: contextlib.ExitStack) -> None:
        words = [f"{PROGRAMS}/bench_load", protocol, path, "--idle", str(count), "--hold"]
        holder = subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        stack.callback(_let_go, holder)
        holder.stdout.read(1)

    def settle(self) -> None:
        """Until the router has seen that clients have gone."""
        wait_until(
            lambda: len(proc.descriptors(self.process.pid)) <= self._descriptors, "the router has closed what was left", 10
        )

    def first_answer(self) -> float:
        """Microseconds from its start to an answer. Another one of the same kind must not be running."""
        result = subprocess.run(
            [f"{PROGRAMS}/bench_first_answer", self.protocol, self.path, *self.probe_command()],
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            env=environment(),
            timeout=20,
            check=True,
        )
        return int(result.stdout) / 1000

    def stop(self) -> None:
        self._end_answerer()
        if self.process is not None:
            self.process.terminate()
            self.process.wait(10)
            self.process = None
        self._stack.close()
        self.answer = 0
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self.path)


def _let_go(holder: subprocess.Popen) -> None:
    holder.stdin.close()
    holder.wait(10)


class Floor(Router):
    path, protocol = settings.IPC_PATH, "ipc"
    command = [f"{PROGRAMS}/bench_floor"]
    name = "-"

    def answerer(self, answer: int) -> list[str]:
        return ["queue", "2001", self.name, str(answer)]

    def spawn(self) -> subprocess.Popen:
        self._remove_files()
        return super().spawn()

    def _remove_files(self) -> None:
        for path in (settings.IPC_PATH, settings.XCP_PATH, f"{settings.QUEUE_DIR}/1001"):
            with contextlib.suppress(FileNotFoundError):
                os.unlink(path)

    def use_answers(self, length: int) -> None:
        if self.answer == length:
            return
        self._end_answerer()
        with contextlib.suppress(FileNotFoundError):
            os.unlink(f"{settings.QUEUE_DIR}/2001")
        super().use_answers(length)

    def hold_idle(self, count: int, stack: contextlib.ExitStack) -> None:
        self._hold("ipc", settings.IPC_PATH, count - count // 2, stack)
        self._hold("xcp", settings.XCP_PATH, count // 2, stack)

    def first_answer(self) -> float:
        self._remove_files()
        with contextlib.suppress(FileNotFoundError):
            os.unlink(f"{settings.QUEUE_DIR}/2001")
        process = subprocess.Popen([f"{PROGRAMS}/bench_answerer", "queue", "2001", "-", "5"], stderr=subprocess.DEVNULL)
        wait_until(lambda: os.path.exists(f"{settings.QUEUE_DIR}/2001"), "the process is there")
        try:
            return super().first_answer()
        finally:
            process.kill()
            process.wait()


class Tessd(Floor):
    """All ports but the serial line, which is not there."""

    command = [f"{PROGRAMS}/tessd", "--nocom2"]
    name = "ENC"
    MOST_CLIENTS = 10  # of one port, the one that asks included

    def prepare(self) -> None:
        accounts.install()

    def first_answer(self) -> float:
        self._remove_files()
        return Router.first_answer(self)

    def hold_idle(self, count: int, stack: contextlib.ExitStack) -> None:
        """A third on each port; the one that asks counts too, as a port takes no more than MOST_CLIENTS."""
        telnet = (count + 2) // 3
        own = (count - telnet) // 2
        other = count - telnet - own
        assert max(telnet, own + 1, other) <= self.MOST_CLIENTS
        at_ipc, at_xcp = (own, other) if self.protocol == "ipc" else (other, own)
        self._hold("ipc", settings.IPC_PATH, at_ipc, stack)
        self._hold("xcp", settings.XCP_PATH, at_xcp, stack)
        for _ in range(telnet):
            client = stack.enter_context(TelnetClient())
            client.log_in()

    def register_others(self, count: int, stack: contextlib.ExitStack) -> None:
        """Processes in front of the one that answers."""
        self._end_answerer()
        with contextlib.suppress(FileNotFoundError):
            os.unlink(f"{settings.QUEUE_DIR}/2001")
        with QueueProcess(2001) as process:
            process.unregister()
        for number in range(count):
            process = stack.enter_context(QueueProcess(3001 + number))
            process.register(b"P%d" % number)
            stack.callback(process.unregister)
        self.answer = 0
        self.use_answers(5)

    def delay_lines(self, count: int) -> None:
        """Lines that are due in hours."""
        with IpcClient() as client:
            for _ in range(count):
                client.ask(b"DELAY 900:0:0:0|s3.ENC SETX 5", b"OK\r\n\r\n")


class DbusDaemon(Router):
    path, protocol = "/tmp/bus", "dbus"

    def prepare(self) -> None:
        with open("/tmp/bus.conf", "w", encoding="ascii") as file:
            file.write(_DBUS_CONFIG.format(path=self.path))
        self.command = [program("dbus-daemon"), "--config-file=/tmp/bus.conf", "--nofork", "--nopidfile"]


class DbusBroker(Router):
    path, protocol = "/tmp/bus", "dbus"

    def prepare(self) -> None:
        self.command = [program("dbus-broker")]

    def spawn(self) -> subprocess.Popen:
        process, controller = dbus_controller.start(self.command[0], self.path, environment())
        self._stack.enter_context(controller)
        return process

    def first_answer(self) -> float:
        """By the clock of this Python, which hands it the socket: a little too much."""
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self.path)
        began = time.perf_counter()
        process, controller = dbus_controller.start(self.command[0], self.path, environment())
        with controller:
            dbus_controller.say_hello(self.path)
            seconds = time.perf_counter() - began
            process.kill()
            process.wait()
        os.unlink(self.path)
        return 1e6 * seconds


class Mosquitto(Router):
    path, protocol = "/tmp/mosquitto", "mqtt"

    def prepare(self) -> None:
        with open("/tmp/mosquitto.conf", "w", encoding="ascii") as file:
            file.write(_MOSQUITTO_CONFIG.format(path=self.path))
        self.command = [program("mosquitto"), "-c", "/tmp/mosquitto.conf"]


class Redis(Router):
    path, protocol = "/tmp/redis", "redis"

    def prepare(self) -> None:
        self.command = [
            program("redis-server"),
            "--port",
            "0",
            "--unixsocket",
            self.path,
            "--save",
            "",
            "--appendonly",
            "no",
            "--daemonize",
            "no",
            "--logfile",
            "/dev/null",
            "--dir",
            "/tmp",
        ]


class FloorXcp(Floor):
    path, protocol = settings.XCP_PATH, "xcp"


class TessdXcp(Tessd):
    path, protocol = settings.XCP_PATH, "xcp"


ROUTERS: dict[str, type[Router]] = {
    "floor": Floor,
    "floor xcp": FloorXcp,
    "tessd": Tessd,
    "tessd xcp": TessdXcp,
    "dbus-broker": DbusBroker,
    "dbus-daemon": DbusDaemon,
    "mosquitto": Mosquitto,
    "redis": Redis,
}
