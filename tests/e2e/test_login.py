"""The login of a telnet session: who gets in, who does not, and what the log says of it."""

from __future__ import annotations

import contextlib
import socket

import pytest

from harness import accounts, settings, wire
from harness.accounts import ALICE, BOB, ROOT
from harness.clients import IpcClient
from harness.queue_process import QueueProcess
from harness.telnet import (
    CLOSED_DURING_LOGIN,
    FAREWELL,
    GREETING,
    LOGIN_FAILED,
    PASSWORD_PROMPT,
    LinemodeClient,
    TelnetClient,
    closed,
    connected,
    opened,
)
from harness.waiting import Stopwatch

NAME_INVALID = (LOGIN_FAILED, "Failed login, username invalid ")
PASSWORD_INVALID = (LOGIN_FAILED, "Failed login, password invalid ")
NAME_TOO_BIG = (LOGIN_FAILED, "Login name too big")
PASSWORD_TOO_BIG = (LOGIN_FAILED, "Login password too big")
NO_NAME_IN_TIME = (LOGIN_FAILED, "Timeout during connection login, state = 1")
NO_PASSWORD_IN_TIME = (LOGIN_FAILED, "Timeout during connection login, state = 2")

NOBODY = b"?\r\n"


@pytest.fixture
def log(socket_tessd):
    """What the log has gained since the start, once the daemon has said that `left` clients are left."""
    before = len(socket_tessd.entries())

    def gained(left: int = 0) -> list[tuple[int, str]]:
        socket_tessd.wait_log(*closed(left))
        return socket_tessd.entries()[before:]

    return gained


# Who gets in


@pytest.mark.parametrize("client_type", [TelnetClient, LinemodeClient])
@pytest.mark.parametrize("account", [ALICE, BOB], ids=["SHA-512", "yescrypt"])
def test_the_right_password_lets_in(socket_tessd, log, client_type, account):
    with QueueProcess(2001) as process, client_type() as client:
        process.register(b"ENC")
        client.log_in(account)
        client.send(b"s3.ENC GETX\r\n")
        process.expect_command(b"GETX", tag=wire.FIRST_TELNET_ID)
    assert log() == [opened(1), closed(0)]


@pytest.mark.parametrize("end", [b"\r\n", b"\n", b"\r", b"\r\0"], ids=["CR LF", "LF", "CR", "CR NUL"])
def test_every_line_end_will_do(socket_tessd, end):
    with TelnetClient() as client:
        client.log_in(end=end)


def test_the_password_is_not_echoed_and_the_lines_behind_it_are(socket_tessd):
    with TelnetClient() as client:
        client.give_name()
        client.send(b"secret\r\n")
        client.expect(connected(b"alice"))  # the very next bytes
        client.ask(b"t1.ENC X", NOBODY)


@pytest.mark.parametrize(
    "name",
    [accounts.LONGEST_NAME, accounts.FORMAT_NAME, accounts.CONTROL_NAME, accounts.EIGHT_BIT_NAME],
    ids=["of 255 characters", "of format characters", "of control characters", "of 8-bit characters"],
)
def test_an_account_with_an_unusual_name_gets_in_and_is_named_as_it_is(socket_tessd, name):
    with TelnetClient() as client:
        client.log_in(name, end=b"\n")


def test_name_and_password_end_at_their_first_nul(socket_tessd):
    with TelnetClient() as client:
        client.send(b"alice\0%s%n\r\n")
        client.expect(GREETING + b"alice\0%s%n\r\n" + PASSWORD_PROMPT)
        client.send(b"secret\0and more\r\n")
        client.expect(connected(b"alice"))


def test_what_comes_with_the_name_is_lost(socket_tessd, log):
    with QueueProcess(2001) as process, TelnetClient() as client:
        process.register(b"ENC")
        typed_ahead = b"alice\r\nsecret\r\nGETX\r\n"
        client.send(typed_ahead)
        client.expect(GREETING + typed_ahead + PASSWORD_PROMPT)
        client.expect_silence(0.3)
        client.send(b"secret\r\nGETX\r\n")
        client.expect(connected(b"alice"))
        client.ask(b"t1.ENC X", NOBODY)
        assert process.waiting() == [], "what came with the password is lost as well"
    assert log() == [opened(1), closed(0)]


def test_two_clients_overwrite_each_others_name(socket_tessd, log):
    with TelnetClient() as first, TelnetClient() as second:
        first.give_name(ALICE.name)
        second.give_name(BOB.name)
        first.send(ALICE.password + b"\r\n")  # taken for Bob's
        first.expect(FAREWELL)
        first.expect_close()
        second.send(BOB.password + b"\r\n")
        second.expect(connected(BOB.name))
    assert log() == [opened(1), opened(2), PASSWORD_INVALID, closed(1), closed(0)]


def test_the_first_of_two_clients_gets_in_with_the_name_and_password_of_the_second(socket_tessd):
    with TelnetClient() as first, TelnetClient() as second:
        first.give_name(ALICE.name)
        second.give_name(BOB.name)
        first.send(BOB.password + b"\r\n")
        first.expect(connected(BOB.name))


