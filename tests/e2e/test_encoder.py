"""The two example processes, which authors copy, and what they are made of: CommandProcess of the framework and Process of
the Python module."""

from __future__ import annotations

import contextlib
import fcntl
import os
import select
import signal
import socket
import subprocess
import sys
import time
from collections.abc import Callable, Iterator

import pytest

from harness import proc, settings, wire
from harness.clients import IpcClient
from harness.manager import ServiceManager
from harness.queue_process import QueueProcess, queue_path
from harness.waiting import Stopwatch, wait_until

COMMANDS = {
    "c++": [*settings.WRAPPER, os.path.join(settings.BIN_DIR, "encoder")],
    "python": ["/usr/bin/python3", os.path.join(settings.PROJECT, "examples/encoder.py")],
}
PYTHON_MODULE = os.path.join(settings.PROJECT, "python")
ADDRESS = 1500
MOST_REGISTERED = 32

REGISTERED = "registered at tessd as ENC"
WAITING = "tessd is not there, asking again every second"
REFUSED = "tessd refused: Max # of registered processes reached"
NOT_OPENED = f"queue address {ADDRESS}"

# It registers again every ten seconds.
AGAIN = 15
# It waits two seconds for tessd's confirmation when it leaves, and is ended after five.
LEAVES = 2
ENDED = 5

REGISTER_ENC = wire.word(wire.ALL_PORTS) + b"ENC\0"


class Encoder:
    """One of the two, with its log in a file."""

    def __init__(self, command: list[str], stderr: int | None = None, **options: object) -> None:
        with open("/tmp/encoder.log", "ab") as log:
            options["env"] = {"PYTHONPATH": PYTHON_MODULE} | dict(options.get("env") or os.environ)
            options["env"].pop("PYTHONUNBUFFERED", None)  # users have not set it
            self.process = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stderr=log if stderr is None else stderr, **options
            )
        self._pidfd = os.pidfd_open(self.process.pid)

    def log(self) -> str:
        with open("/tmp/encoder.log", encoding="utf-8") as log:
            return log.read()

    def wait_log(self, text: str, within: float = 10) -> None:
        wait_until(lambda: text in self.log(), f"{text!r} in the log\n{self.log()}", within)

    def wait_queue(self) -> None:
        wait_until(lambda: os.path.exists(queue_path(ADDRESS)), "the queue of the encoder", 10)

    def wait_asleep(self) -> None:
        """Everything sent to it has been dealt with, signals too."""

        def asleep() -> bool:
            pid = self.process.pid
            pending = int(proc.status_field(pid, pid, "ShdPnd"), 16) | int(proc.status_field(pid, pid, "SigPnd"), 16)
            return proc.status_field(pid, pid, "State").startswith("S") and pending == 0

        wait_until(asleep, "the encoder asleep", 10)

    def terminate(self) -> None:
        self.process.send_signal(signal.SIGTERM)

    def wait_end(self, within: float = 5) -> int:
        ended = select.select([self._pidfd], [], [], within * settings.SLOW)[0]
        assert ended, f"the encoder still runs\n{self.log()}"
        return self.process.wait()

    def expect_end(self, status: int, within: float = 5) -> None:
        actual = self.wait_end(within)
        assert actual == status, f"expected status {status}, got {actual}\n{self.log()}"


@pytest.fixture(params=COMMANDS)
def command(request) -> list[str]:
    if request.param == "python" and settings.BYTEORDER != sys.byteorder:
        pytest.skip("its words are in this machine's byte order, not in the daemon's")
    return COMMANDS[request.param]


@pytest.fixture
def start(command) -> Iterator[Callable[..., Encoder]]:
    started = []

    def start_encoder(**options: object) -> Encoder:
        started.append(Encoder(command, **options))
        return started[-1]

    yield start_encoder
    for encoder in started:
        if encoder.process.poll() is None:
            encoder.process.kill()
            encoder.process.wait()
        assert "Sanitizer" not in encoder.log(), encoder.log()


