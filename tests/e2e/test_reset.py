"""RESET: the device restarts. The daemon runs in process numbers of its own, which the kernel ends in place of the
machine."""

from __future__ import annotations

import contextlib
import os
import signal
import socket

import pytest

from harness import proc, settings, wire
from harness.clients import IpcClient, XcpClient
from harness.nested import OWN_DEVICE, OWN_DEVICE_WITHOUT_RESTART, has_boot_capability, in_own_device
from harness.queue_process import QueueProcess
from harness.waiting import Stopwatch, wait_until

REINIT_PROGRAM = "/run/reinit"
REINIT_DONE = "/run/reinit.done"
RESET_ERROR = b"Error Processing Reset Command.\r\n\r\n"
RESET_MESSAGE_ERROR = b"Error Processing RESET Command\r\n\r\n"
RESTARTED = -signal.SIGHUP
RECEIVED_RESET = (250003, "Received RESET command.")
MAY_NOT_RESTART = (250005, "Error forcing reboot: Operation not permitted")


@pytest.fixture
def start_in_own_device(start_tessd):
    def start(launcher=OWN_DEVICE, reinit_status=0, **options):
        with open(REINIT_PROGRAM, "w", encoding="ascii") as program:
            program.write(f"#!/bin/sh\necho done >>{REINIT_DONE}\nexit {reinit_status}\n")
        os.chmod(REINIT_PROGRAM, 0o755)
        tessd = start_tessd(launcher=launcher, environment={"TESS_REINIT": REINIT_PROGRAM}, **options)
        assert in_own_device(tessd.pid), "a reset would end the test itself"
        return tessd

    return start


def end_own_device(tessd) -> None:
    """Ends a daemon, and with it the copy that waits to restart the device."""
    tessd.kill()


def wait_reset_started(tessd, what: str) -> None:
    wait_until(lambda: proc.children(tessd.pid), f"{what!r} starts a reset")


ACCEPTED = [
    b"RESET",
    b"reset",
    b"Resetting",
    b"RESET|X",
    b"RESETS|A|B",
    b"RESET ",
    b"RESET REINIT s3",
    b"reset reinit s3",
    b"RESET Reinit s3-and-more",
    b"  RESET   REINIT   s3",
]


@pytest.mark.parametrize("kind", ["IPC", "XCP", "message"])
def test_resets_that_are_accepted_are_under_way_at_once(start_in_own_device, kind):
    for line in ACCEPTED:
        with contextlib.suppress(FileNotFoundError):
            os.unlink(REINIT_DONE)
        tessd = start_in_own_device()
        with QueueProcess(2001) as process, IpcClient() as ipc, XcpClient() as xcp:
            if kind == "IPC":
                ipc.send(line + b"\n")
            elif kind == "XCP":
                xcp.send_frame(line)
            else:
                process.send(wire.record(wire.RESET, line + b"\0", tag=1))
                got = process.receive()
                assert (got.kind, got.line[: len(line) + 1]) == (wire.REPLY, b"OK\r\n\r\n"[: len(line) + 1]), line
                assert RECEIVED_RESET in tessd.entries()
            wait_reset_started(tessd, line.decode())
            # No answer to the command, and the daemon goes on serving.
            ipc.expect_nothing_more()
            xcp.expect_nothing_more()
        done = os.path.exists(REINIT_DONE)
        assert done == (b"reinit" in line.lower()), f"{line!r}: re-initialised: {done}"
        end_own_device(tessd)


def test_the_device_restarts_after_five_seconds_and_is_served_until_then(start_in_own_device):
    tessd = start_in_own_device()
    assert has_boot_capability(tessd.pid)
    with QueueProcess(2001) as process, IpcClient() as client, XcpClient() as other:
        process.register(b"ENC")
        client.send(b"RESET\n")
        watch = Stopwatch()
        wait_reset_started(tessd, "RESET")
        served = 0
        with contextlib.suppress(AssertionError, OSError):
            while watch.seconds() < 20 * settings.SLOW:
                client.send(b"s3.ENC X\n")
                process.reply(process.expect_command(b"X", within=1).tag, b"5\r\n\r\n")
                client.expect(b"5\r\n\r\n")
                other.expect_nothing_more()
                served += 1
        seconds = watch.seconds()
        assert tessd.wait_end() == RESTARTED
    assert 4.9 < seconds < 5 + 10 * settings.SLOW, f"restarted after {seconds:.1f} s"
    assert served >= 10, f"only {served} commands served meanwhile"
    assert not [entry for entry in tessd.entries() if entry[0] == 250005], tessd.log_text()


@pytest.mark.parametrize("text, answer", [(b"RESET", b"OK\r\n\r\n"), (b"anything", b"OK\r\n\r\n")])
def test_a_reset_message_of_one_word_restarts_whatever_the_word(start_in_own_device, text, answer):
    tessd = start_in_own_device()
    with QueueProcess(2001) as process:
        watch = Stopwatch()
        process.send(wire.record(wire.RESET, text + bytes(20)))
        got = process.receive()
        assert (got.kind, got.tag, got.length_word, got.line) == (wire.REPLY, 0, 0, answer)
        assert got.size == wire.HEADER + len(text) + 20
        assert tessd.wait_end(within=15) == RESTARTED
        assert watch.seconds() > 4.9, f"restarted after {watch.seconds():.1f} s"