def test_ten_clients_log_in_one_after_the_other(socket_tessd):
    with contextlib.ExitStack() as stack:
        clients = []
        for _ in range(10):
            clients.append(stack.enter_context(TelnetClient()))
            clients[-1].log_in()
        for client in clients:
            client.ask(b"t1.ENC X", NOBODY)


# Who does not

# Name and password as they are sent, and what the log says.
REFUSALS = {
    "wrong password": (b"alice", b"Secret", PASSWORD_INVALID),
    "password with a blank in front": (b"alice", b" secret", PASSWORD_INVALID),
    "password with a blank behind": (b"alice", b"secret ", PASSWORD_INVALID),
    "the hash as the password": (b"alice", accounts.SHA512, PASSWORD_INVALID),
    "unknown name": (b"nobody-has-this-name", b"secret", NAME_INVALID),
    "name in capitals": (b"ALICE", b"secret", NAME_INVALID),
    "name with a blank behind": (b"alice ", b"secret", NAME_INVALID),
    "name with a blank in front": (b" alice", b"secret", NAME_INVALID),
    "name with an empty line in front": (b"\r\nalice", b"secret", NAME_INVALID),
    "name behind a NUL": (b"\0alice", b"secret", NAME_INVALID),
    "root with the right password": (ROOT.name, ROOT.password, PASSWORD_INVALID),
    "root with a wrong password": (ROOT.name, b"secret", PASSWORD_INVALID),
    "shadowed account": (accounts.SHADOWED.name, b"secret", PASSWORD_INVALID),
    "x for a shadowed account": (accounts.SHADOWED.name, b"x", PASSWORD_INVALID),
    "locked account": (accounts.LOCKED.name, b"secret", PASSWORD_INVALID),
    "account without a password": (accounts.WITHOUT_PASSWORD.name, b"secret", PASSWORD_INVALID),
    "account without a password, empty password": (accounts.WITHOUT_PASSWORD.name, b" x", PASSWORD_INVALID),
    "format characters": (b"%s%n%s%n%d", b"%n%n%n%s", NAME_INVALID),
    "format characters in the password": (b"alice", b"%n%n%n%s", PASSWORD_INVALID),
    "control characters": (b"\x01\x08\x1b[2J\x7f", b"\x03\x04", NAME_INVALID),
    "control characters in the password": (b"alice", b"\x03\x04\x1b[2J", PASSWORD_INVALID),
    "8-bit characters": (b"\x80\xff\xfe\xc3", b"\xff", NAME_INVALID),
    "8-bit characters in the password": (b"alice", b"\xff\xfe\x80\xc3", PASSWORD_INVALID),
    "a colon": (b"alice:" + accounts.SHA512, b"secret", NAME_INVALID),
    "quit": (b"quit", b"quit", NAME_INVALID),
    "RESET": (b"RESET", b"RESET", NAME_INVALID),
}


@pytest.mark.parametrize("name, password, reason", REFUSALS.values(), ids=REFUSALS.keys())
def test_refused(log, name, password, reason):
    with TelnetClient() as client:
        client.give_name(name)
        client.send(password + b"\r\n")
        client.expect(FAREWELL)
        client.expect_close()
    assert log() == [opened(1), reason, closed(0)]


def test_a_refused_linemode_client_is_only_told_an_empty_line(log):
    with LinemodeClient() as client:
        client.give_name()
        client.send(b"wrong\r\n")
        client.expect(FAREWELL)
        client.expect_close()
    assert log() == [opened(1), PASSWORD_INVALID, closed(0)]


def test_what_is_sent_before_the_login_reaches_nobody(socket_tessd):
    with QueueProcess(2001) as process, TelnetClient() as client:
        process.register(b"ENC")
        client.give_name(b"s3.ENC GETX")
        client.send(b"s3.ENC GETX\r\n")
        client.expect(FAREWELL)
        client.expect_close()
        process.expect_daemon_done()
        assert process.waiting() == []


def test_answers_for_a_session_that_is_not_logged_in_are_written_all_the_same(socket_tessd):
    with QueueProcess(2001) as process, TelnetClient() as client:
        client.give_name()
        process.reply(wire.FIRST_TELNET_ID, b"5\r\n\r\n")
        client.expect(b"5\r\n\r\n")


# How long name and password may be


def test_a_name_of_256_bytes_with_its_line_end_is_taken(log):
    with TelnetClient() as client:
        client.give_name(b"u" * 255, end=b"\n")
        client.send(b"secret\n")
        client.expect(FAREWELL)
        client.expect_close()
    assert log() == [opened(1), NAME_INVALID, closed(0)]


@pytest.mark.parametrize(
    "name",
    [b"u" * 255 + b"\r\n", accounts.TOO_LONG_NAME.name + b"\n", b"alice\n" + b"v" * 251],
    ids=["CR LF", "of an account", "with what comes behind it"],
)
def test_a_name_of_257_bytes_with_its_line_end_is_refused(log, name):
    assert len(name) == 257
    with TelnetClient() as client:
        client.send(name)
        client.expect(GREETING + name + FAREWELL)
        client.expect_close()
    assert log() == [opened(1), NAME_TOO_BIG, closed(0)]


