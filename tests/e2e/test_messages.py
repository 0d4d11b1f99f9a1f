"""Messages to the daemon, kind by kind."""

from __future__ import annotations

import pytest

from harness import settings, wire
from harness.clients import IpcClient, XcpClient
from harness.daemon import CLOSING_ALL, CLOSING_TELNET
from harness.queue_process import QueueProcess
from harness.reply_model import ReplyRecord

REGISTERED = "Process register operation successful"
NOTHING_ENABLED = "Command register request with nothing enabled"
LIST_FULL = "Max # of registered processes reached"
UNREGISTERED = "Process unregister operation successful"
LIST_EMPTY = "Registered process list is empty"
NOT_FOUND = "Process not found in registered process list"
RESET_FAILED = "Error Processing RESET Command\r\n\r\n"
RECEIVED_RESET = (250003, "Received RESET command.")
MAX_PROCESSES = 32

FAILURE = -1


@pytest.fixture
def process(tessd):
    with QueueProcess(2001) as opened:
        yield opened


class Conversation:
    """One process and the daemon; checks every answer against the model of the reply record."""

    def __init__(self, process: QueueProcess) -> None:
        self.process = process
        self.model = ReplyRecord()

    def register(self, name: bytes, mask: int, status: int, text: str) -> None:
        self.process.send(wire.registration(name, mask))
        expected = self.model.status_text(status, text)
        self._check(expected, f"register {name!r} with mask {mask}")

    def unregister(self, status: int, text: str) -> None:
        self.process.send(wire.record(wire.UNREGISTER))
        self._check(self.model.status_text(status, text), "unregister")

    def refused_reset(self, line: bytes) -> None:
        datagram = wire.record(wire.RESET, line + b"\0", tag=77, length=88)
        self.process.send(datagram)
        self._check(self.model.reset_text(RESET_FAILED, len(datagram)), f"reset {line!r}")

    def com2_write(self, text: bytes, tag: int, length: int | None = None) -> None:
        datagram = wire.record(wire.COM2_WRITE, text, tag=tag, length=len(text) if length is None else length)
        self.process.send(datagram)
        self._check(self.model.no_serial_line(tag, len(datagram)), f"COM2 write {text!r}")

    def _check(self, text: bytes, what: str) -> None:
        got = self.process.receive()
        assert got.origin == f"{settings.QUEUE_DIR}/{wire.DAEMON}", f"{what}: answered from {got.origin}"
        self.model.check(got, text, what)


@pytest.fixture
def talk(process):
    return Conversation(process)


def test_registration_is_confirmed_with_status_and_text(talk):
    talk.register(b"ENC", wire.IPC, 0, REGISTERED)


def test_registration_for_no_port_is_refused(talk):
    talk.register(b"ENC", 0, FAILURE, NOTHING_ENABLED)
    talk.unregister(FAILURE, LIST_EMPTY)


def test_unregistering_is_confirmed_once(talk):
    talk.unregister(FAILURE, LIST_EMPTY)
    talk.register(b"ENC", wire.IPC, 0, REGISTERED)
    talk.unregister(0, UNREGISTERED)
    talk.unregister(FAILURE, LIST_EMPTY)


def test_unregistering_an_address_that_never_registered_is_refused(talk):
    with QueueProcess(2002) as other:
        talk.register(b"ENC", wire.IPC, 0, REGISTERED)
        other.send(wire.record(wire.UNREGISTER))
        talk.model.check(other.receive(), talk.model.status_text(FAILURE, NOT_FOUND), "unregister")


def test_the_tail_of_a_longer_text_stays_behind_a_shorter_one(process):
    """A deliberate oddity of the reply record, told here without a model."""
    process.send(wire.registration(b"ENC", 0))
    assert process.receive().text == b"Command register request with nothing enabled\0"
    process.send(wire.registration(b"ENC", wire.IPC))
    got = process.receive()
    assert got.text == b"Process register operation successful enabled\0"
    assert got.size == len("Process register operation successful enabled") + 17
    process.send(wire.record(wire.UNREGISTER))
    assert process.receive().text == b"Process unregister operation successfulnabled\0"
    process.send(wire.record(wire.UNREGISTER))
    assert process.receive().text == b"Registered process list is emptycessfulnabled\0"


