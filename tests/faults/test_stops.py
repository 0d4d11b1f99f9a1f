"""A stop at a random moment of traffic on all ports, with random pauses at locks and calls: it is the whole way, every time.

TESSD_STOPS says how often; 25 without it. Each stop has a number, which chooses moment, way and pauses: TESSD_FIRST_STOP is
the first one's, 0 without it, so that a failed one can be had again."""

from __future__ import annotations

import contextlib
import os
import random
import signal
import threading
import time

import pytest

from fault_library import LIBRARY
from harness import preload, settings, wire
from harness.answers import excuse_standing_in_line
from harness.clients import Client, IpcClient, XcpClient
from harness.com2 import SerialLine
from harness.daemon import Daemon
from harness.endings import expect_whole_end, send_stop_message
from harness.queue_process import AnsweringProcess, QueueProcess
from harness.telnet import TelnetClient
from harness.waiting import Deadline

STOPS = int(os.environ.get("TESSD_STOPS") or 25)
FIRST_STOP = int(os.environ.get("TESSD_FIRST_STOP") or 0)
IN_A_TEST = 5
END = 60  # seconds until it must have ended: there are pauses in every call, and the machine has other things to do
LATEST = 0.25  # seconds from the begin of the traffic to the stop
WAYS = ("SIGTERM", "SIGQUIT", "SIGTERM", "SIGQUIT", "stop message")


class Traffic:
    """Clients of all ports that ask as fast as they are answered, others that come and go, and a process that answers and one
    that registers again and again."""

    def __init__(self) -> None:
        self._line = SerialLine()
        self._ending = threading.Event()
        self._left: list[str] = []  # who was not let go

    def begin(self) -> None:
        """The daemon serves."""
        self._process = AnsweringProcess(2001, b"ENC", lambda command: b"answer to " + command)
        telnet = TelnetClient()
        telnet.log_in(within=END)
        self._threads = [
            threading.Thread(target=run, args=arguments, daemon=True)
            for run, *arguments in (
                (self._ask, IpcClient(), b"s3.ENC X|*|DELAY 1.0|s3.ENC LATER\n"),
                (self._ask, IpcClient(), b"s3.ENC X\n" * 20),
                (self._ask, XcpClient(), wire.frame(b"s3.ENC X\n" * 20, 7)),
                (self._ask, telnet, b"s3.ENC X|*\r\n"),
                (self._type,),
                (self._come_and_go,),
                (self._register,),
            )
        ]
        for thread in self._threads:
            thread.start()

    def expect_all_let_go(self) -> None:
        """The daemon has ended: whoever was connected has been told."""
        self._ending.set()
        for thread in self._threads:
            thread.join(END * settings.SLOW)
        assert not self._left, f"connections that were not closed: {self._left}"
        assert not any(thread.is_alive() for thread in self._threads), "a client waits for ever"
        self._line.hang_up()
        self._process.close()

    def _ask(self, client: Client, lines: bytes) -> None:
        client.socket.settimeout(20 * settings.SLOW)
        try:
            while True:
                client.socket.sendall(lines)
                if not client.socket.recv(1 << 16):
                    return
        except TimeoutError:
            self._left.append(type(client).__name__)
        except OSError:
            return  # it was reset, because what it had sent was not read any more
        finally:
            client.close()

    def _type(self) -> None:
        while not self._ending.is_set():
            with contextlib.suppress(OSError, AssertionError):
                self._line.ask(b"s3.ENC X", b"answer to X", within=0.1)

    def _come_and_go(self) -> None:
        while not self._ending.is_set():
            with contextlib.suppress(OSError), IpcClient() as ipc, XcpClient(), TelnetClient():
                ipc.send(b"*|s3.ENC Z\n")
                ipc.socket.recv(100)

    def _register(self) -> None:
        with QueueProcess(2002) as process:
            while not self._ending.is_set():
                with contextlib.suppress(OSError, AssertionError):
                    process.send(wire.registration(b"OTHER", wire.ALL_PORTS))
                    process.send(wire.record(wire.COM2_WRITE, b"menu", length=4))
                    process.send(wire.record(wire.UNREGISTER))
                    process.waiting()
                time.sleep(0.001)


def _stop(tessd: Daemon, way: str) -> None:
    """The message waits for room in the daemon's queue, which the answering process is quicker to fill."""
    if way != "stop message":
        return tessd.signal(getattr(signal, way))
    deadline = Deadline(END)
    while not deadline.over():
        with contextlib.suppress(TimeoutError):
            return send_stop_message()
    raise AssertionError("the message found no room")


@pytest.mark.deadline((END + 10) * IN_A_TEST)
@pytest.mark.parametrize("first", range(FIRST_STOP, FIRST_STOP + STOPS, IN_A_TEST))
def test_a_stop_at_a_random_moment_is_the_whole_way(launch, first):
    for number in range(first, min(first + IN_A_TEST, FIRST_STOP + STOPS)):
        choice = random.Random(number)
        pauses = preload.environment(
            LIBRARY, TESS_PAUSES=f"{number + 1}:{choice.choice((0, 20, 100))}:{choice.choice((100, 1000))}"
        )
        traffic = Traffic()
        tessd = launch(environment=pauses)
        excuse_standing_in_line(tessd.process.pid)
        tessd.wait_running()
        traffic.begin()
        time.sleep(choice.uniform(0, LATEST))
        way = choice.choice(WAYS)
        try:
            _stop(tessd, way)
            tessd.wait_end(END)
            traffic.expect_all_let_go()
            expect_whole_end(tessd)
        except AssertionError as error:
            raise AssertionError(f"stop {number}, by {way}: {error}") from None
