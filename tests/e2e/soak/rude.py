"""Those who keep to no rule. None of it may be anybody else's trouble; what becomes of themselves is not looked at, but for
those who must not get in."""

from __future__ import annotations

import contextlib
import os
import socket
import struct

from harness import accounts, proc, settings, wire
from harness.clients import Client, IpcClient, XcpClient
from harness.nuisances import at_once, greeted, leave_urgently
from harness.queue_process import QueueProcess, queue_path
from harness.telnet import (
    GREETING,
    IAC,
    LIMIT_REACHED,
    NOP,
    WILL_ECHO,
    LinemodeClient,
    TelnetClient,
)
from harness.waiting import wait_until
from soak.speech import PATIENCE, arrive
from soak.stage import Actor, Stage

LONG = b"x" * 900
SMALL_BUFFER = 4096  # of a client that does not read
UNREAD_LINES = 300
LONGEST_STAY = 20.0
PLACES = 10  # of a port
FEW = 3  # logins at once; those who stay leave room for more
WRONG_PASSWORDS = [
    (accounts.ALICE.name, b"wrong"),
    (accounts.BOB.name, b"sesamE"),
    (accounts.ROOT.name, accounts.ROOT.password),
    (accounts.LOCKED.name, accounts.LOCKED.password),
    (accounts.WITHOUT_PASSWORD.name, b"guess"),
    (b"nobody-here", b"secret"),
    (b"%s%n" * 10, b"%s%n"),
]
LOOKED_AT = [account.name for account in (accounts.ALICE, accounts.BOB, accounts.LOCKED, accounts.WITHOUT_PASSWORD)]


class Rude(Actor):
    """Does one of its acts at a time."""

    pause = (0.1, 0.6)

    def act(self) -> None:
        name = self.random.choice([name for name in dir(self) if name.startswith("do_")])
        self.tally["acts"] += 1
        # On a slow machine, or among many, its own time may be over; the daemon may close at any moment.
        with contextlib.suppress(AssertionError, OSError):
            getattr(self, name)()

    def linger(self) -> None:
        self.stage.stay(self.random.uniform(0.1, LONGEST_STAY) if self.random.random() < 0.1 else self.random.uniform(0.0, 1.0))

    def noise(self, size: int) -> bytes:
        """Bytes of any kind; never a line that begins with RESET, which would restart the device."""
        return self.random.randbytes(size).replace(b"R", b"r.").replace(b"r", b"..")

    def bit_by_bit(self, client: Client, data: bytes) -> None:
        for byte in data:
            client.send(bytes([byte]))
            self.stage.stay(0.005)

    def deaf(self, client: Client, line: bytes) -> None:
        """Asks and asks, and never reads."""
        client.socket.settimeout(2)
        for _ in range(UNREAD_LINES):
            if not self.stage.acting:
                break
            client.send(line)


def reset(client: Client) -> None:
    """Ends a TCP connection with RST."""
    client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    client.close()


def with_small_buffer(kind: type[Client]) -> Client:
    client = kind()
    client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, SMALL_BUFFER)
    return client


class RudeIpc(Rude):
    def do_come_and_go(self) -> None:
        IpcClient().close()

    def do_say_nothing(self) -> None:
        with IpcClient():
            self.linger()

    def do_half_close(self) -> None:
        with IpcClient() as client:
            client.send(b"s3.ENC half")
            client.socket.shutdown(socket.SHUT_WR)
            client.receive(1000, within=1)

    def do_write_bit_by_bit(self) -> None:
        with IpcClient() as client:
            self.bit_by_bit(client, b"*\n*\n\n")

    def do_never_read(self) -> None:
        with with_small_buffer(IpcClient) as client:
            self.deaf(client, b"s3.ENC " + LONG + b"\n")
            self.linger()

    def do_leave_behind_a_burst(self) -> None:
        with IpcClient() as client:
            client.send(b"s3.ENC x\n" * self.random.randint(1, 110))

    def do_send_too_much(self) -> None:
        with IpcClient() as client:
            client.send(b"s3.ENC x\n" * 500)
            self.linger()

    def do_make_noise(self) -> None:
        with IpcClient() as client:
            client.send(b"s3.NOBODY " + self.noise(self.random.randint(1, 3000)))
            self.linger()

    def do_fail_to_reset_the_device(self) -> None:
        with IpcClient() as client:
            client.ask(b"RESET REINIT", b"Error Processing Reset Command.\r\n\r\n")


