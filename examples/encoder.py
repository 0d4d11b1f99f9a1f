#!/usr/bin/env python3
"""A device process in small, without the framework: only the records and sockets of the message queues.

It registers with tessd under the name ENC for commands from every kind of port, keeps a position, and answers:

    SETX 5          sets the position; "0\\r\\n\\r\\n"
    GETX            the position, here "5\\r\\n\\r\\n"
    anything else   "?\\r\\n"

A tessd that is started anew has forgotten who was registered. Therefore it registers again every ten seconds, which is
harmless while it still is; and every second while tessd is not there.

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
import time

HEADER = struct.Struct("=IiIi")  # kind, sender, tag, len; host byte order
RECORD_BYTES = 8192
MAX_ADDRESS = 2147483647

TESS_ADDRESS = 1001
TEXT, REPLY, REGISTER, UNREGISTER = 101, 102, 200, 201
COM2, TELNET, XCP, IPC = 1, 2, 4, 8

NAME = b"ENC"
DEFAULT_ADDRESS = 1500

REGISTER_EVERY = 10.0  # seconds
ASK_EVERY = 1.0  # while tessd is not there
LEAVE_WITHIN = 2.0
LOCK_SECONDS = 2.0
MOST_STOP_SECONDS = 5


def log(identifier, text):
    now = datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="milliseconds")
    line = f"{now.removesuffix('+00:00')}Z    [ENC] {identifier} {text}\n"
    with contextlib.suppress(OSError):  # a log that nobody reads any more is no reason to end
        os.write(2, line.encode(errors="replace"))


def queue_directory():
    """Absolute, because receivers know a sender by the absolute path of its socket."""
    directory = os.environ.get("TESS_QUEUE_DIR") or "/run/tess/queue"
    return (directory if directory.startswith("/") else os.path.abspath(directory)).rstrip("/")


class Queue:
    """This process's own queue, a datagram socket named DIR/ADDRESS, and the way to everybody else's."""

    def __init__(self, address):
        os.umask(0o007)  # nothing made here is ever open to others
        self.directory = queue_directory()
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
        """Gives the address back. A file that stays behind all the same is replaced by the next owner."""
        with contextlib.suppress(OSError), self._directory_locked():
            with contextlib.suppress(FileNotFoundError):
                if os.path.samestat(os.stat(self.path), self.file):
                    os.unlink(self.path)
            self.socket.close()

    def send(self, address, kind, tag, text):
        """Waits while the other queue is full, however long: nothing is to be lost. True when the record is in it."""
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
            self._lock(directory)
            yield
        finally:
            os.close(directory)

    @staticmethod
    def _lock(directory):
        """Others hold the lock for a moment only. Whoever keeps it all the same holds nobody up for long."""
        give_up = time.monotonic() + LOCK_SECONDS
        while True:
            try:
                return fcntl.flock(directory, fcntl.LOCK_EX | fcntl.LOCK_NB)
            except BlockingIOError:
                if time.monotonic() > give_up:
                    raise
            time.sleep(0.01)

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
        if directory != self.directory:  # compared as text: the sender chose it, so nothing is looked up
            return 0
        if not re.fullmatch("[1-9][0-9]{0,9}", name, re.ASCII) or int(name) > MAX_ADDRESS:
            return 0
        return int(name)


class Encoder:
    def __init__(self, queue, stop_fd):
        self.queue = queue
        self.stop_fd = stop_fd  # readable when it is time to end
        self.position = 0
        self.standing = "unknown"  # then waiting, registered or refused
        self.next_registration = time.monotonic()
        self.replies_due = 0  # registering and unregistering that tessd has not answered

    def run(self):
        """The exit status: 0 stopped, 1 refused."""
        while self.standing != "refused":
            left = self.next_registration - time.monotonic()
            if left <= 0:
                self.register()
                continue
            ready, _, _ = select.select([self.queue.socket, self.stop_fd], [], [], left)
            if self.stop_fd in ready:
                self.unregister()
                return 0
            if ready:
                self.serve_one()
        return 1

    def register(self):
        mask = struct.pack("=I", COM2 | TELNET | XCP | IPC)
        if self.queue.send(TESS_ADDRESS, REGISTER, 0, mask + NAME + b"\0"):
            self.replies_due = 1  # what tessd has not answered by now it never will
            self.next_registration = time.monotonic() + REGISTER_EVERY
            return
        if self.standing != "waiting":
            log(60002, "tessd is not there, asking again every second")
        self.standing = "waiting"
        self.next_registration = time.monotonic() + ASK_EVERY

    def unregister(self):
        if not self.queue.send(TESS_ADDRESS, UNREGISTER, 0, b""):
            log(60006, "tessd is not there, nothing to unregister from")
            return
        self.replies_due += 1
        # What tessd forwarded before it read this still wants its answer; tessd's reply comes behind it.
        give_up = time.monotonic() + LEAVE_WITHIN
        while self.replies_due > 0 and (left := give_up - time.monotonic()) > 0:
            if select.select([self.queue.socket], [], [], left)[0]:
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
        self.replies_due = max(self.replies_due - 1, 0)
        if tag != 0:
            self.standing = "refused"
            log(60003, f"tessd refused: {text}")
        elif self.standing != "registered":
            self.standing = "registered"
            log(60001, f"registered at tessd as {NAME.decode()}")

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

    def request_stop(number, _):
        signal.signal(number, signal.SIG_IGN)  # once is enough
        # A tessd that is halted with a full queue would keep us waiting for room: then SIGALRM ends this process.
        signal.alarm(MOST_STOP_SECONDS)

    reader, writer = socket.socketpair()
    writer.setblocking(False)
    signal.set_wakeup_fd(writer.detach())
    for number in (signal.SIGTERM, signal.SIGINT):
        signal.signal(number, request_stop)
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
