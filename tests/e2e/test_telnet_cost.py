"""What telnet clients that do nothing cost the daemon and the others."""

from __future__ import annotations

import contextlib
import statistics
import time
from collections.abc import Callable

import pytest

from harness import proc, settings
from harness.clients import Client, IpcClient, XcpClient
from harness.queue_process import AnsweringProcess
from harness.telnet import GREETING, TelnetClient
from harness.waiting import Stopwatch

plain_only = pytest.mark.skipif(
    settings.emulated() or settings.sanitized(), reason="emulators and sanitizers add costs of their own"
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


FEWEST_ROUNDS, MOST_ROUNDS = 3, 30
ASKED = 100  # times in each round
MOST_SLOWDOWN = 1.5


def round_trip(client: Client) -> float:
    """Median of the seconds from a command to its answer."""
    times = []
    for _ in range(ASKED):
        watch = time.perf_counter()
        client.ask(b"s3.ENC GETX", b"5\r\n\r\n")
        times.append(time.perf_counter() - watch)
    return statistics.median(times)


class Slowdown:
    """By how much nine idle clients on each port multiply the round trip of a tenth. The two are measured by turns, and the best
    round of each counts: what else the machine does takes no part in it."""

    def __init__(self, asking: dict[str, Client]) -> None:
        self._asking = asking
        self._alone: dict[str, list[float]] = {name: [] for name in asking}
        self._in_company: dict[str, list[float]] = {name: [] for name in asking}

    def measure(self) -> None:
        """One round."""
        for name, client in self._asking.items():
            self._alone[name].append(round_trip(client))
        with contextlib.ExitStack() as company:
            for _ in range(9):
                company.enter_context(TelnetClient()).log_in()
                for opened in (IpcClient, XcpClient):
                    company.enter_context(opened()).expect_nothing_more()
            for name, client in self._asking.items():
                self._in_company[name].append(round_trip(client))
        for client in self._asking.values():  # the nine have been removed
            client.expect_nothing_more()
            client.expect_nothing_more()

    def result(self) -> dict[str, float]:
        return {name: min(self._in_company[name]) / min(self._alone[name]) for name in self._asking}


@plain_only
@pytest.mark.deadline(180)
def test_nine_idle_clients_on_each_port_hardly_slow_a_tenth_down(socket_tessd, record_property):
    with contextlib.ExitStack() as stack:
        stack.enter_context(AnsweringProcess(2001, b"ENC", lambda _command: b"5\r\n\r\n"))
        asking = {name: stack.enter_context(opened()) for name, opened in
                  (("telnet", TelnetClient), ("IPC", IpcClient), ("XCP", XcpClient))}
        asking["telnet"].log_in()
        slowdown = Slowdown(asking)
        rounds = 0
        while rounds < FEWEST_ROUNDS or (rounds < MOST_ROUNDS and max(slowdown.result().values()) > MOST_SLOWDOWN):
            slowdown.measure()
            rounds += 1
    record_property("slowdown", f"{slowdown.result()} after {rounds} rounds")
    assert max(slowdown.result().values()) <= MOST_SLOWDOWN, f"slowed down by {slowdown.result()} in {rounds} rounds"