class PretendedTessd(QueueProcess):
    """In the place of tessd, to say and do what the test wants."""

    def __init__(self) -> None:
        os.makedirs(settings.QUEUE_DIR, exist_ok=True)
        super().__init__(wire.DAEMON)

    def expect(self, kind: int, text: bytes = b"", tag: int = 0) -> None:
        got = self.receive()
        assert (got.kind, got.tag, got.text) == (kind, tag, text), got
        assert got.origin == queue_path(ADDRESS), got

    def confirm(self, text: bytes = b"Process register operation successful\0") -> None:
        self.send(wire.record(wire.REPLY, text), to=ADDRESS)

    def command(self, text: bytes, tag: int) -> None:
        self.send(wire.record(wire.TEXT_KIND, text + b"\n\0", tag=tag), to=ADDRESS)


@pytest.fixture
def pretended() -> Iterator[PretendedTessd]:
    with PretendedTessd() as process:
        yield process


@pytest.fixture
def registered(start, pretended) -> Encoder:
    """Registered at the pretended tessd."""
    encoder = start()
    pretended.expect(wire.REGISTER, REGISTER_ENC)
    pretended.confirm()
    encoder.wait_log(REGISTERED)
    return encoder


def expect_no_queue() -> None:
    assert not os.path.exists(queue_path(ADDRESS)), "the file of the queue is left behind"


def test_it_registers_and_answers(start, tessd):
    start().wait_log(REGISTERED)
    with IpcClient() as client:
        for line, answer in (
            (b"GETX", b"0\r\n\r\n"),
            (b"SETX 5", b"0\r\n\r\n"),
            (b"GETX", b"5\r\n\r\n"),
            (b"SETX -2147483648", b"0\r\n\r\n"),
            (b"SETX 2147483648", b"?\r\n"),
            (b"SETX five", b"?\r\n"),
            (b"SETX", b"?\r\n"),
            (b"GETX now", b"?\r\n"),
            (b"BOIL", b"?\r\n"),
            (b"GETX", b"-2147483648\r\n\r\n"),
        ):
            client.ask(b"s3.ENC " + line, answer)


def test_the_service_manager_is_told_once_it_is_registered(start, pretended):
    with ServiceManager() as manager:
        encoder = start(env=os.environ | manager.ENVIRONMENT)
        pretended.expect(wire.REGISTER, REGISTER_ENC)
        manager.expect_nothing_yet()
        pretended.confirm()
        manager.expect(b"READY=1")
        pretended.confirm()
        pretended.command(b"GETX", tag=0xBB010001)  # taken after the second confirmation
        pretended.expect(wire.REPLY, b"0\r\n\r\n\0", tag=0xBB010001)
        manager.expect_nothing_yet()
        assert encoder.log().count(REGISTERED) == 1, encoder.log()


def test_it_waits_for_a_tessd_that_is_not_there_yet(start, start_tessd):
    encoder = start()
    encoder.wait_log(WAITING)
    start_tessd()
    encoder.wait_log(REGISTERED)
    with IpcClient() as client:
        client.ask(b"s3.ENC GETX", b"0\r\n\r\n")
    assert encoder.log().count(WAITING) == 1, encoder.log()


@pytest.mark.parametrize("absent", ["for a moment", "until it is missed"])
def test_it_registers_again_when_tessd_was_started_anew(start, start_tessd, absent):
    tessd = start_tessd()
    encoder = start()
    encoder.wait_log(REGISTERED)
    with IpcClient() as client:
        client.ask(b"s3.ENC SETX 5", b"0\r\n\r\n")
    tessd.stop()
    if absent != "for a moment":
        encoder.wait_log(WAITING, within=AGAIN)
    start_tessd()
    with IpcClient() as client:

        def answer() -> bytes:
            client.send(b"s3.ENC GETX\n")
            first = client.receive(3)
            return first if first == b"?\r\n" else first + client.receive(2)

        wait_until(lambda: answer() == b"5\r\n\r\n", "an answer of the encoder", AGAIN)


def test_it_ends_when_tessd_refuses_it(start, tessd):
    with contextlib.ExitStack() as others:
        for number in range(MOST_REGISTERED):
            others.enter_context(QueueProcess(2001 + number)).register(b"P%d" % number)
        encoder = start()
        encoder.expect_end(1)
        assert REFUSED in encoder.log(), encoder.log()
        expect_no_queue()


