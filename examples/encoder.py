#!/usr/bin/env python3
"""A device process in small, without the framework: only the records and sockets of the message queues.

It registers with tessd under the name ENC for commands from every kind of port, keeps a position, and answers:

    SETX 5          sets the position; "0\\r\\n\\r\\n"
    GETX            the position, here "5\\r\\n\\r\\n"
    anything else   "?\\r\\n"

usage: encoder.py [QUEUE-ADDRESS]
"""

import contextlib
import datetime
import fcntl
import os
import re
import select
import signal
import socket
import stat
import struct
import sys

HEADER = struct.Struct("=IiIi")  # kind, sender, tag, len; host byte order
RECORD_BYTES = 8192
MAX_ADDRESS = 2147483647

TESS_ADDRESS = 1001
TEXT, REPLY, REGISTER, UNREGISTER = 101, 102, 200, 201
COM2, TELNET, XCP, IPC = 1, 2, 4, 8

NAME = b"ENC"
DEFAULT_ADDRESS = 1500


def log(identifier, text):
    now = datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="milliseconds")
    line = f"{now.removesuffix('+00:00')}Z    [ENC] {identifier} {text}\n"
    os.write(sys.stderr.fileno(), line.encode(errors="replace"))


class Queue:
    """This process's own queue, a datagram socket named DIR/ADDRESS, and the way to everybody else's."""

    def __init__(self, address):
        os.umask(0o007)  # nothing made here is ever open to others
        self.directory = (os.environ.get("TESS_QUEUE_DIR") or "/run/tess/queue").rstrip("/")
        os.makedirs(self.directory, mode=0o770, exist_ok=True)
        self.path = f"{self.directory}/{address}"
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        with self._directory_locked():
            if self._held():
                raise OSError(f"queue address {address} is in use")
            with contextlib.suppress(FileNotFoundError):
                os.unlink(self.path)
            self.socket.bind(self.path)
            os.chmod(self.path, 0o660)
            self.file = os.stat(self.path)

    def close(self):
        """Gives the address back."""
        with self._directory_locked():
            with contextlib.suppress(FileNotFoundError):
                if os.path.samestat(os.stat(self.path), self.file):
                    os.unlink(self.path)
            self.socket.close()

    def send(self, address, kind, tag, text):
        """Waits while the other queue is full. True when the record is in it."""
        record = HEADER.pack(kind, 0, tag, 0) + text
        try:
            self.socket.sendto(record[:RECORD_BYTES], f"{self.directory}/{address}")
        except OSError:
            return False
        return True

    def receive(self):
        """Takes the next record: (kind, sender, tag, text), or None for one that is no record."""
        record, path = self.socket.recvfrom(RECORD_BYTES + 1)
        if not HEADER.size <= len(record) <= RECORD_BYTES:
            log(250002, f"dropped a datagram that is no record, {len(record)} bytes or more")
            return None
        kind, _, tag, _ = HEADER.unpack_from(record)  # the sender word proves nothing, the kernel's path does
        return kind, self._address_of(path), tag, record[HEADER.size :]

    @contextlib.contextmanager
    def _directory_locked(self):
        """Of two processes that find the same stale file only one may replace it: looking and binding are one step."""
        directory = os.open(self.directory, os.O_RDONLY | os.O_DIRECTORY)
        try:
            fcntl.flock(directory, fcntl.LOCK_EX)
            yield
        finally:
            os.close(directory)

    def _held(self):
        """True when a live process holds the path; False when nothing is there, or the file of one that died."""
        with contextlib.suppress(FileNotFoundError):
            if not stat.S_ISSOCK(os.lstat(self.path).st_mode):
                raise OSError(f"{self.path} is not a socket")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as probe:
            try:
                probe.connect(self.path)
            except (FileNotFoundError, ConnectionRefusedError):
                return False
        return True

    def _address_of(self, path):
        """0 for a sender that has no queue in this directory."""
        directory, _, name = (path or "").rpartition("/") if isinstance(path, str) else ("", "", "")
        if not re.fullmatch("[1-9][0-9]{0,9}", name, re.ASCII) or int(name) > MAX_ADDRESS:
            return 0
        with contextlib.suppress(OSError):
            if directory == self.directory or os.path.samefile(directory, self.directory):
                return int(name)
        return 0