@pytest.mark.parametrize("length, judgement", [(256, PASSWORD_INVALID), (257, PASSWORD_TOO_BIG)])
def test_a_password_with_its_line_end_is_looked_at_up_to_256_bytes(log, length, judgement):
    with TelnetClient() as client:
        client.give_name()
        client.send(b"p" * (length - 1) + b"\n")
        client.expect(FAREWELL)
        client.expect_close()
    assert log() == [opened(1), judgement, closed(0)]


def test_empty_lines_are_no_name_and_no_password(socket_tessd):
    with TelnetClient() as client:
        client.send(b"\r\n")
        client.expect(GREETING + b"\r\n")
        client.send(b" \t\r\n")
        client.expect(b" \t\r\n")
        client.send(b"alice\r\n")
        client.expect(b"alice\r\n" + PASSWORD_PROMPT)
        client.send(b"\r\n\r\n")
        client.expect_silence(0.3)
        client.send(b"secret\r\n")
        client.expect(connected(b"alice"))


# Clients that hang up


def test_a_client_that_hangs_up_before_its_name_is_logged(log):
    with TelnetClient() as client:
        client.send(b"\n")
        client.expect(GREETING + b"\n")
    assert log() == [opened(1), CLOSED_DURING_LOGIN, closed(0)]


def test_a_client_that_hangs_up_before_its_password_is_logged(log):
    with TelnetClient() as client:
        client.give_name()
    assert log() == [opened(1), CLOSED_DURING_LOGIN, closed(0)]


def test_a_client_that_only_stops_sending_is_told_an_empty_line(log):
    with TelnetClient() as client:
        client.give_name()
        client.socket.shutdown(socket.SHUT_WR)
        client.expect(FAREWELL)
        client.expect_close()
    assert log() == [opened(1), CLOSED_DURING_LOGIN, closed(0)]


# Time


class Timed:
    """A daemon whose clock the test sets ahead."""

    def __init__(self, tessd, clock) -> None:
        self.tessd = tessd
        self.clock = clock
        self.ipc = IpcClient()

    def advance(self, seconds: float) -> None:
        """And the daemon has looked at every connection since."""
        self.clock.advance(seconds)
        for _ in range(2):
            self.ipc.expect_nothing_more()


@pytest.fixture
def timed(clocked_socket_tessd, clock):
    return Timed(clocked_socket_tessd, clock)


def test_a_client_without_a_name_is_closed_after_60_seconds(timed):
    with TelnetClient() as client:
        client.expect(GREETING)
        timed.advance(50)
        client.expect_silence(0.1)
        timed.advance(10)
        client.expect(FAREWELL)
        client.expect_close()
    timed.tessd.wait_log(*NO_NAME_IN_TIME)
    timed.tessd.wait_log(*closed(0))


def test_half_a_name_does_not_prolong_the_60_seconds(timed):
    with TelnetClient() as client:
        client.send(b"ali")
        client.expect(GREETING + b"ali")
        timed.advance(50)
        client.send(b"c")
        client.expect(b"c")
        timed.advance(10)
        # What stays unread makes the close a reset, which may overtake the farewell.
        assert client.receive_until_close() in (b"", FAREWELL)
    timed.tessd.wait_log(*NO_NAME_IN_TIME)
    timed.tessd.wait_log(*closed(0))


def test_a_client_without_a_password_is_closed_60_seconds_after_its_begin(timed):
    with TelnetClient() as client:
        client.expect(GREETING)
        timed.advance(50)
        client.send(b"alice\r\n")
        client.expect(b"alice\r\n" + PASSWORD_PROMPT)
        timed.advance(10)
        client.expect(FAREWELL)
        client.expect_close()
    timed.tessd.wait_log(*NO_PASSWORD_IN_TIME)
    timed.tessd.wait_log(*closed(0))


def test_a_client_that_logs_in_within_the_60_seconds_stays(timed):
    with TelnetClient() as client:
        client.give_name()
        timed.advance(50)
        client.send(b"secret\r\n")
        client.expect(connected(b"alice"))
        timed.advance(50)
        client.ask(b"t1.ENC X", NOBODY)


@pytest.mark.slow
@pytest.mark.deadline(120)
@pytest.mark.parametrize("named", [False, True], ids=["name", "password"])
def test_the_login_is_over_after_60_real_seconds(socket_tessd, named):
    watch = Stopwatch()
    with TelnetClient() as client:
        if named:
            client.give_name()
        else:
            client.expect(GREETING)
        client.expect(FAREWELL, within=65)
        assert 60 <= watch.seconds() <= 60 + 2 * settings.SLOW, f"{watch.seconds():.1f} s"
        client.expect_close()
    socket_tessd.wait_log(*(NO_PASSWORD_IN_TIME if named else NO_NAME_IN_TIME))