def test_it_unregisters_when_it_is_to_end(start, tessd):
    encoder = start()
    encoder.wait_log(REGISTERED)
    with IpcClient() as client:
        encoder.terminate()
        encoder.expect_end(0)
        client.ask(b"s3.ENC GETX", b"?\r\n")
    expect_no_queue()
    with QueueProcess(2001) as process:
        process.send(wire.record(wire.UNREGISTER))
        assert process.receive().line.startswith(b"Registered process list is empty")


def test_it_answers_what_was_forwarded_before_tessd_confirms_the_end(registered, pretended):
    registered.terminate()
    pretended.expect(wire.UNREGISTER)
    pretended.command(b"SETX 5", tag=0xBB010001)
    pretended.expect(wire.REPLY, b"0\r\n\r\n\0", tag=0xBB010001)
    registered.terminate()  # somebody has no patience
    registered.wait_asleep()
    pretended.send(b"no record", to=ADDRESS)
    pretended.command(b"GETX", tag=0xBB010002)
    pretended.expect(wire.REPLY, b"5\r\n\r\n\0", tag=0xBB010002)
    pretended.confirm(b"Process unregister operation successful\0")
    registered.expect_end(0, within=LEAVES)
    expect_no_queue()


def test_a_late_answer_to_the_registration_does_not_confirm_the_end(start, pretended):
    encoder = start()
    pretended.expect(wire.REGISTER, REGISTER_ENC)
    encoder.wait_asleep()
    encoder.terminate()
    pretended.expect(wire.UNREGISTER)
    pretended.confirm()
    pretended.command(b"GETX", tag=0xBB010001)
    pretended.expect(wire.REPLY, b"0\r\n\r\n\0", tag=0xBB010001)
    pretended.confirm(b"Process unregister operation successful\0")
    encoder.expect_end(0, within=LEAVES)


def test_it_ends_without_a_confirmation_too(registered, pretended):
    watch = Stopwatch()
    registered.terminate()
    pretended.expect(wire.UNREGISTER)
    registered.expect_end(0, within=ENDED)
    assert watch.seconds() >= LEAVES * 0.9
    expect_no_queue()


def test_it_can_be_ended_while_it_waits_for_tessd(start):
    encoder = start()
    encoder.wait_log(WAITING)
    encoder.terminate()
    encoder.expect_end(0)
    expect_no_queue()


def test_a_dropped_datagram_is_no_reason_to_register(start, pretended):
    encoder = start()
    pretended.expect(wire.REGISTER, REGISTER_ENC)
    encoder.wait_asleep()
    for _ in range(5):
        pretended.send(b"no record", to=ADDRESS)
    pretended.command(b"GETX", tag=0xBB010001)
    pretended.expect(wire.REPLY, b"0\r\n\r\n\0", tag=0xBB010001)


def fill_queue_of_tessd(pretended: PretendedTessd) -> list[int]:
    """Sends commands until answers to them wait for room. Returns their tags."""
    tags = list(range(0xBB010001, 0xBB010001 + 15))
    for tag in tags:
        pretended.command(b"GETX", tag)
    poller = select.poll()
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as another:
        another.connect(queue_path(wire.DAEMON))
        poller.register(another, select.POLLOUT)
        wait_until(lambda: not poller.poll(0), "a full queue of tessd", 10)
    return tags


def test_no_answer_is_lost_while_tessd_is_busy(registered, pretended):
    tags = fill_queue_of_tessd(pretended)
    time.sleep(0.6)  # that is how long tessd is busy
    for tag in tags:
        pretended.expect(wire.REPLY, b"0\r\n\r\n\0", tag=tag)


def test_it_can_be_ended_while_tessd_is_halted(registered, pretended):
    fill_queue_of_tessd(pretended)
    registered.terminate()
    registered.expect_end(-signal.SIGALRM, within=ENDED + 5)


