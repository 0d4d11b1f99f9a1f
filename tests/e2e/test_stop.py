"""The ways out: stop message, signals, also in the middle of traffic."""

from __future__ import annotations

import contextlib
import os
import re
import signal
import socket
import threading
import time

import pytest

from harness import settings, wire
from harness.accounts import ALICE
from harness.clients import IpcClient, XcpClient
from harness.daemon import (
    CLOSING_ALL,
    IPC_PORT_CLOSED,
    NORMAL_EXIT,
    RECEIVED_SIGCHLD,
    RECEIVED_SIGQUIT,
    RECEIVED_SIGTERM,
    XCP_PORT_CLOSED,
)
from harness.endings import AT_ONCE, SERVED_AFTER_STOP, end_by_signal, time_to_end
from harness.queue_process import AnsweringProcess, QueueProcess, queue_path
from harness.telnet import DO_ECHO, PASSWORD_PROMPT, WILL_ECHO, LinemodeClient
from harness.waiting import Stopwatch

XCP_CONNECTION_CLOSED = "XCP socket connection closed.  Active connections = "


def send_stop_message(_tessd) -> None:
    with QueueProcess(2999) as process:
        process.send(wire.record(wire.STOP))


def send_sigterm(tessd) -> None:
    tessd.signal(signal.SIGTERM)


def send_sigquit(tessd) -> None:
    tessd.signal(signal.SIGQUIT)


STOPS = [
    pytest.param(send_stop_message, [], id="stop message"),
    pytest.param(send_sigterm, [RECEIVED_SIGTERM], id="SIGTERM"),
    pytest.param(send_sigquit, [RECEIVED_SIGQUIT], id="SIGQUIT"),
]


@pytest.mark.parametrize("stop, said_first", STOPS)
def test_stopping_closes_everything_in_order(tessd, stop, said_first):
    with IpcClient() as ipc, XcpClient() as xcp:
        ipc.expect_nothing_more()
        xcp.expect_nothing_more()
        started = len(tessd.entries())
        stop(tessd)
        tessd.expect_normal_end()
        ipc.expect_close()
        xcp.expect_close()
    actual = tessd.entries()[started:]
    expected = [
        *said_first,
        CLOSING_ALL,
        (6001, XCP_CONNECTION_CLOSED + "0"),
        XCP_PORT_CLOSED,
        IPC_PORT_CLOSED,
        NORMAL_EXIT,
    ]
    assert actual == expected, f"expected {expected}, got {actual}"


@pytest.mark.parametrize("stop, _said_first", STOPS)
def test_stopping_removes_sockets_and_queue(tessd, stop, _said_first):
    stop(tessd)
    tessd.expect_normal_end()
    for path in (settings.IPC_PATH, settings.XCP_PATH, queue_path(wire.DAEMON)):
        assert not os.path.lexists(path), path


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGQUIT])
def test_a_signal_ends_an_idle_daemon_at_once(tessd, number):
    with IpcClient() as client:
        client.expect_nothing_more()
        tessd.wait_asleep()
        seconds = end_by_signal(tessd, number)
        assert seconds <= AT_ONCE * settings.SLOW, f"took {seconds:.2f} s"
        tessd.expect_normal_end()


def test_a_second_signal_changes_nothing(tessd):
    for number in (signal.SIGTERM, signal.SIGQUIT, signal.SIGTERM):
        with contextlib.suppress(ProcessLookupError, IndexError):
            tessd.signal(number)
    tessd.expect_end(0, 10)
    assert tessd.entries().count(NORMAL_EXIT) == 1, tessd.log_text()  # a signal may be logged behind it


def test_a_signal_after_a_stop_message_ends_it_at_once(tessd):
    with QueueProcess(2999) as process:
        process.send(wire.record(wire.STOP))
        process.wait_taken()
    seconds = end_by_signal(tessd)
    assert seconds <= AT_ONCE * settings.SLOW, f"took {seconds:.2f} s"
    tessd.expect_normal_end()


def test_stop_message_ends_the_daemon_after_two_seconds(tessd):
    watch = Stopwatch()
    seconds = time_to_end(tessd, lambda: send_stop_message(tessd))
    assert watch.seconds() >= SERVED_AFTER_STOP, f"took {watch.seconds():.2f} s"
    assert seconds <= SERVED_AFTER_STOP + AT_ONCE * settings.SLOW, f"took {seconds:.2f} s"
    tessd.expect_normal_end()


def test_everybody_is_served_for_two_seconds_after_a_stop_message(start_socket_tessd):
    """It ends the message loop only; the service thread is told to end when the two seconds are over."""
    tessd = start_socket_tessd()
    with IpcClient() as ipc, XcpClient() as xcp, LinemodeClient() as telnet, QueueProcess(2999) as process:
        telnet.negotiate()
        process.send(wire.record(wire.STOP))
        taken = Stopwatch()
        process.wait_taken()
        threading.Event().wait(0.8 - taken.seconds())
        telnet.send(ALICE.name + b"\r\n")
        telnet.expect(WILL_ECHO)
        threading.Event().wait(0.1)  # a prompt that does not wait for DO ECHO would come now
        telnet.send(DO_ECHO)
        telnet.expect(PASSWORD_PROMPT)
        telnet.send(ALICE.password + b"\r\n")
        telnet.expect_connected(ALICE.name)
        ipc.expect_nothing_more()
        xcp.expect_nothing_more()
        with IpcClient() as newcomer:
            newcomer.expect_nothing_more()
    tessd.expect_normal_end()