class RudeXcp(Rude):
    def do_come_and_go(self) -> None:
        XcpClient().close()

    def do_say_nothing(self) -> None:
        with XcpClient():
            self.linger()

    def do_send_half_a_header(self) -> None:
        with XcpClient() as client:
            client.send(wire.frame(b"*\n")[: self.random.randint(1, 15)])
            client.expect_close(within=1)

    def do_send_a_frame_bit_by_bit(self) -> None:
        with XcpClient() as client:
            self.bit_by_bit(client, wire.frame(b"*\n"))

    def do_declare_a_wrong_length(self) -> None:
        with XcpClient() as client:
            client.send_frame(b"*\n", length=self.random.choice((-1, 1009, 0x7FFFFFFF, 0, 1008)))
            client.receive(1000, within=1)

    def do_send_urgent_bytes(self) -> None:
        with XcpClient() as client:
            for _ in range(self.random.randint(1, 3)):
                client.socket.send(b"!", socket.MSG_OOB)
            client.send_frame(b"*\n")
            self.linger()

    def do_never_read(self) -> None:
        with with_small_buffer(XcpClient) as client:
            self.deaf(client, wire.frame(b"s3.ENC " + LONG + b"\n"))
            self.linger()

    def do_make_noise(self) -> None:
        with XcpClient() as client:
            for _ in range(self.random.randint(1, 5)):
                client.send_frame(b"s3.NOBODY " + self.noise(self.random.randint(1, 400)))
            self.linger()

    def do_leave_behind_a_burst(self) -> None:
        with XcpClient() as client:
            for number in range(self.random.randint(1, 60)):
                client.send_frame(b"s3.ENC x\n", tag=number)


class RudeTelnet(Rude):
    """Whoever names a user does so alone (see Stage.login), and stays until the daemon has read the name."""

    pause = (0.2, 1.0)

    def do_come_and_go(self) -> None:
        TelnetClient().close()

    def do_reset_at_once(self) -> None:
        TelnetClient().reset()

    def do_send_an_urgent_byte_and_reset(self) -> None:
        leave_urgently(self.random.choice((at_once, greeted)))

    def do_say_nothing(self) -> None:
        with TelnetClient() as client:
            client.expect(GREETING, within=3)
            self.linger()

    def do_half_close(self) -> None:
        with TelnetClient() as client:
            client.socket.shutdown(socket.SHUT_WR)
            client.receive(1000, within=2)

    def do_bargain_without_end(self) -> None:
        with TelnetClient() as client:
            for _ in range(20):
                option = self.random.choice([number for number in range(255) if number not in b"\r\n"])  # a line would be a name
                client.send(IAC + bytes([self.random.randint(240, 254), option]))
                self.stage.stay(0.05)

    def do_not_answer_the_echo_switch(self) -> None:
        with LinemodeClient() as client:
            with self.stage.login:
                client.negotiate()
                client.send(b"alice\r\n")
                client.expect(WILL_ECHO)
            client.send(IAC + NOP)
            self.linger()

    def do_give_no_password(self) -> None:
        with TelnetClient() as client:
            with self.stage.login:
                client.give_name()
            self.linger()

    def do_give_a_wrong_password(self) -> None:
        name, password = self.random.choice(WRONG_PASSWORDS)
        with self.stage.login, self.random.choice((TelnetClient, LinemodeClient))() as client:
            client.give_name(name)
            if name in LOOKED_AT:
                self.stage.count_password()
            client.send(password + b"\r\n")
            told = client.receive_until_close()
            self.tally["wrong passwords"] += 1
            if b"connected" in told:
                self.tally["wrong"] += 1
                self.note(f"{name!r} got in with {password!r}: {told!r}")

    def do_leave_before_the_verdict(self) -> None:
        with self.stage.login, TelnetClient() as client:
            client.give_name()
            self.stage.count_password()
            client.send(accounts.ALICE.password + b"\r\n")
            wait_until(lambda: proc.unread(client.socket) == 0, "the daemon has taken the password")
            reset(client)

    def do_give_too_long_a_name(self) -> None:
        with self.stage.login, TelnetClient() as client:
            client.send(b"n" * 500 + b"\r\n")
            client.receive_until_close()

    def _user(self) -> Client:
        with self.stage.login:
            client = with_small_buffer(TelnetClient)
            try:
                client.log_in()
            except BaseException:
                client.close()
                raise
            self.stage.count_password()
            return client

    def do_write_bit_by_bit(self) -> None:
        with self._user() as client:
            self.bit_by_bit(client, b"s3.ENC slow\r\n*\r\n")

    def do_never_read(self) -> None:
        with self._user() as client:
            self.deaf(client, b"s3.ENC " + LONG + b"\r\n")
            self.linger()

    def do_write_a_line_without_end(self) -> None:
        with self._user() as client:
            client.send(LONG * 5)
            self.linger()
            reset(client)

    def do_leave_half_a_line(self) -> None:
        with self._user() as client:
            client.send(b"s3.ENC half")
            self.linger()
            if self.random.random() < 0.5:
                reset(client)

    def do_send_urgent_bytes_in_a_line(self) -> None:
        with self._user() as client:
            client.send(b"s3.EN")
            client.socket.send(b"!", socket.MSG_OOB)
            client.send(b"C x\r\n")
            self.linger()

    def do_make_noise(self) -> None:
        with self._user() as client:
            client.send(b"s3.NOBODY " + self.noise(self.random.randint(1, 2000)))
            self.linger()