def test_a_log_that_nobody_reads_any_more_does_not_end_it(start, start_tessd):
    reader, writer = os.pipe()
    encoder = start(stderr=writer)
    os.close(writer)
    assert select.select([reader], [], [], 10 * settings.SLOW)[0], "expected the line that it waits"
    os.close(reader)
    start_tessd()
    with IpcClient() as client:

        def taken() -> bool:
            client.send(b"s3.ENC GETX\n")
            return client.receive(3) != b"?\r\n"

        wait_until(taken, "an answer of the encoder", 10)
    encoder.terminate()
    encoder.expect_end(0)


@pytest.mark.parametrize("name", ["./1001", "/run/elsewhere/1001", "1001"])
def test_only_what_comes_from_the_queue_directory_is_from_tessd(start, pretended, name):
    """Its own folder is the queue directory, so that a name relative to the stranger's would be found there."""
    encoder = start(cwd=settings.QUEUE_DIR)
    pretended.expect(wire.REGISTER, REGISTER_ENC)
    encoder.wait_queue()
    os.mkdir("/run/elsewhere")
    os.chdir("/run/elsewhere")
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as stranger:
        stranger.bind(name)
        stranger.sendto(wire.record(wire.TEXT_KIND, b"SETX 9\n\0"), queue_path(ADDRESS))
        pretended.command(b"GETX", tag=0xBB010001)
        pretended.expect(wire.REPLY, b"0\r\n\r\n\0", tag=0xBB010001)


def test_a_name_that_leads_to_tessds_queue_is_not_tessd(start, pretended):
    """A sender chooses its name: it is compared, and not looked up."""
    start()
    pretended.expect(wire.REGISTER, REGISTER_ENC)
    os.mkdir("/run/elsewhere")
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as stranger:
        stranger.bind("/run/elsewhere/1001")
        os.rename("/run/elsewhere", "/run/moved")
        os.symlink(settings.QUEUE_DIR, "/run/elsewhere")
        stranger.sendto(wire.record(wire.TEXT_KIND, b"SETX 9\n\0"), queue_path(ADDRESS))
        pretended.command(b"GETX", tag=0xBB010001)
        pretended.expect(wire.REPLY, b"0\r\n\r\n\0", tag=0xBB010001)


def test_a_relative_queue_directory_is_made_absolute(start):
    """That is how whoever it sends to knows it, and how it knows the others."""
    os.makedirs("/run/elsewhere/queues")
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as tessd:
        tessd.bind("/run/elsewhere/queues/1001")
        tessd.settimeout(20)
        start(cwd="/run/elsewhere", env=os.environ | {"TESS_QUEUE_DIR": "./queues/"})
        _, origin = tessd.recvfrom(8192)
        assert origin == f"/run/elsewhere/queues/{ADDRESS}"
        tessd.sendto(wire.record(wire.TEXT_KIND, b"GETX\n\0"), origin)
        answer = tessd.recv(8192)[wire.HEADER :]
        assert answer == b"0\r\n\r\n\0", answer


def test_a_directory_that_stays_locked_holds_it_up_for_moments_only(start, pretended):
    directory = os.open(settings.QUEUE_DIR, os.O_RDONLY)
    fcntl.flock(directory, fcntl.LOCK_EX)
    encoder = start()
    encoder.expect_end(1, within=10)
    assert NOT_OPENED in encoder.log(), encoder.log()
    os.close(directory)


def test_an_address_has_one_owner_and_a_dead_one_is_replaced(start, pretended):
    first = start()
    pretended.expect(wire.REGISTER, REGISTER_ENC)
    start().expect_end(1)
    assert f"{NOT_OPENED} is in use" in first.log(), first.log()
    first.process.kill()
    first.process.wait()
    start()
    pretended.expect(wire.REGISTER, REGISTER_ENC)


def test_it_costs_nothing_to_speak_of_while_nobody_asks(registered, pretended):
    pid, watch = registered.process.pid, Stopwatch()

    def sleeps() -> int:
        return int(proc.status_field(pid, pid, "voluntary_ctxt_switches"))

    before = sleeps()
    time.sleep(3)
    rate = (sleeps() - before) / watch.seconds()
    assert rate <= 2, f"{rate:g} wake-ups a second"
