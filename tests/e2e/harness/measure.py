"""What a stretch of the daemon's life costs: system calls, allocations, instructions and stores."""

from __future__ import annotations

import collections
import contextlib
import dataclasses
import itertools
import mmap
import os
import re
import signal
import struct
import subprocess
from collections.abc import Iterator

from harness import proc
from harness.waiting import wait_until

_CALL = re.compile(r"(?:\[pid\s+)?\d+\]?\s+(?:<\.\.\. )?(?P<name>\w+)(?P<how>\(| resumed>)")


@contextlib.contextmanager
def system_calls(pid: int) -> Iterator[collections.Counter]:
    """Counts, by name, the system calls of all threads of a process between entry and exit of the block.

    The counter is filled at the exit. Calls that began before the entry are not counted."""
    output = f"/run/strace.{pid}"
    calls: collections.Counter = collections.Counter()
    tracer = subprocess.Popen(["strace", "-f", "-qq", "-s", "0", "-o", output, "-p", str(pid)], stderr=subprocess.PIPE)
    try:
        wait_until(lambda: _all_traced(pid, tracer), "strace has taken hold of every thread", within=10)
        yield calls
    finally:
        tracer.send_signal(signal.SIGINT)
        tracer.communicate(timeout=20)
    with open(output, encoding="ascii", errors="replace") as trace:
        for line in trace:
            match = _CALL.match(line)
            if match and match["how"] == "(":
                calls[match["name"]] += 1


def _all_traced(pid: int, tracer: subprocess.Popen) -> bool:
    if tracer.poll() is not None:
        raise AssertionError(f"strace ended: {tracer.stderr.read().decode()}")
    return all(proc.status_field(pid, task, "TracerPid") == str(tracer.pid) for task in proc.tasks(pid))


class AllocationCounter:
    """A library that counts the daemon's allocations and the bytes in use; give `environment` to the daemon."""

    def __init__(self) -> None:
        source = os.path.join(os.path.dirname(os.path.realpath(__file__)), "count_allocations.c")
        library = "/run/count_allocations.so"
        counters = "/run/allocations"
        subprocess.run(["cc", "-O2", "-shared", "-fPIC", "-o", library, source, "-ldl"], check=True)
        with open(counters, "wb") as file:
            file.write(bytes(mmap.PAGESIZE))
        with open(counters, "r+b") as file:
            self._map = mmap.mmap(file.fileno(), mmap.PAGESIZE)
        self.environment = {"LD_PRELOAD": library, "COUNT_ALLOCATIONS": counters}

    def count(self) -> int:
        """Calls of malloc, calloc, realloc and their like since the daemon's start."""
        return struct.unpack_from("=Q", self._map)[0]

    def live_bytes(self) -> int:
        """In use of the heap now."""
        return struct.unpack_from("=q", self._map, 8)[0]


@dataclasses.dataclass(frozen=True)
class Executed:
    """What a daemon has executed in user mode, from its start to its end."""

    instructions: int
    stores: int  # of any width; a clearing or copying instruction stores once for each word

    def __sub__(self, other: Executed) -> Executed:
        return Executed(self.instructions - other.instructions, self.stores - other.stores)


class ExecutionCounter:
    """Counts what a daemon executes. Put `wrapper` in front of it, and ask when it has ended."""

    def __init__(self) -> None:
        self._output = f"/run/callgrind.{next(ExecutionCounter._numbers)}"
        self.wrapper = [
            "valgrind",
            "--tool=callgrind",
            "--cache-sim=yes",
            "--quiet",
            f"--log-file={self._output}.log",
            f"--callgrind-out-file={self._output}",
        ]

    _numbers = itertools.count(1)

    def executed(self) -> Executed:
        with open(self._output, encoding="utf-8") as file:
            fields = dict(line.rstrip("\n").split(": ", 1) for line in file if line.startswith(("events: ", "totals: ")))
        totals = dict(zip(fields["events"].split(), map(int, fields["totals"].split()), strict=False))
        return Executed(totals["Ir"], totals["Dw"])
