"""A log of which the calls fail: every line arrives whole, or is counted as lost, and nobody waits for it."""

from __future__ import annotations

import re
import signal

import pytest

from fault_library import EVERY, FIRST, SECOND, Fault, FaultControl
from harness import settings
from harness.answers import excuse_standing_in_line
from harness.clients import XcpClient
from harness.daemon import LOCAL_PORTS
from harness.log_pipe import LogPipe
from harness.system_log import SystemLog
from harness.waiting import wait_until

_LOST = re.compile(r"(\d+) log lines were lost")
_CLIENTS = 8  # clients that come and go while calls fail


def come_and_go(count: int) -> None:
    """Two lines are logged about each."""
    for _ in range(count):
        with XcpClient() as client:
            client.expect_nothing_more()


def arrived_and_lost(entries: list[tuple[int, str]]) -> tuple[int, int]:
    """Of the lines about clients."""
    arrived = sum("XCP socket connection closed" in text or number == 36106 for number, text in entries)
    return arrived, sum(int(found[1]) for _, text in entries if (found := _LOST.fullmatch(text)))


@pytest.mark.parametrize("which", (FIRST, SECOND, EVERY))
@pytest.mark.parametrize(
    "call, error",
    [
        *(("pwritev2/log", error) for error in ("EAGAIN", "EINTR", "EIO", "ENOSPC", "EOPNOTSUPP")),
        ("fstat/log", "ENOMEM"),
    ],
)
def test_a_pipe(launch, call, error, which):
    if call == "fstat/log" and settings.thread_sanitized():
        pytest.skip("the thread sanitizer stands in front of fstat() itself")
    control = FaultControl(Fault(call, error, which))
    pipe = LogPipe()
    tessd = launch(*LOCAL_PORTS, environment=control.environment, standard_error=pipe.write_end)
    excuse_standing_in_line(tessd.process.pid)
    pipe.attach(tessd)
    tessd.wait_ready()
    with pipe.reading(), XcpClient() as stays:
        stays.expect_nothing_more()
        tessd.wait_asleep()
        control.arm()
        come_and_go(_CLIENTS)
        stays.expect_nothing_more()
        assert control.fired() > 0, "the call was not made"
        control.disarm()
        come_and_go(1)
        expected = 1 + 2 * (_CLIENTS + 1)
        wait_until(
            lambda: sum(arrived_and_lost(tessd.entries())) == expected,
            f"{expected} lines about clients, those that were lost included",
        )
    tessd.signal(signal.SIGTERM)
    assert tessd.wait_end() == 0
    _, lost = arrived_and_lost(tessd.entries())
    if error == "EOPNOTSUPP":  # an older kernel: there is another way
        assert lost == 0, tessd.log_text()
    elif which != EVERY:
        assert lost == 1, tessd.log_text()


@pytest.mark.parametrize("which", (FIRST, EVERY))
@pytest.mark.parametrize("error", ("EAGAIN", "ECONNREFUSED", "ENOBUFS", "EINTR"))
def test_the_system_log(launch, error, which):
    """A line that it does not take goes to standard error."""
    system_log = SystemLog()
    control = FaultControl(Fault("sendto/other", error, which))
    tessd = launch(*LOCAL_PORTS, environment={**control.environment, "TESS_LOG": "syslog"}).wait_ready()
    excuse_standing_in_line(tessd.process.pid)
    tessd.wait_asleep()
    system_log.received()
    control.arm()
    come_and_go(1)
    tessd.wait_asleep()
    control.disarm()
    wait_until(
        lambda: arrived_and_lost(tessd.entries()) == ((1 if which == FIRST else 2), 0), "what it refuses is on standard error"
    )
    assert len(system_log.received()) == (1 if which == FIRST else 0)