class Traffic:
    """Clients and a process that keep commands and answers in flight until the daemon is gone."""

    def __init__(self) -> None:
        self._process = AnsweringProcess(2001, b"ENC", lambda command: b"answer to " + command)
        self._ending = threading.Event()
        self.commands = 0
        self._threads = [
            threading.Thread(target=run, args=(client,), daemon=True)
            for run, client in [
                *((self._run_ipc, IpcClient()) for _ in range(3)),
                *((self._run_xcp, XcpClient()) for _ in range(3)),
                *((self._run_newcomers, None) for _ in range(2)),
            ]
        ]
        for thread in self._threads:
            thread.start()

    def _run_ipc(self, client: IpcClient) -> None:
        self._run(client, lambda: client.send(b"s3.ENC X|Y|*\n" * 20))

    def _run_xcp(self, client: XcpClient) -> None:
        self._run(client, lambda: client.send_frame(b"s3.ENC X\n" * 20, 7))

    def _run(self, client, send) -> None:
        client.socket.settimeout(20)
        try:
            while not self._ending.is_set():
                send()
                self.commands += 1
                if not client.socket.recv(1 << 16):
                    return
        except OSError:
            return

    def _run_newcomers(self, _client) -> None:
        while not self._ending.is_set():
            try:
                with IpcClient() as client, XcpClient():
                    client.send(b"*|s3.ENC Z\n")
                    client.socket.recv(100)
                    self.commands += 1
            except OSError:
                time.sleep(0.001)  # the next try comes soon enough

    def wait_flowing(self) -> None:
        deadline = time.monotonic() + 10 * settings.SLOW
        while self.commands < 100 or self._process.answered < 100:
            assert time.monotonic() < deadline, f"only {self.commands} commands, {self._process.answered} answers"
            time.sleep(0.005)

    def end(self) -> None:
        self._ending.set()
        for thread in self._threads:
            thread.join(10 * settings.SLOW)
            assert not thread.is_alive(), "a client was not let go"
        self._process.close()


@pytest.mark.parametrize("stop, _said_first", STOPS)
@pytest.mark.parametrize("half", ["first rounds", "more rounds"])
def test_stopping_in_the_middle_of_traffic_is_orderly_every_time(start_tessd, stop, _said_first, half):
    for _round in range(4):
        tessd = start_tessd()
        traffic = Traffic()
        traffic.wait_flowing()
        stop(tessd)
        tessd.expect_normal_end()
        traffic.end()


def test_segmentation_fault_is_reported_with_the_milestone(tessd):
    with IpcClient() as client:
        client.expect_nothing_more()
    tessd.wait_asleep()
    tessd.signal(signal.SIGSEGV)
    assert tessd.wait_end() == 1
    milestone = re.compile(r"Segmentation fault detected after milestone (\d+)")
    text = tessd.wait_log(250009, milestone)
    # Nobody talks: both loops rest in their waits, 12 and 20 stand in front of those.
    assert int(milestone.fullmatch(text)[1]) in (12, 20), text
    assert tessd.entries()[-1] == (250009, text)


def test_broken_pipe_signal_leaves_no_log_line(tessd):
    tessd.signal(signal.SIGPIPE)
    tessd.signal(signal.SIGCHLD)
    tessd.wait_log(*RECEIVED_SIGCHLD)
    assert "pipe" not in tessd.log_text(), tessd.log_text()
    with IpcClient() as client:
        client.expect_nothing_more()


def test_child_signal_is_logged_and_nothing_else_happens(tessd):
    for count in range(1, 4):
        tessd.signal(signal.SIGCHLD)
        tessd.wait_log(*RECEIVED_SIGCHLD, count=count)
    with IpcClient() as client:
        client.expect_nothing_more()


def test_signals_in_the_middle_of_traffic_disturb_no_command(tessd):
    with AnsweringProcess(2001, b"ENC", lambda command: command + b"\r\n"), IpcClient() as ipc, XcpClient() as xcp:
        stop = threading.Event()

        def signals() -> None:
            while not stop.is_set():
                tessd.signal(signal.SIGCHLD)
                tessd.signal(signal.SIGPIPE)
                time.sleep(0.0005)

        thread = threading.Thread(target=signals)
        thread.start()
        try:
            for number in range(400):
                ipc.ask(b"s3.ENC i%d" % number, b"i%d\r\n" % number)
                xcp.ask(b"s3.ENC x%d" % number, b"x%d\r\n" % number)
        finally:
            stop.set()
            thread.join()
    texts = {line.entry for line in tessd.read_log() if line.id == 250009}
    assert texts == {RECEIVED_SIGCHLD}, texts


def test_a_client_that_left_before_its_answer_does_no_harm(tessd):
    """Writing to it must not end the daemon through a broken pipe."""
    with QueueProcess(2001) as process:
        process.register(b"ENC")
        for opened in (IpcClient, XcpClient):
            for _ in range(20):
                client = opened()
                if opened is IpcClient:
                    client.send(b"s3.ENC X\n")
                else:
                    client.send_frame(b"s3.ENC X\n")
                tag = process.expect_command(b"X").tag
                client.socket.shutdown(socket.SHUT_RD)
                process.reply(tag, b"x" * 100)
                process.expect_daemon_done()
                client.close()
    with IpcClient() as client:
        client.expect_nothing_more()
