"""What the device runs out of while the daemon serves: room on the disk, the queue directory, the serial line, descriptors,
memory. Whoever can be served is; when there is enough again everybody is.

TESSD_SHORTAGE_SECONDS says for how long the descriptors are missing; 3 without it."""

from __future__ import annotations

import contextlib
import os
import re
import resource
import shutil
import signal
import subprocess
import time

import pytest

import device_ns
from harness import proc, settings, wire
from harness.answers import excuse_standing_in_line, share_of_processor
from harness.clients import IpcClient, XcpClient
from harness.com2 import DEVICE, SerialLine
from harness.daemon import ERROR_RUNTIME, LOCAL_PORTS, Daemon
from harness.neighbours import Neighbours
from harness.nuisances import without_descriptors
from harness.queue_process import QueueProcess, queue_path
from harness.telnet import TelnetClient
from harness.waiting import wait_until
from stage import left_files

SECONDS = float(os.environ.get("TESSD_SHORTAGE_SECONDS") or 3)
_MEMORY_GROUPS = "/sys/fs/cgroup/memory"
ANSWER_LOST = (250004, "Error writing to the socket")

needs_plain_build = pytest.mark.skipif(settings.sanitized(), reason="a sanitizer takes memory by itself, and without end")


def start(launch, *arguments: str) -> Daemon:
    tessd = launch(*arguments)
    excuse_standing_in_line(tessd.process.pid)
    return tessd.wait_running()


def make_small(path: str) -> str:
    """Leaves a file system of which one file takes all the room, with few names; returns the path of that file."""
    if not os.path.ismount(path):
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", path], check=True)
    now = os.statvfs(path)
    names = now.f_files - now.f_ffree + 6
    room = (now.f_blocks - now.f_bfree) * now.f_frsize + 16384
    subprocess.run(["mount", "-o", f"remount,size={room},nr_inodes={names}", path], check=True)
    return os.path.join(path, "filler")


def fill(path: str, names: int = 6) -> None:
    """Takes all bytes, and all names up to so many."""
    with contextlib.suppress(OSError), open(path, "wb", buffering=0) as file:
        while True:
            file.write(bytes(4096))
    for number in range(names):
        with contextlib.suppress(OSError), open(f"{path}.{number}", "wb"):
            pass


# The disk


def test_a_full_disk_ends_the_start_in_order_and_a_later_start_succeeds(launch):
    filler = make_small("/tmp")
    fill(filler)
    tessd = launch(*LOCAL_PORTS)
    tessd.expect_end(1)
    assert tessd.entries()[-1] == ERROR_RUNTIME, tessd.log_text()
    assert left_files() == []
    for name in os.listdir("/tmp"):
        if name.startswith("filler"):
            os.unlink(os.path.join("/tmp", name))
    start(launch, *LOCAL_PORTS)
    with IpcClient() as client:
        client.expect_nothing_more()


def test_a_disk_that_becomes_full_disturbs_nobody(launch):
    filler = make_small("/tmp")
    tessd = start(launch, "--nocom2")
    fill(filler)
    with Neighbours() as neighbours:
        neighbours.expect_service()
        tessd.stop()
    assert left_files() == []


def test_a_log_on_a_full_disk_loses_lines_and_tells_how_many(launch):
    filler = make_small("/mnt")
    log = os.open("/mnt/log", os.O_RDWR | os.O_CREAT | os.O_APPEND)
    tessd = launch(*LOCAL_PORTS, standard_error=log).wait_ready()
    fill(filler)
    with IpcClient() as client:
        client.expect_nothing_more()
        wait_until(lambda: filled_up(log), "the log takes no more")
        for _ in range(3):
            with XcpClient() as another:
                another.expect_nothing_more()
        client.expect_nothing_more()
        os.unlink(filler)
        with XcpClient() as another:
            another.expect_nothing_more()
        wait_until(lambda: b" log lines were lost" in os.pread(log, 1 << 16, 0), "the lost lines are told of")
    tessd.signal(signal.SIGTERM)
    assert tessd.wait_end() == 0
    assert os.pread(log, 1 << 16, 0).endswith(b"51001 Normal application exit\n")


def filled_up(log: int) -> bool:
    """Fills what is left of the last page of a log, which is the daemon's to write to."""
    try:
        os.write(log, b"\n" * 64)
    except OSError:
        return True
    return False


# The queue directory


