"""What the daemon costs: nothing to speak of when idle, little for a command."""

from __future__ import annotations

import shutil
import time

import pytest

from harness import proc, settings, wire
from harness.clients import IpcClient, XcpClient
from harness.measure import AllocationCounter, system_calls
from harness.queue_process import QueueProcess
from harness.waiting import Stopwatch

native_only = pytest.mark.skipif(settings.emulated(), reason="the emulator's own system calls would be counted")
plain_only = pytest.mark.skipif(
    settings.emulated() or settings.sanitized(), reason="emulators and sanitizers add costs of their own"
)

COMMANDS = 200

# System calls for one command and its answer, all threads together: a client and a process take turns, nothing else
# happens. Needed are the wait of the loop, a look at each of the two ports, reading the command (XCP looks at the header
# first), sending it on, receiving the answer and writing it: 7 and 8. Measured: 8.4 and 9.6, the rest are the waits of
# two threads for one lock.
MOST_CALLS = {
    IpcClient: 12,
    XcpClient: 13,
}


def settle(pid: int) -> None:
    """Until no thread has run for a moment: what start-up left to do is done."""
    quiet = Stopwatch()
    last = proc.cpu_seconds(pid)
    while quiet.seconds() < 0.5:
        time.sleep(0.05)
        now = proc.cpu_seconds(pid)
        if now != last:
            quiet, last = Stopwatch(), now


def idle_costs(pid: int, seconds: float) -> tuple[float, float]:
    """Wake-ups a second and processor seconds while nothing happens for `seconds`."""
    settle(pid)
    watch, wakeups, used = Stopwatch(), proc.wakeups(pid), proc.cpu_seconds(pid)
    time.sleep(seconds)
    return (proc.wakeups(pid) - wakeups) / watch.seconds(), proc.cpu_seconds(pid) - used


def expect_idle(pid: int, seconds: float) -> None:
    wakeups, used = idle_costs(pid, seconds)
    assert 0 < wakeups <= 3, f"{wakeups:.1f} wake-ups a second"
    assert used <= 0.02, f"{used:.2f} s of processor time in {seconds} s"


@plain_only
def test_an_idle_daemon_hardly_wakes_up(launch):
    expect_idle(launch().wait_running().pid, 6)


@plain_only
def test_clients_that_say_nothing_cost_nothing(launch):
    tessd = launch().wait_running()
    with QueueProcess(2001) as process, IpcClient() as ipc, XcpClient() as xcp:
        process.register(b"ENC")
        for client in (ipc, xcp):
            client.expect_nothing_more()
        expect_idle(tessd.pid, 6)


@plain_only
@pytest.mark.slow
@pytest.mark.deadline(120)
def test_an_idle_minute_costs_no_processor_time(launch):
    expect_idle(launch().wait_running().pid, 60)


def converse(client: IpcClient | XcpClient, process: QueueProcess, count: int) -> None:
    """Commands one by one, each answered before the next."""
    for _ in range(count):
        if isinstance(client, IpcClient):
            client.send(b"s3.ENC SETX 5\n")
        else:
            client.send_frame(b"s3.ENC SETX 5\n")
        process.reply(process.expect_command(b"SETX 5").tag, b"0\r\n\r\n")
        if isinstance(client, IpcClient):
            client.expect(b"0\r\n\r\n")
        else:
            client.expect_frame(b"0\r\n\r\n")


@native_only
@pytest.mark.skipif(shutil.which("strace") is None, reason="strace is not installed")
@pytest.mark.parametrize("client_type", [IpcClient, XcpClient])
def test_a_command_takes_few_system_calls(tessd, client_type, record_property):
    with QueueProcess(2001) as process, client_type() as client:
        process.register(b"ENC")
        converse(client, process, 20)
        with system_calls(tessd.pid) as calls:
            converse(client, process, COMMANDS)
    per_command = {name: round(number / COMMANDS, 2) for name, number in calls.most_common()}
    total = sum(calls.values()) / COMMANDS
    record_property("system_calls_per_command", str(per_command))
    assert calls["sendto"] + calls["sendmsg"] >= 2 * COMMANDS, f"not everything was seen: {per_command}"
    assert total <= MOST_CALLS[client_type], f"{total:.2f} system calls a command: {per_command}"
    memory = {"brk", "mmap", "munmap", "mremap", "madvise"} & set(calls)
    assert not memory or settings.sanitized(), f"memory is asked for on the way of a command: {per_command}"


@plain_only
@pytest.mark.skipif(shutil.which("cc") is None, reason="there is no C compiler")
@pytest.mark.parametrize("client_type", [IpcClient, XcpClient])
def test_a_command_allocates_nothing(start_tessd, client_type):
    allocations = AllocationCounter()
    start_tessd(environment=allocations.environment)
    assert allocations.count() > 0, "the counter counts nothing"
    with QueueProcess(2001) as process, client_type() as client:
        process.register(b"ENC")
        converse(client, process, 20)
        before = allocations.count()
        converse(client, process, COMMANDS)
        client.expect_nothing_more()
        process.reply(0, b"for nobody")
        process.expect_daemon_done()
        assert allocations.count() == before, f"{allocations.count() - before} allocations in {COMMANDS} commands"
        # And the counter does see what the daemon allocates: a new record of a process.
        process.send(wire.registration(b"a name that is longer than any short string holds", wire.IPC))
        assert process.receive().tag == 0
        assert allocations.count() > before
