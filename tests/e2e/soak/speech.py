"""Conversations in which every command has one answer, and each answer belongs to one command."""

from __future__ import annotations

import contextlib
import itertools
import time
from collections.abc import Callable, Collection

from harness import accounts, settings, wire
from harness.clients import Client, IpcClient, XcpClient
from harness.telnet import LIMIT_REACHED, LinemodeClient, TelnetClient
from harness.waiting import Deadline
from soak.stage import Actor

PATIENCE = 20.0  # seconds of a release build; what has not come by then is lost
LOOK = 0.1  # seconds, after which it is looked whether an answer can still come
MOST_BYTES = 1000  # in flight of one client: 1024 with a line end in them would be thrown away
REFUSAL = b"?"
PRESENT, YES = b"*", b"0"  # a question for the daemon, and its answer
MOST_TURNS_AWAY = 200  # in a row, of a client that finds ten others there
# Seconds, after which a client that stays comes anew. The 4353rd telnet client has the ID of the first client of IPC; whoever
# has stayed longer than it takes so many to come would get another one's answers (deliberate).
LONGEST_VISIT = 240.0


class Lost(Exception):
    """An answer has not come, or one has come that nobody asked for."""


class TurnedAway(Exception):
    """Ten others are there."""


def answer_to(command: bytes) -> bytes:
    """What every process of the soak answers."""
    return b"<" + command + b">"


def nobody_died() -> Collection[bytes]:
    return ()