@pytest.mark.parametrize("text", [b"", b"  ", b"A B", b"RESET REINIT s4", b"RESET REINIT s3 now", b"A B s3"])
def test_a_reset_message_that_is_no_reset_is_refused(start_in_own_device, text):
    tessd = start_in_own_device()
    with QueueProcess(2001) as process:
        process.send(wire.record(wire.RESET, text + bytes(60)))
        got = process.receive()
        assert (got.kind, got.line) == (wire.REPLY, RESET_MESSAGE_ERROR), got
        process.expect_daemon_done()
    assert proc.children(tessd.pid) == []
    assert not os.path.exists(REINIT_DONE)
    end_own_device(tessd)


def test_the_first_word_of_a_reinitialising_message_does_not_matter(start_in_own_device):
    tessd = start_in_own_device()
    with QueueProcess(2001) as process:
        process.send(wire.record(wire.RESET, b"any reinit s3x\0"))
        assert process.receive().line == b"OK\r\n\r\n"
    wait_reset_started(tessd, "any reinit s3x")
    assert os.path.exists(REINIT_DONE)
    end_own_device(tessd)


def test_a_reinitialisation_that_fails_refuses_the_reset(start_in_own_device):
    tessd = start_in_own_device(reinit_status=3)
    with IpcClient() as client:
        client.ask(b"RESET REINIT s3", RESET_ERROR)
        assert os.path.exists(REINIT_DONE), "it was never tried"
        os.unlink(REINIT_PROGRAM)
        client.ask(b"RESET REINIT s3", RESET_ERROR)
        client.expect_nothing_more()
    assert proc.children(tessd.pid) == []
    end_own_device(tessd)


def test_only_this_host_is_reinitialised(start_in_own_device):
    socket.sethostname("tess-north")
    tessd = start_in_own_device()
    with IpcClient() as client:
        for name in (b"s3", b"tess", b"tess-nort", b"Tess-North", b"tess-south"):
            client.ask(b"RESET REINIT " + name, RESET_ERROR)
        assert not os.path.exists(REINIT_DONE)
        client.send(b"RESET REINIT tess-north\n")
        wait_reset_started(tessd, "RESET REINIT tess-north")
        client.expect_nothing_more()
    end_own_device(tessd)


def test_a_command_whose_restart_is_denied_is_answered_late_by_the_copy(start_in_own_device):
    """The copy that was to restart the device goes on running as a second daemon: a deliberate oddity."""
    tessd = start_in_own_device(OWN_DEVICE_WITHOUT_RESTART)
    assert not has_boot_capability(tessd.pid)
    with IpcClient() as client:
        client.send(b"RESET\n")
        wait_reset_started(tessd, "RESET")
        client.expect_nothing_more()
        client.expect(RESET_ERROR, within=15)
    tessd.wait_log(*MAY_NOT_RESTART)
    end_own_device(tessd)


def test_the_copy_of_a_denied_restart_goes_on_whatever_the_daemon_was_doing(start_in_own_device):
    """While the command resets, the main thread waits to write an answer: the copy has no main thread."""
    tessd = start_in_own_device(OWN_DEVICE_WITHOUT_RESTART)
    with IpcClient() as client, QueueProcess(2001) as process, QueueProcess(2002) as stuck:
        stuck.register(b"STUCK")
        process.fill(2002)
        client.send(b"s3.STUCK X\nRESET\n")
        while not proc.children(tessd.pid):
            process.reply(wire.FIRST_IPC_ID, b"x")
        (copy,) = proc.children(tessd.pid)
        tessd.wait_log(*MAY_NOT_RESTART, within=15)
        os.kill(copy, signal.SIGTERM)
        wait_ended(copy)
    end_own_device(tessd)


def wait_ended(copy: int) -> None:
    wait_until(lambda: proc.status_field(copy, copy, "State").startswith("Z"), "the copy ends", within=5)


def test_the_copy_of_a_denied_restart_serves_and_its_end_disturbs_nobody_of_the_original(start_in_own_device):
    tessd = start_in_own_device(OWN_DEVICE_WITHOUT_RESTART)
    with IpcClient() as client, XcpClient() as framed, QueueProcess(2001) as process:
        framed.expect_nothing_more()
        process.send(wire.record(wire.RESET, b"RESET" + bytes(60)))
        assert process.receive().line == b"OK\r\n\r\n"
        (copy,) = proc.children(tessd.pid)
        assert process.receive(within=15).line == RESET_MESSAGE_ERROR
        for _ in range(20):  # by one of the two
            with IpcClient() as newcomer:
                newcomer.expect_nothing_more()
        os.kill(copy, signal.SIGTERM)
        wait_ended(copy)
        client.expect_nothing_more()
        framed.expect_nothing_more()
        process.register(b"ENC")
        for opened in (IpcClient, XcpClient):
            with opened() as newcomer:
                newcomer.expect_nothing_more()
        client.send(b"s3.ENC X\n")
        process.reply(process.expect_command(b"X").tag, b"5\r\n\r\n")
        client.expect(b"5\r\n\r\n")
    tessd.stop()


def test_a_message_whose_restart_is_denied_is_answered_twice(start_in_own_device):
    tessd = start_in_own_device(OWN_DEVICE_WITHOUT_RESTART)
    assert not has_boot_capability(tessd.pid)
    with QueueProcess(2001) as process:
        process.send(wire.record(wire.RESET, b"RESET" + bytes(60)))
        assert process.receive().line == b"OK\r\n\r\n"
        assert process.receive(within=15).line == RESET_MESSAGE_ERROR
    tessd.wait_log(*MAY_NOT_RESTART)
    end_own_device(tessd)