def test_answers_follow_the_reply_record_whatever_the_order(talk):
    talk.com2_write(b"before anything else", tag=0x12345678)
    talk.register(b"ENC", 0, FAILURE, NOTHING_ENABLED)
    talk.refused_reset(b"RESET A")
    talk.register(b"ENC", wire.XCP, 0, REGISTERED)
    talk.com2_write(b"", tag=0xFFFFFFFF)
    talk.com2_write(b"x" * 8176, tag=1)
    talk.refused_reset(b"RESET A B C" + b" " * 200)
    talk.unregister(0, UNREGISTERED)
    talk.refused_reset(b"A B")
    talk.unregister(FAILURE, LIST_EMPTY)
    talk.refused_reset(b"RESET REINIT elsewhere")
    talk.register(b"ENC", wire.XCP, 0, REGISTERED)
    talk.com2_write(b"text", tag=2, length=-1)
    talk.com2_write(b"text", tag=3, length=100000)
    talk.com2_write(b"text", tag=4, length=-(2**31))


def test_refused_reset_message_is_logged(talk, tessd):
    talk.refused_reset(b"RESET A")
    assert tessd.entries()[-1] == RECEIVED_RESET
    talk.refused_reset(b"")
    assert tessd.entries()[-2:] == [RECEIVED_RESET] * 2


def test_a_thirty_third_process_is_refused(talk, process):
    for number in range(MAX_PROCESSES):
        talk.register(b"P%d" % number, wire.IPC, 0, REGISTERED)
    talk.register(b"P32", wire.IPC, FAILURE, LIST_FULL)
    with IpcClient() as client:
        client.send(b"X\n")
        for _ in range(MAX_PROCESSES):
            process.expect_command(b"X")
        client.expect_nothing_more()
    assert process.waiting() == []


def test_a_known_name_registers_again_even_when_the_list_is_full(talk, process):
    for number in range(MAX_PROCESSES):
        talk.register(b"P%d" % number, wire.IPC, 0, REGISTERED)
    talk.register(b"P31", wire.XCP, 0, REGISTERED)
    talk.register(b"P0", wire.IPC | wire.XCP, 0, REGISTERED)
    talk.register(b"p0", wire.IPC, FAILURE, LIST_FULL)
    talk.unregister(0, UNREGISTERED)
    talk.register(b"p0", wire.IPC, 0, REGISTERED)


def test_registering_a_name_again_moves_it_to_the_new_address(process):
    process.register(b"ENC")
    with QueueProcess(2002) as successor, IpcClient() as client:
        successor.register(b"ENC")
        client.send(b"s3.ENC X\n")
        successor.expect_command(b"X")
        client.expect_nothing_more()
        assert process.waiting() == []
        process.send(wire.record(wire.UNREGISTER))
        assert process.receive().line.startswith(NOT_FOUND.encode())


def test_registering_a_name_again_changes_its_ports(process):
    process.register(b"ENC", wire.IPC)
    with IpcClient() as ipc, XcpClient() as xcp:
        xcp.ask(b"s3.ENC X", b"?\r\n")
        process.register(b"ENC", wire.XCP)
        ipc.ask(b"s3.ENC I", b"?\r\n")
        xcp.send_frame(b"s3.ENC X\n")
        process.expect_command(b"X")
        assert process.waiting() == []


def test_names_that_differ_in_case_are_two_registrations(talk, process):
    talk.register(b"ENC", wire.IPC, 0, REGISTERED)
    talk.register(b"enc", wire.IPC, 0, REGISTERED)
    with IpcClient() as client:
        client.send(b"s3.Enc X\n")
        process.expect_command(b"X")
        process.expect_command(b"X")


