"""What the daemon tells of itself: lines of items, asked for and read as docs/processes.md says."""

from __future__ import annotations

import dataclasses
import re

from harness import wire
from harness.queue_process import QueueProcess
from harness.waiting import Deadline

MAX_WATCHERS = 8

_ITEM = re.compile(rb' ([a-z_]+)=(?:([0-9a-fx.-]+)|"((?:[ !#-\[\]-~]|\\["\\]|\\x[0-9a-f]{2})*)"(\.\.\.)?)')


@dataclasses.dataclass(frozen=True)
class Item:
    """A line: its word, and values by key; texts are bytes, numbers int, float, or the identifier's text."""

    word: str
    values: dict[str, bytes | int | float | str]

    def __getitem__(self, key: str) -> bytes | int | float | str:
        return self.values[key]

    @classmethod
    def parse(cls, line: bytes) -> Item:
        word, blank, _ = line.partition(b" ")
        at, values = len(word), {}
        while at < len(line):
            match = _ITEM.match(line, at)
            assert match, f"not understood from byte {at} on: {line!r}"
            key = match[1].decode()
            assert key not in values, f"{key} stands twice: {line!r}"
            values[key] = _bare(match[2].decode()) if match[2] is not None else _unquoted(match[3]) + (match[4] or b"")
            at = match.end()
        assert re.fullmatch(rb"[a-z]+", word) and bool(blank) == bool(values), line
        return cls(word.decode(), values)


def _bare(text: str) -> int | float | str:
    return text if text.startswith("0x") else float(text) if "." in text else int(text)


def _unquoted(text: bytes) -> bytes:
    return re.sub(rb"\\(?:x(..)|(.))", lambda match: bytes.fromhex(match[1].decode()) if match[1] else match[2], text)


def parse(text: bytes) -> list[Item]:
    assert text.endswith(b"\n"), text
    return [Item.parse(line) for line in text[:-1].split(b"\n")]


def status_records(process: QueueProcess, tag: int = 77) -> list[wire.Message]:
    process.send(wire.record(wire.STATUS, tag=tag))
    records = [process.receive()]
    while records[-1].length_word > 0:
        records.append(process.receive())
    return records


def status(process: QueueProcess) -> list[Item]:
    """Asks, and requires an answer of the right form."""
    text = b""
    records = status_records(process)
    for left, record in zip(reversed(range(len(records))), records):
        assert (record.kind, record.tag, record.length_word) == (wire.STATUS_TEXT, 77, left), record
        assert record.text.endswith(b"\n\0") and record.size <= wire.RECORD, record
        text += record.line
    return parse(text)


def of(items: list[Item], word: str) -> list[Item]:
    return [item for item in items if item.word == word]


def counts(process: QueueProcess) -> dict[str, int]:
    return dict(of(status(process), "count")[0].values)


class Watcher(QueueProcess):
    """A process that watches from its start on."""

    def __init__(self, address: int) -> None:
        super().__init__(address)
        self._events: list[Item] = []
        self.watch(True)

    def watch(self, on: bool, tag: int = 5) -> None:
        self.send(wire.record(wire.WATCH, bytes([on]), tag=tag))
        answer = self.receive()
        assert (answer.kind, answer.tag, answer.text) == (wire.WATCH_TEXT, tag, b"watch on=%d\n\0" % on), answer

    def next_events(self, within: float = 5) -> list[Item]:
        """Those of the next record."""
        record = self.receive(within)
        assert record.kind == wire.WATCH_TEXT and record.size <= wire.RECORD, record
        return parse(record.line)

    def events(self, last: str, within: float = 5) -> list[Item]:
        """What has happened since this was asked last, up to and with an event of that word."""
        deadline = Deadline(within)
        while last not in [item.word for item in self._events]:
            self._events += self.next_events(deadline.left())
        end = [item.word for item in self._events].index(last) + 1
        taken, self._events = self._events[:end], self._events[end:]
        return taken
