"""What a stretch of the daemon's life costs: system calls and allocations."""

from __future__ import annotations

import collections
import contextlib
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
    """A library that counts the daemon's allocations; give `environment` to the daemon."""

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
