"""What the daemon costs: nothing to speak of when idle, little for a command."""

from __future__ import annotations

import shutil
import signal
import time
from collections import Counter
from collections.abc import Callable

import pytest

from harness import items, proc, settings, wire
from harness.clients import IpcClient, XcpClient
from harness.daemon import LOCAL_PORTS, Daemon
from harness.measure import AllocationCounter, Executed, ExecutionCounter, system_calls
from harness.queue_process import AnsweringProcess, QueueProcess
from harness.waiting import Stopwatch

plain_only = pytest.mark.skipif(
    settings.emulated() or settings.sanitized(), reason="emulators and sanitizers add costs of their own"
)
strace_only = pytest.mark.skipif(shutil.which("strace") is None, reason="strace is not installed")
compiler_only = pytest.mark.skipif(shutil.which("cc") is None, reason="there is no C compiler")

COMMANDS = 200
IN_FLIGHT = 16

# What a command and its answer may cost, all threads together. A guard: each figure is what was measured, with room for what
# scheduling changes (named beside it), and is to be lowered when less is needed.

# System calls while a client and a process take turns. Always: the wait of the loop, reading the command, sending it on,
# receiving the answer and writing it. Measured: 5.00 and 5.00.
CALLS = {IpcClient: 5, XcpClient: 5}

# Calls of futex(2) on top of them: no thread waits for a lock, though the answer may come while the pass is not over, and the
# next command before the answer's writing is. Measured: none.
LOCK_CALLS = 0.1

# System calls a command while so many of one client are under way. Lines are read together, and their answers written together
# where they come together; a frame is read by itself. Measured: 2.2 and 5.0.
CALLS_IN_FLIGHT = {IpcClient: 3, XcpClient: 5}

# Instructions and stores in user mode. Memory is cleared by an instruction that stores eight bytes at a time, each counted:
# a whole record would be a thousand of both. Measured: 4700 to 4740 and 737 to 742.
INSTRUCTIONS = 5200
STORES = 850

IDLE_WAKEUPS = 3  # a second. Measured: 2
IDLE_SHARE = 0.004  # of a processor. Measured: 0.0001; the clock has steps of 10 ms


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
    assert 0 < wakeups <= IDLE_WAKEUPS, f"{wakeups:.1f} wake-ups a second"
    assert used <= IDLE_SHARE * seconds, f"{used:.2f} s of processor time in {seconds} s"


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


def ask(client: IpcClient | XcpClient, times: int = 1) -> None:
    """Commands in one write."""
    command = b"s3.ENC SETX 5\n" if isinstance(client, IpcClient) else wire.frame(b"s3.ENC SETX 5\n")
    client.send(times * command)


def expect_answer(client: IpcClient | XcpClient) -> None:
    if isinstance(client, IpcClient):
        client.expect(b"0\r\n\r\n")
    else:
        client.expect_frame(b"0\r\n\r\n")


def converse(client: IpcClient | XcpClient, process: QueueProcess, count: int) -> None:
    """Commands one by one, each answered before the next."""
    for _ in range(count):
        ask(client)
        process.reply(process.expect_command(b"SETX 5").tag, b"0\r\n\r\n")
        expect_answer(client)


def expect_calls(calls: Counter, commands: int, most: int, record: Callable[[str, object], None]) -> None:
    """No more than so many a command, and none for memory."""
    per_command = {name: round(number / commands, 2) for name, number in calls.most_common()}
    record("system_calls_per_command", str(per_command))
    assert calls["sendto"] + calls["sendmsg"] > 0, f"not everything was seen: {per_command}"
    total = sum(calls.values()) / commands
    # Each thread also wakes up once a second.
    assert total < most + 1, f"{total:.2f} system calls a command, expected {most} and a little: {per_command}"
    memory = {"brk", "mmap", "munmap", "mremap", "madvise"} & set(calls)
    assert not memory, f"memory is asked for on the way of a command: {per_command}"


@plain_only
@strace_only
@pytest.mark.parametrize("client_type", [IpcClient, XcpClient])
def test_a_command_takes_few_system_calls(tessd, client_type, record_property):
    with QueueProcess(2001) as process, client_type() as client:
        process.register(b"ENC")
        converse(client, process, 20)
        with system_calls(tessd.pid) as calls:
            converse(client, process, COMMANDS)
    lock_calls = calls.pop("futex", 0) / COMMANDS
    expect_calls(calls, COMMANDS, CALLS[client_type], record_property)
    assert lock_calls <= LOCK_CALLS, f"{lock_calls:.2f} calls of futex() a command, expected {LOCK_CALLS} at most"


@plain_only
@strace_only
@pytest.mark.parametrize("client_type", [IpcClient, XcpClient])
def test_many_commands_under_way_take_few_system_calls_each(tessd, client_type, record_property):
    with AnsweringProcess(2001, b"ENC", lambda _command: b"0\r\n\r\n"), client_type() as client:
        with system_calls(tessd.pid) as calls:
            for _ in range(COMMANDS // IN_FLIGHT):
                ask(client, IN_FLIGHT)
                for _ in range(IN_FLIGHT):
                    expect_answer(client)
    commands = COMMANDS // IN_FLIGHT * IN_FLIGHT
    expect_calls(calls, commands, CALLS_IN_FLIGHT[client_type], record_property)


def executed(client_type: type[IpcClient | XcpClient], commands: int) -> Executed:
    """By a daemon that serves so many commands and ends."""
    counter = ExecutionCounter()
    with pytest.MonkeyPatch.context() as patch:
        patch.setattr(settings, "WRAPPER", counter.wrapper)
        tessd = Daemon(*LOCAL_PORTS)
    tessd.wait_ready(30)
    with QueueProcess(2001) as process, client_type() as client:
        process.register(b"ENC")
        converse(client, process, commands)
    tessd.signal(signal.SIGTERM)
    tessd.expect_normal_end(30)
    return counter.executed()


@plain_only
@pytest.mark.skipif(shutil.which("valgrind") is None, reason="valgrind is not installed")
@pytest.mark.parametrize("client_type", [IpcClient, XcpClient])
def test_a_command_clears_and_executes_little(client_type, record_property):
    few, many = (executed(client_type, commands) for commands in (20, 20 + COMMANDS))
    instructions, stores = (many - few).instructions / COMMANDS, (many - few).stores / COMMANDS
    record_property("executed_per_command", f"{instructions:.0f} instructions, {stores:.0f} stores")
    assert 0 < stores <= STORES, f"{stores:.0f} stores a command, expected {STORES} at most"
    assert stores < instructions <= INSTRUCTIONS, f"{instructions:.0f} instructions a command, expected {INSTRUCTIONS} at most"


@plain_only
@compiler_only
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
        with items.Watcher(3001) as watcher:  # who is told of each of them
            before = allocations.count()
            converse(client, process, 5)
            watcher.events("answer")
            assert allocations.count() == before, f"{allocations.count() - before} allocations while somebody watches"
        # And the counter does see what the daemon allocates: a new record of a process.
        process.send(wire.registration(b"a name that is longer than any short string holds", wire.IPC))
        assert process.receive().tag == 0
        assert allocations.count() > before