def test_the_queue_directory_removed_and_made_again_while_it_runs(launch):
    """The ports go on. A process that opens its queue anew is reached again; the daemon's own queue is there again after a
    restart."""
    tessd = start(launch, "--nocom2")
    with QueueProcess(2001) as process, IpcClient() as client:
        process.register(b"ENC")
        shutil.rmtree(settings.QUEUE_DIR)
        client.ask(b"s3.ENC X", b"?\r\n")
        client.expect_nothing_more()
        os.mkdir(settings.QUEUE_DIR)
        client.ask(b"s3.ENC X", b"?\r\n")
        with QueueProcess(2001) as again:
            client.send(b"s3.ENC X\n")
            again.expect_command(b"X")
            with pytest.raises(FileNotFoundError):
                again.send(wire.record(wire.UNREGISTER))
        client.expect_nothing_more()
        share = share_of_processor(tessd, 0.5)
        assert share < 0.1, f"an idle daemon uses {share:.0%} of a processor"
        tessd.stop()
    assert left_files() == []
    start(launch, "--nocom2")
    with Neighbours() as neighbours:
        neighbours.expect_service()


def test_a_queue_that_somebody_has_put_in_the_place_of_the_lost_one_stays(launch):
    tessd = start(launch, *LOCAL_PORTS)
    os.unlink(queue_path(wire.DAEMON))
    with QueueProcess(wire.DAEMON):
        tessd.stop()
        assert os.path.exists(queue_path(wire.DAEMON))


# The serial line


def write_to_line(process: QueueProcess, text: bytes) -> int:
    """Asks the daemon for it; returns the status of its answer: 0 done, 1 failed."""
    process.send(wire.record(wire.COM2_WRITE, text, length=len(text)))
    return process.receive().length_word


def test_a_serial_line_that_is_unplugged_and_plugged_in_again(launch):
    """What processes write goes to the new line at once. What is typed there is heard after a restart: the session stays with
    the device that was there."""
    line = SerialLine()
    tessd = start(launch)
    line.expect_nothing_more()
    with Neighbours() as neighbours, QueueProcess(2002) as process:
        assert write_to_line(process, b"menu") == 0
        line.expect(b"menu")
        line.hang_up()
        neighbours.expect_service()
        assert write_to_line(process, b"menu") == 1
        device_ns.unbind(DEVICE)
        os.unlink(DEVICE)
        assert write_to_line(process, b"menu") == 1
        share = share_of_processor(tessd, 1.5)
        assert share < 0.1, f"a daemon whose line is gone uses {share:.0%} of a processor"
        with SerialLine() as new_line:
            assert write_to_line(process, b"menu") == 0
            new_line.expect(b"menu")
            neighbours.expect_service()
            tessd.stop()
            start(launch)
            new_line.expect_nothing_more()


# Descriptors


@pytest.mark.deadline(60 + SECONDS)
def test_no_descriptors_for_a_while(launch):
    """Who is there is served, nothing spins, nothing is logged; those who came meanwhile get in when there are some again."""
    tessd = start(launch, "--nocom2")
    with Neighbours() as neighbours, TelnetClient() as telnet, QueueProcess(2002) as process:
        telnet.log_in()
        neighbours.expect_local_service()
        said = tessd.log_text()
        with contextlib.ExitStack() as newcomers:
            with without_descriptors(tessd.pid):
                waiting = [newcomers.enter_context(kind()) for kind in (IpcClient, XcpClient, TelnetClient)]
                waiting[0].send(b"*\n")
                end = time.monotonic() + SECONDS
                while time.monotonic() < end:
                    neighbours.expect_local_service()
                    telnet.expect_nothing_more()
                    process.register(b"NEW")
                    process.unregister()
                    time.sleep(0.1)
                share = share_of_processor(tessd, 1)
                assert share < 0.1, f"a daemon without descriptors uses {share:.0%} of a processor"
                assert tessd.log_text() == said, tessd.log_text()
            waiting[0].expect(b"0\r\n\r\n")
            waiting[1].expect_nothing_more()
            waiting[2].log_in()
        neighbours.expect_service()


# Memory


@needs_plain_build
def test_no_more_memory_for_the_process(launch):
    """RLIMIT_AS: every allocation that needs more than what has been freed fails, and so does every new thread."""
    tessd = start(launch, "--nocom2")
    with Neighbours() as neighbours, TelnetClient() as telnet:
        telnet.log_in()
        limit = int(proc.status_field(tessd.pid, tessd.pid, "VmSize").split()[0]) * 1024
        before = resource.prlimit(tessd.pid, resource.RLIMIT_AS, (limit, resource.RLIM_INFINITY))
        with contextlib.ExitStack() as clients:
            crowd = [clients.enter_context(kind()) for kind in (IpcClient, XcpClient) for _ in range(8)]
            for _ in range(100):
                neighbours.ipc.send(b"DELAY 100.0|" + b"x" * 200 + b"\n")
                assert neighbours.ipc.receive(3) in (b"OK\r", b"?\r\n")
                neighbours.ipc.receive(3, 0.01)
            neighbours.expect_local_service()
            telnet.expect_nothing_more()
            assert not tessd.ended()
            resource.prlimit(tessd.pid, resource.RLIMIT_AS, before)
            for client in crowd:
                client.expect_nothing_more()
        neighbours.expect_service()


