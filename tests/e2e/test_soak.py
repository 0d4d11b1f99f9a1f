"""Everybody talks at once, and the daemon neither loses an answer nor grows. For hours: scripts/soak."""

from __future__ import annotations

import contextlib
import statistics
import threading
from collections.abc import Callable

import pytest

from harness import accounts, proc, settings
from harness.clients import Client, IpcClient, XcpClient
from harness.com2 import SerialLine
from harness.daemon import Daemon
from harness.queue_process import AnsweringProcess
from harness.telnet import LinemodeClient, TelnetClient
from harness.waiting import Stopwatch
from soak import report as report_of_everybody
from soak.run import soak as soak_with_everybody

CLIENTS = 10  # as many as a port takes
BURST = 8  # commands of a client in flight: with everybody at it, the queue of the process is never full for 250 ms
PATIENCE = 20.0
GROWTH_KB = 256  # what a heap may still find to do after its first minute


class Talker:
    """One client: sends a few commands, takes the answers, and so on. Every answer must be the one it asked for."""

    def __init__(self, name: bytes, client: Client | SerialLine, pause: float = 0) -> None:
        self.name = name
        self.client = client
        self.pause = pause
        self.answered = 0
        self.error: BaseException | None = None

    def run(self, ending: threading.Event) -> None:
        try:
            while not ending.is_set():
                self._converse([b"%s-%d" % (self.name, self.answered + number) for number in range(BURST)])
                self.answered += BURST
                ending.wait(self.pause)
        except BaseException as error:
            self.error = error
            ending.set()

    def _converse(self, words: list[bytes]) -> None:
        answers = [b"<" + word + b">\r\n" for word in words]
        if isinstance(self.client, XcpClient):
            for number, word in enumerate(words):
                self.client.send_frame(b"s3.ENC " + word, tag=number)
            for number, answer in enumerate(answers):
                self.client.expect_frame(answer, tag=number, within=PATIENCE)
            return
        if isinstance(self.client, SerialLine):
            for word, answer in zip(words, answers, strict=True):  # slow, as such a line is
                self.client.ask(b"s3.ENC " + word, answer, within=PATIENCE)
            return
        lines = [b"s3.ENC " + word + b"\r\n" for word in words]
        self.client.send(b"".join(lines))
        # A plain telnet client gets its lines echoed, all of them before the first answer.
        echo = b"".join(lines) if type(self.client) is TelnetClient else b""
        self.client.expect(echo + b"".join(answers), within=PATIENCE)