class Speech:
    """One client's side. Commands are words that are said only once."""

    def __init__(self, actor: Actor, connect: Callable[[Actor], Client]) -> None:
        self._actor = actor
        self._connect = connect
        self._numbers = itertools.count()
        self._client: Client | None = None
        self._opened = 0.0
        self._rest = b""

    # Coming and going

    def open(self) -> None:
        """Raises TurnedAway."""
        self._rest = b""
        self._client = self._connect(self._actor)
        self._opened = time.monotonic()

    def open_at_last(self) -> None:
        """As soon as there is a place."""
        for _ in range(MOST_TURNS_AWAY):
            try:
                return self.open()
            except TurnedAway:
                self._actor.tally["turned away"] += 1
                time.sleep(0.1)
        raise Lost(f"turned away {MOST_TURNS_AWAY} times in a row")

    def keep_open(self) -> None:
        """For a client that stays; it has left when an answer was lost."""
        if time.monotonic() > self._opened + LONGEST_VISIT:
            self.close()
        if self._client is None:
            self.open_at_last()

    def close(self) -> None:
        if self._client is not None:
            self._client.close()
        self._client = None

    def quit(self) -> None:
        """Leaves a telnet session in order: the daemon closes."""
        if self._client is None:
            return
        began = time.monotonic()
        with contextlib.suppress(OSError):
            self._client.send(b"quit\r\n")
            self._client.receive(100, within=PATIENCE)  # the echo at most
        if time.monotonic() - began > PATIENCE * settings.SLOW:
            self._actor.tally["lost"] += 1
            self._actor.note("not sent away after quit")
        self.close()

    # Speaking

    def words(self, count: int) -> list[bytes]:
        """New ones, as long as they may be in flight together."""
        longest = max(8, min(200, MOST_BYTES // max(count, 1) - 60))
        return [self._word(self._actor.random.randint(0, longest)) for _ in range(count)]

    def _word(self, length: int) -> bytes:
        return b"%s-%d" % (self._actor.name.encode(), next(self._numbers)) + b"." * length

    def say(
        self,
        process: bytes,
        words: list[bytes],
        died: Callable[[], Collection[bytes]] = nobody_died,
        late: set[bytes] | None = None,
    ) -> bool:
        """Sends a command for each word, all at once, and takes the answers. Counts what becomes of each.

        died    the words that a process has taken with it when it ended
        late    further answers that may come, and are taken off when they do
        Returns whether all were answered. When an answer is lost, the client leaves."""
        lines = [b"s3." + process + b" " + word for word in words]
        awaited = Awaited(words, lines if type(self._client) is TelnetClient else [], set() if late is None else late)
        began = time.monotonic()
        tally = self._actor.tally
        try:
            self._send(lines)
            self._take_answers(awaited, died)
        except (Lost, OSError, AssertionError) as error:
            self._actor.note(f"{error!r}, {awaited.refused} refused, waiting for {list(awaited.missing)!r}"[:2000])
            self.close()
        tally["sent"] += len(lines)
        tally["refused"] += awaited.refused
        tally["died with a process"] += awaited.dead
        tally["lost"] += awaited.left
        answered = len(words) - awaited.refused - awaited.dead - awaited.left
        tally["answered"] += answered
        if answered == len(words):
            self._actor.worst = max(self._actor.worst, time.monotonic() - began)
        return answered == len(words)

    def ask(self) -> bool:
        """Whether the daemon is there, which it answers itself."""
        return self._ask([PRESENT]) is not None

    def call(self, word: bytes, answering: bytes) -> None:
        """Sends a command to everybody. The answering process answers it, or has been refused it."""
        self._actor.tally["sent"] += 1
        heard = self._ask([word, PRESENT])
        if heard is None:
            self._actor.tally["lost"] += 1
            return
        # That process answers in order: behind the answer to this one there is none to the call any more.
        late = set() if answer_to(word) in heard else {answer_to(word)}
        self.say(answering, self.words(1), late=late)
        self._actor.tally["refused" if late else "answered"] += 1

    def _ask(self, lines: list[bytes]) -> list[bytes] | None:
        """All that comes up to the daemon's own answer; nothing when that does not come, and then the client leaves."""
        heard: list[bytes] = []
        deadline = Deadline(PATIENCE)
        self._actor.tally["sent"] += 1
        try:
            self._send(lines)
            while YES not in heard:
                if (text := self._next()[0]) is not None:
                    heard.append(text)
                elif deadline.over():
                    raise Lost(f"not answered within {deadline.seconds:g} s")
        except (Lost, OSError, AssertionError) as error:
            self._actor.note(f"{error!r} to {lines!r}, heard {heard!r}")
            self._actor.tally["lost"] += 1
            self.close()
            return None
        self._actor.tally["answered"] += 1
        return heard

    def _send(self, lines: list[bytes]) -> None:
        if isinstance(self._client, XcpClient):
            for number, line in enumerate(lines):
                self._client.send_frame(line, tag=number)
        else:
            self._client.send(b"".join(line + b"\r\n" for line in lines))

    def _take_answers(self, awaited: Awaited, died: Callable[[], Collection[bytes]]) -> None:
        deadline = Deadline(PATIENCE)
        while awaited.left > 0:
            text, tag = self._next()
            if text is not None:
                if not awaited.take(text, tag):
                    self._actor.tally["wrong"] += 1
                    raise Lost(f"an answer that nobody asked for: {text!r}, tag {tag}")
                continue
            awaited.bury(died())
            if awaited.left > 0 and deadline.over():
                raise Lost(f"not answered within {deadline.seconds:g} s")

    def _next(self) -> tuple[bytes | None, int | None]:
        """The next line that is not empty, or frame with its tag; nothing when there is none for a while."""
        if isinstance(self._client, XcpClient):
            frame = self._take(self._frame_bytes)
            return (frame[wire.HEADER :].rstrip(b"\0\r\n"), wire.Message.parse(frame, "").tag) if frame else (None, None)
        while line := self._take(lambda: self._rest.find(b"\n") + 1):
            if text := line.rstrip(b"\r\n"):
                return text, None
        return None, None

    def _frame_bytes(self) -> int:
        if len(self._rest) < wire.HEADER:
            return 0
        length = wire.HEADER + wire.Message.parse(self._rest[: wire.HEADER], "").length_word
        return length if len(self._rest) >= length else 0

    def _take(self, whole: Callable[[], int]) -> bytes:
        """As many of the bytes that come as whole() says; none when it says 0 for a while."""
        while not (count := whole()):
            self._client.socket.settimeout(LOOK)
            try:
                piece = self._client.socket.recv(65536)
            except TimeoutError:
                return b""
            if not piece:
                raise Lost("the daemon has closed")
            self._rest += piece
        taken, self._rest = self._rest[:count], self._rest[count:]
        return taken


class Awaited:
    """The answers to the commands that one client has sent together."""

    def __init__(self, words: list[bytes], echoes: list[bytes], late: set[bytes]) -> None:
        self.missing = {answer_to(word): (number, word) for number, word in enumerate(words)}
        self.refused = 0  # of the missing ones: nothing tells which
        self.dead = 0
        self._echoes = set(echoes)
        self._late = late

    @property
    def left(self) -> int:
        return len(self.missing) - self.refused

    def take(self, text: bytes, tag: int | None) -> bool:
        """Returns False for what is no answer to any of them."""
        if text in self._echoes:
            self._echoes.remove(text)
        elif text in self._late:
            self._late.remove(text)
        elif text == REFUSAL:
            self.refused += 1
        else:
            number, _ = self.missing.pop(text, (None, b""))
            return number is not None and (tag is None or tag == number)
        return True

    def bury(self, died: Collection[bytes]) -> None:
        """Takes off those that a process has taken with it."""
        for answer in [answer for answer, (_, word) in self.missing.items() if word in died]:
            del self.missing[answer]
            self.dead += 1


# Connecting, for those who keep to the rules


def arrive(kind: type[Client]) -> Client:
    """Connects; waits while more want to than the kernel lets stand in line before a local socket."""
    deadline = Deadline(PATIENCE)
    while True:
        try:
            return kind()
        except BlockingIOError:
            if deadline.over():
                raise
            time.sleep(0.01)


def _present(client: Client) -> Client:
    """A client of a local socket that has been accepted."""
    try:
        client.expect_nothing_more()
    except (AssertionError, OSError):
        client.close()
        raise TurnedAway from None
    return client


def ipc(_actor: Actor) -> Client:
    return _present(arrive(IpcClient))


def xcp(_actor: Actor) -> Client:
    return _present(arrive(XcpClient))


def _log_in(actor: Actor, kind: type[TelnetClient]) -> Client:
    with actor.stage.login:
        client, began = kind(), time.monotonic()
        try:
            client.log_in(actor.random.choice((accounts.ALICE, accounts.BOB)), within=PATIENCE)
        except (AssertionError, OSError) as error:
            client.close()
            # What was on its way to it may be lost when the server has closed meanwhile.
            unheard = isinstance(error, OSError) or str(error).endswith("got b''")
            if LIMIT_REACHED[:6].decode() in str(error) or (unheard and time.monotonic() - began < PATIENCE):
                raise TurnedAway from None
            raise
        actor.tally["logins"] += 1
        actor.stage.count_password()
        return client


def plain_telnet(actor: Actor) -> Client:
    return _log_in(actor, TelnetClient)


def linemode_telnet(actor: Actor) -> Client:
    return _log_in(actor, LinemodeClient)
