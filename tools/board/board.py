"""An emulated board: QEMU with the kernel and the image of scripts/board.

TESSD_BOARD_KERNEL and TESSD_BOARD_IMAGE name them. The board is reached over its console, its serial line and telnet; all
of it is on this machine and for nobody else: local sockets or pseudo-terminals, and a port of 127.0.0.1.
"""

from __future__ import annotations

import ctypes
import json
import os
import re
import select
import signal
import socket
import subprocess
import tempfile
import time

EMULATOR = "qemu-system-ppc"
START_SECONDS = 60.0  # of the emulator itself; generous: a loaded machine
HOST = "127.0.0.1"
PR_SET_PDEATHSIG = 1
USER, PASSWORD = "alice", "wonderland"  # of tools/board/root/etc/passwd

_libc = ctypes.CDLL(None)


class BoardError(RuntimeError):
    """The board did not do what was waited for; the text says what it showed."""


class Stream:
    """What comes over a connected local socket, and what is sent there. `shown` is everything that has come so far."""

    def __init__(self, path: str) -> None:
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.settimeout(START_SECONDS)
        self.socket.connect(path)
        self.shown = b""
        self._taken = 0  # how much of it wait_for() has gone past

    def send(self, data: bytes) -> None:
        self.socket.sendall(data)

    def wait_for(self, text: bytes | re.Pattern[bytes], seconds: float) -> bytes:
        """Returns what has come since the last call, up to and with `text`."""
        end = time.monotonic() + seconds
        pattern = text if isinstance(text, re.Pattern) else re.compile(re.escape(text))
        while (found := pattern.search(self.shown, self._taken)) is None:
            if not self.take_in(end - time.monotonic()):
                tail = self.shown[self._taken :].decode(errors="replace")
                raise BoardError(f"no {pattern.pattern!r} in {seconds:g} s, but:\n{tail}")
        shown = self.shown[self._taken : found.end()]
        self._taken = found.end()
        return shown

    def take_in(self, seconds: float) -> bool:
        """Takes in what comes next; False when nothing comes in this time, or nothing can come any more."""
        if not select.select([self.socket], [], [], max(seconds, 0))[0]:
            return False
        piece = self.socket.recv(65536)
        self.shown += piece
        return bool(piece)

    def rest(self) -> bytes:
        """What has come since the last call."""
        while self.take_in(0):
            pass
        rest = self.shown[self._taken :]
        self._taken = len(self.shown)
        return rest

    def close(self) -> None:
        self.socket.close()


