"""What telnet clients that do nothing cost the daemon and the others."""

from __future__ import annotations

import contextlib
import shutil
import time
from collections.abc import Callable

import pytest

from harness import proc, settings
from harness.clients import Client, IpcClient, XcpClient
from harness.daemon import Daemon
from harness.measure import system_calls
from harness.queue_process import AnsweringProcess
from harness.telnet import GREETING, TelnetClient
from harness.waiting import Stopwatch

plain_only = pytest.mark.skipif(
    settings.emulated() or settings.sanitized(), reason="emulators and sanitizers add costs of their own"
)

needs_tracer = pytest.mark.skipif(
    settings.emulated() or settings.sanitized() or shutil.which("strace") is None,
    reason="strace is not installed, or emulators and sanitizers suffer no tracer",
)

MOST_SHARE = 0.01  # of one processor


def share_of_processor(pid: int, seconds: float) -> float:
    watch, before = Stopwatch(), proc.cpu_nanoseconds(pid)
    time.sleep(seconds)
    return (proc.cpu_nanoseconds(pid) - before) / 1e9 / watch.seconds()


def in_the_session(client: TelnetClient, number: int) -> None:
    client.log_in()
    half = b"s3.ENC SETX 5"[: number + 2]
    client.send(half)
    client.expect(half)


def in_the_name(client: TelnetClient, number: int) -> None:
    half = b"somebody else"[: number + 2]
    client.send(half)
    client.expect(GREETING + half)


def at_the_end_of_the_buffer(client: TelnetClient, number: int) -> None:
    client.log_in()
    half = b"x" * (1018 + number)  # from 1018 to 1027 bytes, of which the daemon looks at 1024
    client.send(half)
    client.expect(half[:1024])


@plain_only
@pytest.mark.parametrize("half_a_line", [in_the_session, in_the_name, at_the_end_of_the_buffer])
def test_ten_clients_in_the_middle_of_a_line_use_at_most_one_percent_of_a_processor(
    socket_tessd, record_property, half_a_line: Callable[[TelnetClient, int], None]
):
    with contextlib.ExitStack() as stack:
        for number in range(10):
            half_a_line(stack.enter_context(TelnetClient()), number)
        share = share_of_processor(socket_tessd.pid, 6)
    record_property("share_of_processor", share)
    assert share <= MOST_SHARE, f"{100 * share:.2f} % of a processor"


ASKED = 200  # times
MORE_CALLS = 2.0  # for a command, with 27 idle clients; one look at each of them would be 27


def calls_for_a_command(tessd: Daemon, client: Client) -> float:
    """System calls of the daemon from a command to its answer."""
    with system_calls(tessd.pid) as calls:
        for _ in range(ASKED):
            client.ask(b"s3.ENC GETX", b"5\r\n\r\n")
    return sum(calls.values()) / ASKED


@needs_tracer
@pytest.mark.parametrize("opened", [TelnetClient, IpcClient, XcpClient])
def test_nine_idle_clients_on_each_port_cost_a_tenth_hardly_any_system_calls(socket_tessd, record_property, opened):
    with contextlib.ExitStack() as stack:
        stack.enter_context(AnsweringProcess(2001, b"ENC", lambda _command: b"5\r\n\r\n"))
        client = stack.enter_context(opened())
        if opened is TelnetClient:
            client.log_in()
        client.expect_nothing_more()
        alone = calls_for_a_command(socket_tessd, client)
        for _ in range(9):
            stack.enter_context(TelnetClient()).log_in()
            for other in (IpcClient, XcpClient):
                stack.enter_context(other()).expect_nothing_more()
        in_company = calls_for_a_command(socket_tessd, client)
    record_property("system_calls", f"{alone:.2f} alone, {in_company:.2f} in company")
    assert in_company <= alone + MORE_CALLS, f"{alone:.2f} system calls alone, {in_company:.2f} in company"
