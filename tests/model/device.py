"""A daemon with its clients and processes, each step of which is taken by the model first. After every step both are compared."""

from __future__ import annotations

import dataclasses
import itertools
import os
import select
import socket
import time
from collections.abc import Callable

import promises
from harness import telnet, wire
from harness.clients import Client, IpcClient, XcpClient
from harness.com2 import SerialLine
from harness.daemon import RUNNING, Daemon
from harness.queue_process import QueueProcess, queue_path, unbound_sender
from harness.stopped_clock import StoppedClock
from harness.telnet import TelnetClient
from harness.waiting import Deadline
from hypothesis import reject
from promises import Connection, DeviceReset, Frame, Promises, Record

ASKED = 4  # times; as many passes lie between the arrival of anything and the last answer as anything needs
WATCHER = 1900
# Of clients that have gone. How many there are is the network's doing.
WRITES_IN_VAIN = (telnet.WRITE_FAILED, (250004, "Error writing to the socket"))
NO_OPTIONS = {wire.COM2: "--nocom2", wire.TELNET: "--notelnet", wire.XCP: "--noipcsocket", wire.IPC: "--noxcp"}
CLIENTS: dict[int, type[Client]] = {wire.TELNET: TelnetClient, wire.XCP: XcpClient, wire.IPC: IpcClient}


class BrokenPromise(AssertionError):
    """What was seen is not what was promised."""


@dataclasses.dataclass
class Peer:
    """A client and its connection as the model has it."""

    name: str
    client: Client
    connection: Connection
    got: bytearray = dataclasses.field(default_factory=bytearray)
    at_end: bool = False

    @property
    def socket(self) -> socket.socket:
        return self.client.socket

    def fill(self) -> None:
        """Takes what has come."""
        while not self.at_end:
            try:
                piece = self.socket.recv(65536)
            except BlockingIOError:
                return
            except ConnectionResetError:
                piece = b""
            self.at_end = not piece
            self.got += piece

    def promised(self) -> int:
        """Bytes."""
        return sum(wire.HEADER + len(piece.text) + 1 if isinstance(piece, Frame) else len(piece) for piece in self.output)

    @property
    def output(self) -> list:
        return self.connection.output

    def complete(self) -> bool:
        return len(self.got) >= self.promised() and self.at_end >= self.connection.closed


@dataclasses.dataclass
class Station:
    """A process and what the model has it receive."""

    process: QueueProcess
    promised: promises.Process
    got: list[Record] = dataclasses.field(default_factory=list)
    commands: list[Record] = dataclasses.field(default_factory=list)  # all it has ever got

    @property
    def socket(self) -> socket.socket:
        return self.process.socket

    def fill(self) -> None:
        for message in self.process.waiting():
            length = message.length_word if message.kind == wire.REPLY else None
            self.got.append(Record(message.kind, message.tag, message.text, length))

    def complete(self) -> bool:
        return len(self.got) >= len(self.promised.inbox)


class LineEnd:
    """The far end of the serial line."""

    name = "the line"

    def __init__(self, line: SerialLine, promised: promises.Line) -> None:
        self.line = line
        self.promised = promised
        self.got = bytearray()

    def fill(self) -> None:
        while select.select([self.line], [], [], 0)[0]:
            self.got += os.read(self.line.fileno(), 65536)

    def complete(self) -> bool:
        return len(self.got) >= sum(map(len, self.promised.output))