def test_unregistering_removes_the_first_name_of_the_address_only(talk, process):
    for name in (b"A", b"B"):
        talk.register(name, wire.IPC, 0, REGISTERED)
    talk.unregister(0, UNREGISTERED)
    with IpcClient() as client:
        client.ask(b"s3.A X", b"?\r\n")
        client.send(b"s3.B X\n")
        process.expect_command(b"X")
    talk.unregister(0, UNREGISTERED)
    talk.unregister(FAILURE, LIST_EMPTY)


def test_a_name_without_its_nul_ends_with_the_message(talk, process):
    talk.process.send(wire.registration(b"LONGNAME", wire.IPC))
    talk._check(talk.model.status_text(0, REGISTERED), "a name of eight characters")
    talk.process.send(wire.registration(b"ENC", wire.IPC, end=b""))
    talk._check(talk.model.status_text(0, REGISTERED), "a name without NUL")
    with IpcClient() as client:
        client.send(b"s3.ENC X\n")
        process.expect_command(b"X")


def test_a_name_ends_at_its_first_nul(talk, process):
    talk.process.send(wire.registration(b"ENC\0ODER", wire.IPC))
    talk._check(talk.model.status_text(0, REGISTERED), "a NUL inside")
    with IpcClient() as client:
        client.send(b"s3.ENC X\n")
        process.expect_command(b"X")


def test_a_name_that_fills_the_record_ends_with_it(talk, process):
    longest = b"n" * (wire.TEXT - 4)
    for _ in range(2):  # the second time it is known
        talk.process.send(wire.registration(longest, wire.IPC, end=b""))
        talk._check(talk.model.status_text(0, REGISTERED), "a name of 8172 characters")
    with IpcClient() as client:
        client.send(b"to everybody\n")
        process.expect_command(b"to everybody")
        client.expect_nothing_more()
        assert process.waiting() == []


def test_what_a_short_registration_leaves_out_reads_as_zero(talk, process):
    talk.process.send(wire.record(wire.REGISTER))
    talk._check(talk.model.status_text(FAILURE, NOTHING_ENABLED), "no mask")
    talk.process.send(wire.record(wire.REGISTER, b"\0\0\0"))
    talk._check(talk.model.status_text(FAILURE, NOTHING_ENABLED), "three bytes of a mask")
    talk.process.send(wire.record(wire.REGISTER, wire.word(wire.IPC)))
    talk._check(talk.model.status_text(0, REGISTERED), "a mask without a name")
    talk.register(b"", wire.IPC, 0, REGISTERED)  # the empty name again
    with IpcClient() as client:
        client.send(b"X\n")
        process.expect_command(b"X")
        client.expect_nothing_more()
        assert process.waiting() == []


def test_kinds_without_a_meaning_are_ignored(process, tessd):
    before = tessd.entries()
    with IpcClient() as client:
        client.expect_nothing_more()
        for kind in (0, 1, 99, 101, 103, 199, 206, 0x7FFFFFFF, 0xFFFFFFFF):
            process.send(wire.record(kind, b"RESET\0", tag=wire.FIRST_IPC_ID, length=5))
        process.expect_daemon_done()
        client.expect_nothing_more()
    assert process.waiting() == []
    assert tessd.entries() == before


def test_a_reply_goes_to_the_connection_of_its_tag(process):
    with IpcClient() as first, IpcClient() as second, XcpClient() as framed:
        first.expect_nothing_more()
        second.expect_nothing_more()
        framed.expect_nothing_more()
        process.reply(wire.FIRST_IPC_ID + wire.ID_STEP, b"to the second")
        process.reply(wire.FIRST_IPC_ID | 0x1234, b"to the first, whatever its own part of the tag")
        process.reply(wire.FIRST_XCP_ID | 0xABCD, b"to the framed one")
        first.expect(b"to the first, whatever its own part of the tag")
        second.expect(b"to the second")
        got = framed.expect_frame(b"to the framed one", tag=0xABCD)
        assert (got.kind, got.sender) == (wire.REPLY, 2001), f"the record's other words go out as they are: {got}"
        for client in (first, second, framed):
            client.expect_nothing_more()


