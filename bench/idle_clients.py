#!/usr/bin/python3
"""By how much nine idle clients on each socket port slow the command of a tenth down.

    /usr/bin/python3 bench/idle_clients.py [ROUNDS]

For each port: the median time from a command to its answer, alone and in company, and how many times the second is the first.
The two are measured by turns, and the best round of each counts. TESSD_BIN_DIR says where the daemon is, build/release/bin
without it."""

from __future__ import annotations

import contextlib
import statistics
import sys
import time

import device  # of this folder
from harness import accounts
from harness.clients import Client, IpcClient, XcpClient
from harness.daemon import SOCKET_PORTS, Daemon
from harness.queue_process import AnsweringProcess
from harness.telnet import TelnetClient

ASKED = 300  # times in each round
PORTS = {"telnet": TelnetClient, "IPC": IpcClient, "XCP": XcpClient}


def round_trip(client: Client) -> float:
    """Median of the seconds from a command to its answer."""
    times = []
    for _ in range(ASKED):
        began = time.perf_counter()
        client.ask(b"s3.ENC GETX", b"5\r\n\r\n")
        times.append(time.perf_counter() - began)
    return statistics.median(times)


def opened(kind: type[Client]) -> Client:
    client = kind()
    if isinstance(client, TelnetClient):
        client.log_in()
    client.expect_nothing_more()
    return client


def measure(rounds: int) -> None:
    """Prints the table. Inside the namespaces."""
    accounts.install()
    tessd = Daemon(*SOCKET_PORTS).wait_running()
    with contextlib.ExitStack() as stack:
        stack.enter_context(AnsweringProcess(2001, b"ENC", lambda _command: b"5\r\n\r\n"))
        asking = {name: stack.enter_context(opened(kind)) for name, kind in PORTS.items()}
        alone: dict[str, float] = dict.fromkeys(PORTS, float("inf"))
        in_company = dict(alone)
        for _ in range(rounds):
            for name, client in asking.items():
                alone[name] = min(alone[name], round_trip(client))
            with contextlib.ExitStack() as company:
                for kind in list(PORTS.values()) * 9:
                    company.enter_context(opened(kind))
                for name, client in asking.items():
                    in_company[name] = min(in_company[name], round_trip(client))
            for client in list(asking.values()) * 2:  # the nine have been removed
                client.expect_nothing_more()
    tessd.stop()
    print(f"{'':10}{'alone us':>10}{'company us':>12}{'times':>8}")
    for name in PORTS:
        ratio = in_company[name] / alone[name]
        print(f"{name:10}{1e6 * alone[name]:10.1f}{1e6 * in_company[name]:12.1f}{ratio:8.2f}")


if __name__ == "__main__":
    device.run(lambda: measure(int(sys.argv[1]) if len(sys.argv) > 1 else 5))