class Device:
    """What one example lives on."""

    patience = 5.0  # seconds, which settings.SLOW makes more, for what must come
    examples = steps = commands = failures = 0

    def __init__(self, ports: tuple[int, ...], now: int, passwords: dict[bytes, bytes | None]) -> None:
        self.script: list[str] = []
        self.note(f"tessd starts with {', '.join(promises.PORT_NAMES[port] for port in ports)} at {now / promises.SECOND} s")
        self.clock = StoppedClock(now)
        line = SerialLine() if wire.COM2 in ports else None
        options = [option for port, option in NO_OPTIONS.items() if port not in ports]
        self.daemon = _started(Daemon(*options, environment=self.clock.environment))
        self.promises = Promises(ports, now, passwords)
        self._log_seen = self.daemon.entries().index(RUNNING) + 1
        self.line = LineEnd(line, self.promises.line) if line else None
        self.peers: list[Peer] = []
        self.stations: dict[int, Station] = {}
        self._counts = dict.fromkeys(CLIENTS, 0)
        self._probe: Peer | None = None
        self.failed = False
        self.open_process(WATCHER)
        Device.examples += 1

    def note(self, line: str) -> None:
        self.script.append(line)

    def close(self) -> None:
        """However the example went."""
        for peer in (*self.peers, self._probe):
            if peer:
                peer.client.close()
        for station in self.stations.values():
            station.process.close()
        if self.line:
            self.line.line.hang_up()
        if not self.daemon.end_seen:
            self.daemon.kill()
        self.daemon.forget()

    def stop(self) -> None:
        """The end of a daemon that has kept its promises."""
        self.daemon.stop()

    # Steps: the model first, since it may refuse

    def _promise(self, step: Callable[..., None], *arguments: object) -> None:
        try:
            step(*arguments)
        except DeviceReset:
            self.note("which would restart the device, and ends this example")
            reject()

    def connect(self, port: int, count: int = 1) -> Peer:
        """Returns the last one."""
        for _ in range(count):
            self._counts[port] += 1
            name = f"{promises.PORT_NAMES[port]} {self._counts[port]}"
            self.note(f"{name} connects")
            peer = self._connect(port, name)
            self.peers.append(peer)
        self.compare()
        return peer

    def greet_first(self, name: bytes) -> Peer:
        """A telnet client before the one that asks, so that it may be the first in the daemon's list."""
        peer = self._connect(wire.TELNET, "telnet 0")
        self.note(f"{peer.name} connects first and sends {name!r}")
        self.peers.append(peer)
        self._send(peer, name)
        self._wait(peer.complete, [peer])
        return peer

    def _connect(self, port: int, name: str) -> Peer:
        connection = self.promises.connect(port)
        client = CLIENTS[port]()
        client.socket.setblocking(False)
        return Peer(name, client, connection)

    def send(self, peer: Peer, data: bytes) -> None:
        """In one piece."""
        self.note(f"{peer.name} sends {data!r}")
        self._send(peer, data)
        self.compare()

    def _send(self, peer: Peer, data: bytes) -> None:
        Device.commands += 1
        self._promise(self.promises.receive, peer.connection, data)
        with_pipe = not peer.at_end
        try:
            peer.client.send(data)
        except (BrokenPipeError, ConnectionResetError):
            if with_pipe and not peer.connection.closed:
                self.fail(f"{peer.name} can send", "its connection is gone")

    def type(self, keys: bytes) -> None:
        self.note(f"the line types {keys!r}")
        self._type(keys)
        self.compare()

    def _type(self, keys: bytes) -> None:
        Device.commands += 1
        self._promise(self.promises.type, keys)
        self.line.line.type(keys)
        self.line.line.wait_arrived()

    def send_together(self, parts: list[tuple[Peer | None, bytes]]) -> None:
        """Each of several clients sends something before anything is answered; None types on the line."""
        for peer, data in parts:
            self.note(f"at once: {peer.name if peer else self.line.name} sends {data!r}")
        self.promises.forget_tags()
        for peer, data in parts:
            if peer:
                self._send(peer, data)
            else:
                self._type(data)
            self.promises.forget_tags()
        self.compare(in_order=False)

    def hang_up(self, peer: Peer, half: bool) -> None:
        """Closes, or only says that nothing more will come."""
        self.note(f"{peer.name} {'ends its side' if half else 'closes'}")
        if not peer.at_end:
            self.promises.hang_up(peer.connection)
            peer.client.socket.shutdown(socket.SHUT_WR)
        if not half:
            self.peers.remove(peer)
            peer.client.close()
        self.compare()

    def open_process(self, address: int) -> Station:
        if address not in self.stations:
            if os.path.lexists(queue_path(address)):
                os.unlink(queue_path(address))
            self.stations[address] = Station(QueueProcess(address), self.promises.open_process(address))
        return self.stations[address]

    def end_process(self, address: int, clean: bool) -> None:
        self.note(f"process {address} {'ends' if clean else 'dies'}")
        self.promises.end_process(address)
        process = self.stations.pop(address).process
        process.close() if clean else process.die()
        self.compare()

    def tell(self, address: int, datagram: bytes, what: str) -> None:
        """A message of a process; with the address 0, of a sender that has none."""
        self.tell_all(address, [datagram], what)

    def tell_all(self, address: int, datagrams: list[bytes], what: str) -> None:
        self.note(f"process {address} {what}")
        for datagram in datagrams:
            self._tell(address, datagram)
        closes_all = wire.Message.parse(datagrams[0], "").kind == wire.CLOSE_ALL
        self.compare(log_in_order=not closes_all)  # while others are closed the line's next connection may be opened

    def _tell(self, address: int, datagram: bytes) -> None:
        if address:
            self.open_process(address)
        self._promise(self.promises.message, datagram, address)
        if address:
            self.stations[address].process.send(datagram)
        else:
            with unbound_sender() as sender:
                sender.send(datagram)

    def advance(self, nanoseconds: int) -> None:
        while self.promises.now + nanoseconds in self.promises.deadlines():
            nanoseconds += 1
        self.note(f"the clock goes ahead by {nanoseconds / promises.SECOND:.9f} s")
        self._promise(self.promises.advance, nanoseconds)
        self.clock.set(self.promises.now)
        self.compare(log_in_order=False)  # much may come to its time at once

    # Comparison

    def compare(self, in_order: bool = True, log_in_order: bool = True) -> None:
        """Of everything, once the daemon has done what there was to do."""
        Device.steps += 1
        self._tell(WATCHER, wire.registration(b"", 0))
        self._wait(self.stations[WATCHER].complete, [self.stations[WATCHER]])
        self._ask()
        seen = [*self.peers, self._probe, *self.stations.values(), *([self.line] if self.line else [])]
        if self._wait(lambda: all(one.complete() for one in seen), seen):
            self._ask()  # what came late, the daemon may not have done with
            self._wait(lambda: all(one.complete() for one in seen), seen)
        for peer in (*self.peers, self._probe):
            self._compare_client(peer)
        for address, station in self.stations.items():
            self._compare_process(address, station, in_order)
        if self.line:
            self._compare_bytes(self.line.name, bytes(self.line.got), b"".join(self.promises.line.output))
            self.line.got.clear()
            self.promises.line.output.clear()
        self._compare_log(in_order and log_in_order)
        self._forget_closed()

    def _ask(self) -> None:
        """So often that the daemon has seen everything meanwhile."""
        if self._probe is None or self._probe.connection.closed:
            if self._probe:
                self._probe.client.close()
            self._probe = self._connect(wire.IPC, "the asking client")
        for _ in range(ASKED):
            self.promises.receive(self._probe.connection, b"*\n")
            try:
                self._probe.client.send(b"*\n")
            except BrokenPipeError:
                self.fail("an answer to *", "the asking client's connection is gone")
            self._wait(self._probe.complete, [self._probe])

    def _wait(self, complete: Callable[[], bool], seen: list) -> bool:
        """Until there is all that is promised, or it is clear that it does not come. Tells whether it was not there at once."""
        deadline = Deadline(Device.patience)
        for waited in itertools.chain([False], itertools.repeat(True)):
            for one in seen:
                one.fill()
            if complete() or deadline.over() or self.daemon.ended():
                return waited
            poller = select.poll()
            for one in seen:
                if not getattr(one, "at_end", False):
                    poller.register(one.line if one is self.line else one.socket, select.POLLIN)
            poller.poll(deadline.left() * 1000 + 1)

    def _compare_client(self, peer: Peer) -> None:
        data = bytes(peer.got)
        if peer.connection.port == wire.XCP:
            self._compare_frames(peer, data)
        else:
            self._compare_bytes(peer.name, data, b"".join(peer.output))
        if peer.at_end != peer.connection.closed:
            state = {False: "an open connection", True: "a closed connection"}
            self.fail(f"{peer.name}: {state[peer.connection.closed]}", state[peer.at_end])
        peer.got.clear()
        peer.output.clear()

    def _compare_bytes(self, name: str, got: bytes, promised: bytes) -> None:
        if got != promised:
            self.fail(f"{name} is sent {promised!r}", f"{got!r}")

    def _compare_frames(self, peer: Peer, data: bytes) -> None:
        got: list[Frame | bytes] = []
        while len(data) >= wire.HEADER:
            header = wire.Message.parse(data[: wire.HEADER], "")
            frame, data = data[wire.HEADER : wire.HEADER + header.length_word], data[wire.HEADER + header.length_word :]
            open_tag = len(got) < len(peer.output) and peer.output[len(got)].tag is None
            text = frame[:-1] if frame.endswith(b"\0") and len(frame) == header.length_word else b"<not whole> " + frame
            got.append(Frame(header.kind, header.sender, None if open_tag else header.tag, text))
        if data:
            got.append(data)
        if got != peer.output:
            self.fail(f"{peer.name} is sent {_listed(peer.output)}", _listed(got))

    def _compare_process(self, address: int, station: Station, in_order: bool) -> None:
        got, promised = list(station.got), list(station.promised.inbox)
        if not in_order:  # between clients; what has the same tag may be of two of them
            got.sort(key=self._by_source)
            promised.sort(key=self._by_source)
        if got != promised:
            self.fail(f"process {address} is sent {_listed(promised)}", _listed(got))
        station.commands += [record for record in got if record.kind == wire.TEXT_KIND]
        station.got.clear()
        station.promised.inbox.clear()

    def _by_source(self, record: Record) -> tuple:
        """The same for what one client has sent, in its order. The line and a framed client may have the same ID."""
        owners = [connection for connection in self.promises.connections if connection.id == record.tag & 0xFFFF0000]
        return record.tag, record.text if len(owners) > 1 else b""

    def _compare_log(self, in_order: bool) -> None:
        promised = self.promises.log

        def new() -> list[tuple[int, str]]:
            return [entry for entry in self.daemon.entries()[self._log_seen :] if entry not in WRITES_IN_VAIN]

        deadline = Deadline(Device.patience)
        while len(got := new()) < len(promised) and not deadline.over():
            time.sleep(0.0005)  # the line about a connection's end follows that end
        if in_order and got != promised or sorted(got) != sorted(promised):
            self.fail(f"the log {_listed(promised)}", _listed(got))
        self._log_seen = len(self.daemon.entries())
        promised.clear()

    def _forget_closed(self) -> None:
        for peer in [peer for peer in self.peers if peer.connection.closed]:
            peer.client.close()
            self.peers.remove(peer)

    def fail(self, promised: str, got: str) -> None:
        self.failed = True
        Device.patience = 0.1  # from now on the same is looked for again and again
        script = "\n".join(f"    {line}" for line in self.script)
        text = f"\n{script}\n  promised: {promised}\n  got:      {got}\nlog:\n{self.daemon.log_text()}"
        if Device.failures == 0:
            print(f"As it was seen first:{text}", flush=True)
        Device.failures += 1
        raise BrokenPromise(text)


def _started(daemon: Daemon) -> Daemon:
    """Or nothing is left of it."""
    try:
        return daemon.wait_running()
    except BaseException:
        if not daemon.end_seen:
            daemon.kill()
        daemon.forget()
        raise


def _listed(records: list) -> str:
    return ", ".join(map(str, records)) if records else "nothing"