class Board:
    """A board that is switched on by start() and off by close().

    `on_terminal`: the console is this process's terminal and the serial line a pseudo-terminal, for a person. Otherwise
    they are `console` and `com2`, and the board shows its log on the console."""

    def __init__(self, on_terminal: bool = False) -> None:
        self._on_terminal = on_terminal
        self._folder = tempfile.TemporaryDirectory(prefix="tessd-board-")
        self._qmp_path = self._path("qmp")
        self._answers = b""
        self.process = subprocess.Popen(
            self._command(), preexec_fn=_end_with_parent, stdin=None if on_terminal else subprocess.DEVNULL
        )
        try:
            self._connect()
        except BaseException:
            self.close()
            raise

    def _path(self, name: str) -> str:
        return os.path.join(self._folder.name, name)

    def _command(self) -> list[str]:
        kernel, image = (os.environ[f"TESSD_BOARD_{what}"] for what in ("KERNEL", "IMAGE"))
        if self._on_terminal:
            lines = ["-chardev", "stdio,id=console,mux=on,signal=off", "-mon", "chardev=console", "-chardev", "pty,id=com2"]
        else:
            lines = [
                word
                for name in ("console", "com2")
                for word in ("-chardev", f"socket,id={name},path={self._path(name)},server=on,wait=off")
            ]
        return [
            EMULATOR,
            "-M",
            "ppce500",
            "-cpu",
            "e500mc",
            "-m",
            "128",
            "-nodefaults",
            "-display",
            "none",
            "-S",
            "-kernel",
            kernel,
            "-initrd",
            image,
            "-append",
            "console=ttyS0,115200 panic=1" + ("" if self._on_terminal else " log=console"),
            *lines,
            "-serial",
            "chardev:console",
            "-serial",
            "chardev:com2",
            "-qmp",
            f"unix:{self._qmp_path},server=on,wait=off",
            "-netdev",
            f"user,id=net,restrict=on,hostfwd=tcp:{HOST}:0-:23",
            "-device",
            "virtio-net-pci,netdev=net,romfile=",
        ]

    def _connect(self) -> None:
        end = time.monotonic() + START_SECONDS
        while not self._has_connected(end):
            time.sleep(0.02)
        self._answer()  # its greeting
        self.control("qmp_capabilities")
        if not self._on_terminal:
            self.console, self.com2 = Stream(self._path("console")), Stream(self._path("com2"))

    def _has_connected(self, end: float) -> bool:
        """Tries once. The socket's file is there before somebody listens at it."""
        self._qmp = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._qmp.settimeout(START_SECONDS)
        try:
            self._qmp.connect(self._qmp_path)
        except (FileNotFoundError, ConnectionRefusedError) as error:
            self._qmp.close()
            if self.process.poll() is not None or time.monotonic() >= end:
                raise BoardError(f"{EMULATOR} did not start, status {self.process.poll()}: {error}") from error
            return False
        return True

    def start(self) -> None:
        """Switches it on."""
        self.control("cont")

    def control(self, command: str, **arguments: object) -> object:
        """A command of the QEMU machine protocol, and what it returns."""
        self._qmp.sendall(json.dumps({"execute": command, "arguments": arguments}).encode() + b"\n")
        while "event" in (answer := self._answer()):
            pass
        if "return" not in answer:
            raise BoardError(f"{command}: {answer}")
        return answer["return"]

    def _answer(self) -> dict:
        while b"\n" not in self._answers:
            piece = self._qmp.recv(65536)
            if not piece:
                raise BoardError(f"{EMULATOR} has ended")
            self._answers += piece
        line, _, self._answers = self._answers.partition(b"\n")
        return json.loads(line)

    def monitor(self, line: str) -> str:
        """A line to the monitor for people."""
        return str(self.control("human-monitor-command", **{"command-line": line}))

    @property
    def telnet_port(self) -> int:
        """The port of 127.0.0.1 that leads to the board's port 23."""
        found = re.search(rf"TCP\[HOST_FORWARD\]\s+\d+\s+{re.escape(HOST)}\s+(\d+)", self.monitor("info usernet"))
        if found is None:
            raise BoardError("no port leads to the board's telnet")
        return int(found[1])

    @property
    def com2_terminal(self) -> str:
        """Path of the pseudo-terminal at the far end of the serial line."""
        devices = {device["label"]: device["filename"] for device in self.control("query-chardev")}
        return devices["com2"].removeprefix("pty:")

    def wait_started(self, seconds: float) -> None:
        """Until tessd serves and the example process has registered."""
        self.console.wait_for(b"registered at tessd as ENC", seconds)
        self.run("stty columns 1000")  # or the shell would break the lines that it is sent

    def reconnect_com2(self) -> None:
        """Takes the far end of the serial line away and puts another one there."""
        self.com2.close()
        self.com2 = Stream(self._path("com2"))

    def run(self, command: str, seconds: float = 60) -> tuple[int, str]:
        """Runs a command in the console's shell; its exit status, and what it and the log have shown meanwhile."""
        self.console.rest()
        self.console.send(command.encode() + b"; echo 'en''ded' $?\n")
        shown = self.console.wait_for(re.compile(rb"ended (\d+)\r\n"), seconds).decode(errors="replace").replace("\r", "")
        text, _, status = shown.rpartition("ended ")
        return int(status), text.partition("\n")[2]

    def wait_off(self, seconds: float) -> int:
        """Until the board is switched off; the emulator's status."""
        return self.process.wait(seconds)

    def close(self) -> None:
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        for name in ("_qmp", "console", "com2"):
            if (stream := getattr(self, name, None)) is not None:
                stream.close()
        self._folder.cleanup()

    def __enter__(self) -> Board:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


def _end_with_parent() -> None:
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
