"""One router in namespaces of its own, and the process there that does what it is told through a pipe."""

from __future__ import annotations

import contextlib
import json
import os
import re
import shutil
import socket
import subprocess
import tempfile
import time
import traceback

import device  # of this folder
import routers
from harness import proc
from harness.measure import system_calls


class Inside:
    """What a router can be asked to do. Every method that does not begin with _ is one."""

    def __init__(self, name: str, core: int, nice: int) -> None:
        os.sched_setaffinity(0, {core})
        if nice:
            _come_first(nice)
        self._router = routers.ROUTERS[name]()
        self._router.prepare()

    def first_answer(self) -> float:
        return self._router.first_answer()

    def start(self) -> None:
        self._router.start()

    def stop(self) -> None:
        self._router.stop()

    def load(self, answer: int = 5, **options: object) -> dict:
        self._router.use_answers(answer)
        return self._router.load(**options)

    def load_beside(self, processes: int, **options: object) -> dict:
        """With so many processes registered in front of the one that answers."""
        with contextlib.ExitStack() as others:
            self._router.register_others(processes - 1, others)
            return self._router.load(**options)

    def delay_lines(self, count: int) -> None:
        self._router.delay_lines(count)

    def system_calls(self, **options: object) -> dict[str, float]:
        """By name, a command. strace slows the router down, so that more may wait for it than otherwise."""
        before = self._counted({**options, "count": 200})
        after = self._counted({**options, "count": 1200})
        names = set(before) | set(after)
        return {name: (after.get(name, 0) - before.get(name, 0)) / 1000 for name in names}

    def _counted(self, options: dict) -> dict[str, int]:
        with system_calls(self._router.process.pid) as calls:
            self._router.load(**{"warm_up": 100, **options})
        return dict(calls)

    def idle(self, seconds: float, clients: int = 0) -> dict[str, float]:
        """Wake-ups, and microseconds of processor time, a second."""
        with contextlib.ExitStack() as stack:
            if clients:
                self._router.hold_idle(clients, stack)
            time.sleep(0.5)
            pid = self._router.process.pid
            woken, used, began = proc.wakeups(pid), proc.cpu_nanoseconds(pid), time.monotonic()
            time.sleep(seconds)
            passed = time.monotonic() - began
            return {
                "wakeups": (proc.wakeups(pid) - woken) / passed,
                "microseconds": (proc.cpu_nanoseconds(pid) - used) / 1000 / passed,
            }

    def memory(self) -> dict[str, int]:
        """KiB."""
        fields = {}
        with open(f"/proc/{self._router.process.pid}/smaps_rollup", encoding="ascii") as file:
            for line in file:
                if match := re.match(r"(\w+):\s+(\d+) kB", line):
                    fields[match[1]] = int(match[2])
        return {"resident": fields["Rss"], "private": fields["Private_Clean"] + fields["Private_Dirty"]}

    def size(self) -> dict[str, float]:
        """KiB of the stripped program, and of the libraries that it loads besides glibc's."""
        binary = self._router.command[0]
        with tempfile.NamedTemporaryFile(dir="/tmp") as copy:
            shutil.copy(binary, copy.name)
            subprocess.run(["strip", copy.name], check=True)
            program = os.path.getsize(copy.name)
        needed = subprocess.run(["ldd", binary], stdout=subprocess.PIPE, text=True, check=True, env=routers.environment()).stdout
        own = re.compile(r"/(libc|libm|libpthread|libdl|librt|ld-linux[^/]*)\.so")
        libraries = [path for path in re.findall(r"=> (/\S+)", needed) if not own.search(path)]
        return {"program": program / 1024, "libraries": sum(os.path.getsize(os.path.realpath(path)) for path in libraries) / 1024}


def _come_first(nice: int) -> None:
    """Where the kernel shares processors out by session (sched(7), autogroup), the session has a niceness of its own."""
    os.nice(nice)
    with contextlib.suppress(PermissionError):  # a session's leader already
        os.setsid()
    with contextlib.suppress(FileNotFoundError), open("/proc/self/autogroup", "w", encoding="ascii") as file:
        file.write(str(nice))


class Worker:
    """The same from outside: calls are passed on."""

    def __init__(self, name: str, core: int, nice: int) -> None:
        self.name = name
        self._near, far = socket.socketpair()
        self._child = os.fork()
        if self._child == 0:
            self._near.close()
            status = 1
            try:
                device.run(lambda: _serve(far, name, core, nice))
                status = 0
            finally:
                os._exit(status)
        far.close()
        self._file = self._near.makefile("rw", encoding="utf-8")

    def begin(self, method: str, **arguments: object) -> None:
        self._file.write(json.dumps([method, arguments]) + "\n")
        self._file.flush()

    def result(self) -> object:
        line = self._file.readline()
        answer = json.loads(line) if line else {"error": "it has ended"}
        if "error" in answer:
            raise RuntimeError(f"{self.name}: {answer['error']}")
        return answer["result"]

    def call(self, method: str, **arguments: object) -> object:
        self.begin(method, **arguments)
        return self.result()

    def end(self) -> None:
        """Whatever runs inside ends with it."""
        self.begin("end")  # those that were forked later have this connection too: closing it tells nothing
        self._file.close()
        self._near.close()
        os.waitpid(self._child, 0)


def _serve(link: socket.socket, name: str, core: int, nice: int) -> None:
    inside = Inside(name, core, nice)
    with link.makefile("rw", encoding="utf-8") as file:
        for line in file:
            method, arguments = json.loads(line)
            if method == "end":
                break
            try:
                answer = {"result": getattr(inside, method)(**arguments)}
            except BaseException:  # told, and the next call may do better
                answer = {"error": traceback.format_exc()}
            file.write(json.dumps(answer) + "\n")
            file.flush()
    inside.stop()