class Sizes:
    """What the daemon holds, looked at once a second."""

    def __init__(self, tessd: Daemon) -> None:
        self._tessd = tessd
        self.memory: list[int] = []
        self.descriptors: list[int] = []

    def look(self) -> None:
        self.memory.append(int(proc.status_field(self._tessd.pid, self._tessd.pid, "VmRSS").split()[0]))
        self.descriptors.append(len(proc.descriptors(self._tessd.pid)))

    def expect_no_growth(self, settled: int) -> None:
        """`settled`: from which look on."""
        third = max((len(self.memory) - settled) // 3, 1)
        first, last = (statistics.median(part) for part in (self.memory[settled:][:third], self.memory[-third:]))
        # A sanitizer keeps what is freed, and finds leaks by itself.
        grown = 0 if settings.sanitized() else last - first
        assert grown <= GROWTH_KB, f"memory grew from {first} to {last} KB: {self.memory[settled:]}"
        first, last = (min(part) for part in (self.descriptors[settled:][:third], self.descriptors[-third:]))
        assert last <= first, f"descriptors grew from {first} to {last}: {self.descriptors[settled:]}"


def connect_everybody(stack: contextlib.ExitStack, line: SerialLine) -> list[Talker]:
    """Ten clients on each socket port, half of those on telnet editing lines themselves, and the serial line."""
    talkers = [Talker(b"com2", line, pause=0.01)]
    for number in range(CLIENTS):
        telnet = stack.enter_context(LinemodeClient() if number % 2 else TelnetClient())
        telnet.log_in(within=PATIENCE)
        talkers += [
            Talker(b"ipc%d" % number, stack.enter_context(IpcClient())),
            Talker(b"xcp%d" % number, stack.enter_context(XcpClient())),
            Talker(b"telnet%d" % number, telnet),
        ]
    for talker in talkers:
        talker.client.expect_nothing_more()  # so that it has been accepted
    return talkers


def talk(talkers: list[Talker], seconds: float, every_second: Callable[[], None]) -> None:
    """Everybody talks for so long, in threads of their own, or until something goes wrong."""
    ending = threading.Event()
    threads = [threading.Thread(target=talker.run, args=(ending,), daemon=True) for talker in talkers]
    for thread in threads:
        thread.start()
    watch = Stopwatch()
    while watch.seconds() < seconds and not ending.wait(1):
        every_second()
    ending.set()
    for thread in threads:
        thread.join(2 * PATIENCE * settings.SLOW)
    for talker in talkers:
        if talker.error:
            raise AssertionError(f"{talker.name!r} after {talker.answered} answers") from talker.error
        assert talker.answered > 0, f"{talker.name!r} was never answered"


def soak(launch: Callable[..., Daemon], seconds: float, settled_after: float) -> tuple[Sizes, int]:
    """Returns what was seen of the daemon, and the number of answers."""
    accounts.install()
    with contextlib.ExitStack() as stack:
        line = stack.enter_context(SerialLine())
        tessd = launch().wait_running()
        process = stack.enter_context(AnsweringProcess(2001, b"ENC", lambda command: b"<" + command + b">\r\n"))
        talkers = connect_everybody(stack, line)
        sizes = Sizes(tessd)
        started = len(tessd.entries())
        talk(talkers, seconds, sizes.look)
        answered = sum(talker.answered for talker in talkers)
        assert process.answered == answered
        assert tessd.entries()[started:] == [], "nothing goes wrong and nobody comes or goes"
        sizes.expect_no_growth(int(len(sizes.memory) * settled_after / seconds))
        tessd.stop()
    return sizes, answered


def report(record_property: Callable[[str, object], None], sizes: Sizes, answered: int, seconds: float) -> None:
    record_property("answers", answered)
    record_property("answers_per_second", round(answered / seconds))
    record_property("memory_kb", f"{sizes.memory[0]} at first, {max(sizes.memory)} at most, {sizes.memory[-1]} at last")
    record_property("descriptors", f"{min(sizes.descriptors)} to {max(sizes.descriptors)}")


@pytest.mark.deadline(150)
def test_ten_clients_on_each_port_and_the_serial_line_lose_nothing(launch, record_property):
    seconds = 20.0
    report(record_property, *soak(launch, seconds, settled_after=8), seconds)


@pytest.mark.deadline(200)
def test_everybody_at_once_well_behaved_or_not_loses_nothing(launch, record_property):
    """What scripts/soak does for as long as one likes."""
    facts = soak_with_everybody(launch, seconds=12.0, seed=1)
    record_property("table", report_of_everybody.text_table(report_of_everybody.rows(facts)))
    assert report_of_everybody.trouble(facts) == []


@pytest.mark.parametrize(
    "change, expected",
    [
        ({"lost": 1}, "lost: 1"),
        ({"wrong": 2}, "wrong: 2"),
        ({"answered": -5}, "answered: 0"),
    ],
)
def test_a_soak_says_what_is_wrong_with_its_counts(change, expected):
    facts = good_facts()
    facts["actors"]["ipc"]["tally"] |= {name: facts["actors"]["ipc"]["tally"].get(name, 0) + by for name, by in change.items()}
    assert report_of_everybody.trouble(facts) == [expected]


@pytest.mark.parametrize(
    "rest, change, expected",
    [
        ("last rest", {"descriptors": {"socket": 4}}, "descriptors: {'socket': 3} at first, {'socket': 4} at last"),
        ("last rest", {"threads": 3}, "threads: 2 at first, 3 at last"),
        ("last rest", {"heap bytes": 30000}, "the heap grew by 19976 bytes"),
        ("last rest", {"resident KiB": 6000}, "resident memory: 5000 KiB at first, 6000 KiB at last"),
        ("end", {"status": -11}, "tessd ended with -11"),
        ("end", {"reports": ["ERROR: AddressSanitizer"]}, "ERROR: AddressSanitizer"),
        ("end", {"places": "places: no"}, "places: no"),
    ],
)
def test_a_soak_says_what_is_wrong_with_the_daemon(rest, change, expected):
    facts = good_facts()
    facts[rest] |= change
    assert report_of_everybody.trouble(facts) == [expected]


def test_a_soak_blames_the_daemon_for_a_long_wait():
    facts = good_facts()
    facts["actors"]["ipc"]["samples"].append([1.0, 60.0, 50.0, 0.1])
    assert report_of_everybody.trouble(facts) == ["somebody waited 50.000 s for the daemon"]


def good_facts() -> dict:
    rest = {"descriptors": {"socket": 3}, "threads": 2, "heap bytes": 10000, "resident KiB": 5000}
    tally = {"sent": 10, "answered": 5, "refused": 1, "delayed, run": 1}
    facts = {
        "actors": {"ipc": {"tally": tally, "worst": 0.1, "samples": [[0.5, 0.1, 0.1, 0.1]], "notes": []}},
        "whole": True,
        "warm-up seconds": 60.0,
        "first rest": rest,
        "last rest": dict(rest) | {"heap bytes": 10024},
        "passwords between the rests": 1,
        "end": {"status": 0, "reports": [], "places": "all"},
    }
    assert report_of_everybody.trouble(facts) == []
    return facts
