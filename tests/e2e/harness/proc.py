"""What /proc tells about a process."""

from __future__ import annotations

import contextlib
import os
import socket


def tasks(pid: int) -> list[int]:
    return sorted(int(task) for task in os.listdir(f"/proc/{pid}/task"))


def status_field(pid: int, task: int, field: str) -> str:
    with open(f"/proc/{pid}/task/{task}/status", encoding="ascii", errors="replace") as status:
        for line in status:
            name, _, value = line.partition(":")
            if name == field:
                return value.strip()
    raise KeyError(field)


def parent(pid: int) -> int:
    return int(status_field(pid, pid, "PPid"))


def children(pid: int) -> list[int]:
    found = []
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            try:
                if parent(int(entry)) == pid:
                    found.append(int(entry))
            except (OSError, KeyError):
                continue  # it ended meanwhile
    return sorted(found)


def wakeups(pid: int) -> int:
    """How often the threads that live now have gone to sleep of their own will since they began."""
    return sum(int(status_field(pid, task, "voluntary_ctxt_switches")) for task in tasks(pid))


def cpu_seconds(pid: int) -> float:
    """Processor time of all threads, user and system."""
    with open(f"/proc/{pid}/stat", encoding="ascii", errors="replace") as stat:
        fields = stat.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def descriptors(pid: int) -> dict[int, str]:
    """The open descriptors and what they are."""
    found = {}
    for number in os.listdir(f"/proc/{pid}/fd"):
        with contextlib.suppress(FileNotFoundError):  # it was closed meanwhile
            found[int(number)] = os.readlink(f"/proc/{pid}/fd/{number}")
    return found


def cpu_nanoseconds(pid: int) -> int:
    """Processor time of the threads that live now, to the nanosecond."""
    total = 0
    for task in tasks(pid):
        with open(f"/proc/{pid}/task/{task}/schedstat", encoding="ascii") as schedstat:
            total += int(schedstat.read().split()[0])
    return total


def seconds_in_line(pid: int) -> dict[int, float]:
    """How long each thread that lives now has stood ready to run without a processor, since it began."""
    found = {}
    with contextlib.suppress(FileNotFoundError, ProcessLookupError):
        for task in tasks(pid):
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):  # it ended meanwhile
                found[task] = _second_in_schedstat(f"/proc/{pid}/task/{task}/schedstat")
    return found


def own_seconds_in_line() -> float:
    """The same of the calling thread."""
    return _second_in_schedstat("/proc/thread-self/schedstat")


def _second_in_schedstat(path: str) -> float:
    with open(path, encoding="ascii") as schedstat:
        return int(schedstat.read().split()[1]) / 1e9


def unread(client: socket.socket) -> int:
    """How many bytes that this end of a TCP connection has sent lie unread at the other end, which is on this machine too."""
    near, far = (f":{address[1]:04X}" for address in (client.getsockname(), client.getpeername()))
    with open("/proc/net/tcp", encoding="ascii") as table:
        for line in table:
            _, local, remote, _, queues, *_ = line.split()
            if local.endswith(far) and remote.endswith(near):
                return int(queues.partition(":")[2], 16)
    raise ConnectionError("the other end is gone")