class MemoryGroup:
    """A control group with a daemon in it, whose processes wait when there is no more memory in place of being killed."""

    def __init__(self) -> None:
        self._path = f"{_MEMORY_GROUPS}/tessd-faults-{time.monotonic_ns()}"
        try:
            os.mkdir(self._path)
        except OSError:
            pytest.skip("memory control groups cannot be made here")

    def start(self, launch, *arguments: str) -> Daemon:
        """The memory that a process has had before it enters counts elsewhere: so it is born in here."""
        self._write(self._path, "cgroup.procs", os.getpid())
        try:
            return start(launch, *arguments)
        finally:
            self._write(_MEMORY_GROUPS, "cgroup.procs", os.getpid())

    def limit(self, more: int) -> None:
        """To what it uses now, and so many bytes."""
        self._write(self._path, "memory.oom_control", 1)
        with open(f"{self._path}/memory.usage_in_bytes", encoding="ascii") as file:
            self._write(self._path, "memory.limit_in_bytes", int(file.read()) + more)

    def unlimit(self) -> None:
        self._write(self._path, "memory.limit_in_bytes", -1)

    def is_at_its_limit(self) -> bool:
        with open(f"{self._path}/memory.oom_control", encoding="ascii") as file:
            return "under_oom 1" in file.read()

    def remove(self) -> None:
        wait_until(self._removed, "the control group can be removed")

    def _removed(self) -> bool:
        try:
            os.rmdir(self._path)
        except OSError:
            return False
        return True

    @staticmethod
    def _write(group: str, name: str, number: int) -> None:
        with open(f"{group}/{name}", "w", encoding="ascii") as file:
            file.write(str(number))


def texts(frames: bytes) -> list[bytes]:
    """Of whole frames, one behind the other."""
    found = []
    while frames:
        end = wire.HEADER + wire.Message.parse(frames[: wire.HEADER], "").length_word
        found.append(frames[wire.HEADER : end])
        frames = frames[end:]
    return found


def told_of(tessd: Daemon) -> int:
    """Answers that were lost, as the log has them; a line that was lost itself may have been about one."""
    lost_lines = [re.fullmatch(r"(\d+) log lines were lost", text) for _, text in tessd.entries()]
    return tessd.entries().count(ANSWER_LOST) + sum(int(found[1]) for found in lost_lines if found)


@pytest.mark.deadline(300)
@needs_plain_build
def test_a_memory_group_at_its_limit(launch):
    """The kernel halts the daemon at the limit. When there is memory again it goes on with every line that was sent meanwhile.
    Just below the limit the kernel may have no room for an answer: that is lost, and logged."""
    group = MemoryGroup()
    tessd = group.start(launch, "--nocom2")
    try:
        with Neighbours() as neighbours, XcpClient() as client:
            neighbours.expect_service()
            group.limit(256 * 1024)
            answer = b"OK\r\n\r\n\0"
            sent, got = 0, b""
            while not group.is_at_its_limit():
                assert sent < 20000, "the limit was not met"
                client.send_frame(b"DELAY 1000.0|" + b"x" * 200 + b"\n")
                sent += 1
                got += client.receive(wire.HEADER + len(answer), 0.2)
            group.unlimit()
            client.send_frame(b"*\n")
            last = b"0\r\n\r\n\0"
            while not got.endswith(last):
                piece = client.receive(1, 30)
                assert piece, f"no answer behind {len(got)} bytes of those to {sent} lines\n{tessd.log_text()}"
                got += piece
            answers = texts(got)
            assert set(answers[:-1]) <= {answer} and answers[-1] == last, set(answers)
            lost = sent + 1 - len(answers)
            with XcpClient() as another:  # of which the log tells, and before that of lost lines
                another.expect_nothing_more()
            wait_until(lambda: told_of(tessd) >= lost, f"the log tells of {lost} lost answers")
            assert tessd.entries().count(ANSWER_LOST) <= lost, f"only {lost} answers were lost\n{tessd.log_text()}"
            neighbours.expect_service()
            tessd.stop()
    finally:
        if not tessd.end_seen:
            group.unlimit()
            tessd.kill()
        group.remove()
