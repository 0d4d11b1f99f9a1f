"""What tessd costs on the board: start time, memory, processor time. The figures are printed at the end."""

from __future__ import annotations

import re
import time

from users import SECONDS, Telnet, number, shell, uptime

MOST_KIB = 16 * 1024
CLIENTS = 10


def memory(board) -> float:
    """KiB that the daemon holds."""
    return number(board, "awk '/^VmRSS/ { print $2 }' /proc/$(cat /run/tessd.pid)/status")


def private_memory(board) -> float:
    """KiB of those that are nobody else's."""
    return number(board, "awk '/^RssAnon/ { print $2 }' /proc/$(cat /run/tessd.pid)/status")


def test_memory(board, figures):
    alone, own = memory(board), private_memory(board)
    clients = [Telnet(board) for _ in range(CLIENTS)]
    with_clients = memory(board)
    for client in clients:
        client.expect_alive()
        client.close()
    figures["memory of tessd, KiB"] = f"{alone:g} ({own:g} of its own), with {CLIENTS} telnet sessions {with_clients:g}"
    assert own < alone <= with_clients < MOST_KIB
    threads = number(board, "awk '/^Threads/ { print $2 }' /proc/$(cat /run/tessd.pid)/status")
    assert threads <= 3


def test_boot_time(board, figures):
    now = uptime(board)
    (run_init,) = re.findall(rb"\[ +(\d+\.\d+)\] Run /init as init process", board.console.shown)
    figures["boot, by the board's clock, s"] = f"{float(run_init):.2f} to its init, less than {now:.2f} to a registered process"
    assert float(run_init) < now < SECONDS


def test_start_time(board, figures):
    shell(board, "/etc/init.d/tessd stop")
    before = uptime(board)
    shell(board, "/etc/init.d/tessd start")
    figures["start of tessd by its init script until it serves, s"] = f"{uptime(board) - before:.2f}"
    with Telnet(board) as telnet:
        telnet.expect_alive()


def test_idle_it_uses_no_processor_time_to_speak_of(board, figures):
    ticks = "awk '{ print $14 + $15 }' /proc/$(cat /run/tessd.pid)/stat"
    before, used = uptime(board), number(board, ticks)
    time.sleep(10)
    spent, elapsed = number(board, ticks) - used, uptime(board) - before
    figures["processor time of tessd with nothing to do"] = f"{spent / 100:.2f} s in {elapsed:.1f} s"
    assert spent < elapsed * 100 / 20
    assert elapsed < SECONDS