class Eleventh(Actor):
    """Takes all the places of a port, and one more, who must be sent away.

    Begins with more logins at once than there will ever be: each check of a password has a thread, and what a heap keeps for
    threads it keeps for ever."""

    pause = (5.0, 15.0)

    def __init__(self, stage: Stage, name: str) -> None:
        super().__init__(stage, name)
        self._has_begun = False

    def act(self) -> None:
        if self._has_begun:
            return self._fill()
        with self.stage.login, contextlib.ExitStack() as stack:
            self._has_begun = self._log_in_together(stack)

    def _log_in_together(self, stack: contextlib.ExitStack) -> bool:
        clients = []
        with contextlib.suppress(AssertionError, OSError):  # no place for more
            while len(clients) < PLACES:
                client = stack.enter_context(arrive(TelnetClient))
                client.give_name(accounts.BOB.name)
                clients.append(client)
        for client in clients:
            self.stage.count_password()
            client.send(accounts.BOB.password + b"\r\n")
        for client in clients:
            client.expect_connected(accounts.BOB.name, within=PATIENCE)
        return len(clients) >= FEW

    def _fill(self) -> None:
        kind = self.random.choice((IpcClient, XcpClient, TelnetClient))
        with contextlib.ExitStack() as stack:
            clients = [stack.enter_context(arrive(kind)) for _ in range(PLACES + 1)]
            sent_away = sum(self._is_sent_away(client) for client in clients)
            self.tally["sent away"] += sent_away
            if sent_away == 0:
                self.tally["wrong"] += 1
                self.note(f"nobody of {len(clients)} {kind.__name__}s beside others was sent away")
            self.stage.stay(self.random.uniform(0.0, 0.5))

    def _is_sent_away(self, client: Client) -> bool:
        """Whoever may stay on telnet is greeted; on a local socket he is told that the daemon is there."""
        if isinstance(client, TelnetClient):
            return client.receive(len(LIMIT_REACHED), within=20) in (LIMIT_REACHED, b"")
        try:
            client.expect_nothing_more()
        except (AssertionError, OSError):
            return True
        return False


class RudeProcess(Rude):
    """A process that sends what is no message, and does not take its answers."""

    pause = (0.5, 2.0)

    def _process(self) -> contextlib.AbstractContextManager[QueueProcess]:
        with contextlib.suppress(FileNotFoundError):
            os.unlink(queue_path(2400))
        return QueueProcess(2400)

    def do_send_what_is_no_record(self) -> None:
        with self._process() as process:
            for size in (0, 15, 8193):
                process.send(self.noise(20000)[:size])

    def do_send_unknown_kinds(self) -> None:
        with self._process() as process:
            for kind in (0, 99, 101, 199, 206, 0xFFFFFFFF):
                process.send(wire.record(kind, b"RESET", length=-1))

    def do_answer_nobody(self) -> None:
        with self._process() as process:
            for tag in (0, 0xFFFFFFFF, 0xBBFF0000, 0xAAFF0001):
                process.reply(tag, LONG * 9)
            process.send(wire.record(wire.REPLY, b"x" * wire.TEXT, tag=0))

    def do_ask_for_nothing(self) -> None:
        with self._process() as process:
            process.send(wire.registration(b"NOTHING", 0))
            process.receive()

    def do_not_take_answers(self) -> None:
        with self._process() as process:
            for _ in range(40):
                process.send(wire.registration(b"NOTHING", 0))
            self.linger()

    def do_send_without_an_address(self) -> None:
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as nameless:
            nameless.settimeout(5 * settings.SLOW)
            nameless.connect(queue_path(wire.DAEMON))
            nameless.send(wire.registration(b"NOTHING", wire.IPC))
            nameless.send(wire.record(wire.UNREGISTER))

    def do_fail_to_reset_the_device(self) -> None:
        with self._process() as process:
            process.send(wire.record(wire.RESET, b"RESET REINIT elsewhere" + bytes(60)))
            process.receive()


def rude_ones() -> list:
    return [
        *(lambda stage, number=number: RudeIpc(stage, f"rude-ipc-{number}") for number in range(2)),
        *(lambda stage, number=number: RudeXcp(stage, f"rude-xcp-{number}") for number in range(2)),
        *(lambda stage, number=number: RudeTelnet(stage, f"rude-telnet-{number}") for number in range(3)),
        lambda stage: RudeProcess(stage, "rude-process"),
        lambda stage: Eleventh(stage, "eleventh"),
    ]