def test_a_reply_for_no_connection_is_dropped(process, tessd):
    with IpcClient() as gone:
        gone.expect_nothing_more()
    before = tessd.entries()
    with IpcClient() as client:
        client.expect_nothing_more()
        for tag in (0, wire.FIRST_IPC_ID, wire.FIRST_XCP_ID, 0xFFFFFFFF, 0x0000BB02):
            process.reply(tag, b"for nobody")
        process.expect_daemon_done()
        client.expect_nothing_more()
    assert process.waiting() == []
    assert tessd.entries() == before


def test_reply_text_ends_where_the_message_ends(process):
    with IpcClient() as ipc, XcpClient() as xcp:
        ipc.expect_nothing_more()
        xcp.expect_nothing_more()
        process.send(wire.record(wire.REPLY, b"a longer text than the next\0", tag=wire.FIRST_IPC_ID))
        process.send(wire.record(wire.REPLY, b"no NUL", tag=wire.FIRST_IPC_ID))
        process.send(wire.record(wire.REPLY, b"stops\0here", tag=wire.FIRST_IPC_ID))
        process.send(wire.record(wire.REPLY, b"no NUL either", tag=wire.FIRST_XCP_ID))
        ipc.expect(b"a longer text than the nextno NULstops")
        xcp.expect_frame(b"no NUL either")


def test_a_reply_that_fills_the_record_loses_its_last_byte_to_the_nul(process):
    text = bytes(65 + number % 26 for number in range(wire.TEXT))
    with IpcClient() as ipc, XcpClient() as xcp:
        ipc.expect_nothing_more()
        xcp.expect_nothing_more()
        for tag in (wire.FIRST_IPC_ID, wire.FIRST_XCP_ID):
            process.send(wire.record(wire.REPLY, text, tag=tag))
        ipc.expect(text[:-1])
        xcp.expect_frame(text[:-1])
        process.send(wire.record(wire.REPLY, text[:-1], tag=wire.FIRST_IPC_ID))
        ipc.expect(text[:-1])
        ipc.expect_nothing_more()


def test_an_empty_reply_reaches_framed_clients_only(process):
    with IpcClient() as ipc, XcpClient() as xcp:
        ipc.expect_nothing_more()
        xcp.expect_nothing_more()
        for tag in (wire.FIRST_IPC_ID, wire.FIRST_XCP_ID):
            process.send(wire.record(wire.REPLY, tag=tag))
        xcp.expect_frame(b"")
        process.expect_daemon_done()
        ipc.expect_nothing_more()


def test_close_all_closes_every_connection_and_serves_new_ones(process, tessd):
    with IpcClient() as ipc, XcpClient() as xcp, XcpClient() as other_xcp:
        for client in (ipc, xcp, other_xcp):
            client.expect_nothing_more()
        before = len(tessd.entries())
        process.send(wire.record(wire.CLOSE_ALL))
        for client in (ipc, xcp, other_xcp):
            client.expect_close()
        process.expect_daemon_done()
        assert process.waiting() == []
        actual = tessd.entries()[before:]
        closed = "XCP socket connection closed.  Active connections = "
        assert actual == [CLOSING_ALL, (6001, closed + "1"), (6001, closed + "0")], actual
    with IpcClient() as ipc, XcpClient() as xcp:
        ipc.expect_nothing_more()
        xcp.expect_nothing_more()


def test_close_all_without_connections_is_only_logged(process, tessd):
    before = len(tessd.entries())
    process.send(wire.record(wire.CLOSE_ALL))
    process.expect_daemon_done()
    assert tessd.entries()[before:] == [CLOSING_ALL]


def test_close_telnet_leaves_local_connections_alone(process, tessd):
    with IpcClient() as ipc, XcpClient() as xcp:
        ipc.expect_nothing_more()
        xcp.expect_nothing_more()
        before = len(tessd.entries())
        process.send(wire.record(wire.CLOSE_TELNET))
        process.expect_daemon_done()
        assert process.waiting() == []
        assert tessd.entries()[before:] == [CLOSING_TELNET]
        ipc.expect_nothing_more()
        xcp.expect_nothing_more()