class Encoder:
    def __init__(self, queue, stop_fd):
        self.queue = queue
        self.stop_fd = stop_fd  # readable when it is time to end
        self.position = 0
        self.membership = "none"  # then asked, then registered or refused; leaving at the end
        self.said_waiting = False

    def run(self):
        """The exit status: 0 stopped, 1 refused."""
        self.register()
        while self.membership != "refused":
            ready, _, _ = select.select([self.queue.socket, self.stop_fd], [], [], self.patience())
            if self.stop_fd in ready:
                self.unregister()
                return 0
            if ready:
                self.serve_one()
            elif self.membership != "registered":
                self.register()
        return 1

    def patience(self):
        """Seconds until it is worth asking again; None when there is nothing to ask for."""
        return None if self.membership == "registered" else 1.0

    def register(self):
        mask = struct.pack("=I", COM2 | TELNET | XCP | IPC)
        if self.queue.send(TESS_ADDRESS, REGISTER, 0, mask + NAME + b"\0"):
            self.membership = "asked"
        elif not self.said_waiting:
            log(60002, "tessd is not there yet, asking again every second")
            self.said_waiting = True

    def unregister(self):
        if self.membership == "none":
            return
        if not self.queue.send(TESS_ADDRESS, UNREGISTER, 0, b""):
            log(60006, "tessd is gone, nothing to unregister from")
            return
        # What tessd forwarded before it read this still wants its answer; tessd's reply comes behind it.
        self.membership = "leaving"
        while self.membership == "leaving" and select.select([self.queue.socket], [], [], 1.0)[0]:
            self.serve_one()

    def serve_one(self):
        record = self.queue.receive()
        if record is None:
            return
        kind, sender, tag, text = record
        if sender != TESS_ADDRESS:
            return  # nobody else gives orders here
        text = text.split(b"\0")[0].decode("latin-1")
        if kind == TEXT:
            # The tag names the connection that asked: it goes back as it came.
            if not self.queue.send(TESS_ADDRESS, REPLY, tag, self.answer(text).encode() + b"\0"):
                log(60004, "an answer did not reach tessd")
        elif kind == REPLY:
            self.on_reply(tag, text)

    def on_reply(self, tag, text):
        if self.membership == "leaving":
            self.membership = "none"
        elif self.membership == "asked" and tag == 0:
            self.membership = "registered"
            log(60001, f"registered at tessd as {NAME.decode()}")
        elif self.membership == "asked":
            self.membership = "refused"
            log(60003, f"tessd refused: {text}")

    def answer(self, command):
        match re.findall(r"[^ \t\r\n]+", command):
            case ["GETX"]:
                return f"{self.position}\r\n\r\n"
            case ["SETX", number] if is_number(number):
                self.position = int(number)
                return "0\r\n\r\n"
        return "?\r\n"


def is_number(word):
    return re.fullmatch("-?0*[0-9]{1,10}", word, re.ASCII) is not None and -(2**31) <= int(word) < 2**31


def read_address(arguments):
    """The queue address, None when the arguments make no sense."""
    if len(arguments) > 1:
        return None
    word = arguments[0] if arguments else str(DEFAULT_ADDRESS)
    return int(word) if re.fullmatch("[0-9]{1,10}", word, re.ASCII) and 1 <= int(word) <= MAX_ADDRESS else None


def stop_signals():
    """A descriptor that becomes readable when SIGTERM or SIGINT arrives."""
    reader, writer = socket.socketpair()
    writer.setblocking(False)
    signal.set_wakeup_fd(writer.detach())
    for number in (signal.SIGTERM, signal.SIGINT):
        signal.signal(number, lambda *_: None)
    return reader.detach()


def main():
    address = read_address(sys.argv[1:])
    if address is None:
        print("usage: encoder.py [QUEUE-ADDRESS]", file=sys.stderr)
        return 2
    stop_fd = stop_signals()
    try:
        queue = Queue(address)
    except OSError as failure:
        log(250001, failure)
        return 1
    try:
        return Encoder(queue, stop_fd).run()
    finally:
        queue.close()


if __name__ == "__main__":
    sys.exit(main())
