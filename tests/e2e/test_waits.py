"""Whoever waits for a peer, a process, a program or a device waits alone: the others are answered, the daemon rests meanwhile,
and it ends when it is told to."""

from __future__ import annotations

import contextlib
import os
import shutil
import signal
import socket
import time
from collections.abc import Callable, Iterator

import pytest

from harness import accounts, nuisances, proc, settings, wire
from harness.answers import Answers, ask, expect_prompt, share_of_processor
from harness.clients import Client, IpcClient, XcpClient
from harness.com2 import MUTE_SECONDS
from harness.daemon import NORMAL_EXIT, Daemon
from harness.endings import (
    AT_ONCE,
    SERVED_AFTER_STOP,
    end_by_signal,
    expect_end_at_once,
    expect_no_files,
    expect_whole_end,
    send_stop_message,
    time_to_end,
)
from harness.measure import system_calls
from harness.nuisances import BURST, ROWS, Scene, SlowProcess
from harness.telnet import (
    GREETING,
    IAC,
    NOP,
    PASSWORD_PROMPT,
    WILL_ECHO,
    LinemodeClient,
    TelnetClient,
    closed,
    opened,
)
from harness.waiting import Stopwatch, wait_until

NOBODY = b"?\r\n"
OUTPUT_DROPPED = (250007, "COM2 output dropped")
RESET_ERROR = b"Error Processing Reset Command.\r\n\r\n"
RESET_MESSAGE_ERROR = b"Error Processing RESET Command\r\n\r\n"
MOST_SHARE = 0.1  # of a processor, fifty answers a second included

plain_only = pytest.mark.skipif(
    settings.emulated() or settings.sanitized(), reason="emulators and sanitizers add costs of their own"
)
needs_tracer = pytest.mark.skipif(
    settings.emulated() or settings.sanitized() or shutil.which("strace") is None,
    reason="strace is not installed, or emulators and sanitizers suffer no tracer",
)


@pytest.fixture
def set_scene(launch: Callable[..., Daemon]) -> Callable[..., Scene]:
    def make(**options: bool) -> Scene:
        return Scene(launch, **options)

    return make


@pytest.fixture
def scene(set_scene: Callable[..., Scene]) -> Scene:
    return set_scene()


@contextlib.contextmanager
def witnesses(scene: Scene, *kinds: type[Client]) -> Iterator[list[Client]]:
    """Clients that are served before anything goes on."""
    with contextlib.ExitStack() as stack:
        clients = [stack.enter_context(kind()) for kind in kinds]
        for client in clients:
            if isinstance(client, TelnetClient):
                client.log_in()
            client.expect_nothing_more()
        yield clients


def expect_rest(answers: Answers) -> None:
    """The daemon did not spin, or compute, or try again and again."""
    if not settings.emulated() and not settings.sanitized():
        assert answers.processor_share <= MOST_SHARE, str(answers)


# Every wait


@pytest.mark.parametrize("name", ROWS)
def test_nobody_else_waits_and_a_signal_ends_it(set_scene, name, record_property):
    row = ROWS[name]
    scene = set_scene(with_log_pipe=row.needs_log_pipe)
    with witnesses(scene, row.asks) as asking, row(scene) as nuisance:
        answers = ask(scene.tessd, asking, 2)
        record_property("answers", str(answers))
        expect_prompt(answers)
        if not nuisance.computes:
            expect_rest(answers)
        expect_end_at_once(scene.tessd)
    expect_orderly_end(scene)


@pytest.mark.parametrize("stop", ["signal", "stop message"])
def test_everything_at_once_is_nobody_elses_wait_either(set_scene, stop, record_property):
    scene = set_scene(with_log_pipe=True)
    with witnesses(scene, IpcClient, XcpClient, TelnetClient) as asking, nuisances.AllAtOnce(scene):
        answers = ask(scene.tessd, asking, 3)
        record_property("answers", str(answers))
        expect_prompt(answers)
        with nuisances.NoDescriptors(scene):
            expect_prompt(ask(scene.tessd, asking, 1))
        with scene.log_pipe.reading():  # or what the end says would be lost
            if stop == "signal":
                expect_end_at_once(scene.tessd)
            else:
                expect_service_and_end_after_stop_message(scene, asking)
    expect_whole_end(scene.tessd, nothing_lost=False)


STOPPED_BY_MESSAGE = ["burst", "half headers", "silent telnet", "stalled line", "typed re-initialisation", "urgent resets"]


@pytest.mark.parametrize("name", STOPPED_BY_MESSAGE)
def test_after_a_stop_message_everybody_is_served_for_two_seconds_and_the_end_is_whole(scene, name):
    row = ROWS[name]
    with witnesses(scene, row.asks) as asking, row(scene):
        expect_service_and_end_after_stop_message(scene, asking)
    expect_orderly_end(scene)


def expect_service_and_end_after_stop_message(scene: Scene, asking: list[Client]) -> None:
    watch = Stopwatch()

    def serve() -> None:
        send_stop_message()
        expect_prompt(ask(scene.tessd, asking, SERVED_AFTER_STOP - 0.4 - watch.seconds()))

    seconds = time_to_end(scene.tessd, serve)
    assert watch.seconds() >= SERVED_AFTER_STOP, f"ended {watch.seconds():.2f} s after a stop message"
    assert seconds <= SERVED_AFTER_STOP + AT_ONCE * settings.SLOW, f"ended {seconds:.2f} s after a stop message"


def expect_orderly_end(scene: Scene) -> None:
    """A log that nobody has read has lost the lines of the end."""
    if scene.log_pipe is None:
        expect_whole_end(scene.tessd)
    else:
        scene.tessd.expect_end(0, 0.1)
        expect_no_files()


# A process that is slow, or does not read at all


def test_a_burst_to_a_slow_process_arrives_whole_and_in_order_at_its_pace(scene):
    with witnesses(scene, XcpClient) as asking, nuisances.Burst(scene) as burst:
        before = len(burst.slow.taken())
        expect_prompt(ask(scene.tessd, asking, 2))
        taken = len(burst.slow.taken()) - before
        assert taken >= 2 / burst.pace / 2 / settings.SLOW, f"{taken} commands in two seconds"
        burst.slow.hurry()
        # A pause of the process that is long enough is answered for; on a busy machine it may be the machine's.
        refused = 0
        while (answer := burst.client.receive(len(NOBODY), within=1)) == NOBODY:
            refused += 1
        assert answer == b"", answer
        wait_until(lambda: len(burst.slow.taken()) >= len(BURST) - refused, "the rest of the burst arrives", 10)
        got = burst.slow.taken()
        if burst.slow.longest_pause < 0.2:
            assert refused == 0, f"{refused} commands refused"
        assert len(got) == len(BURST) - refused, f"{len(got)} commands arrived, {refused} were refused"
        expect_in_order(got)
        burst.client.expect_nothing_more()


def expect_in_order(got: list[bytes]) -> None:
    rest = iter(BURST)
    assert all(command in rest for command in got), f"not in order: {b''.join(got)!r}"


def test_a_process_that_takes_nothing_is_answered_for_after_a_quarter_of_a_second_and_then_at_once(scene):
    with scene.process() as stuck, witnesses(scene, XcpClient) as asking, IpcClient() as client:
        stuck.register(b"STUCK", wire.IPC)
        watch = Stopwatch()
        client.send(b"".join(line + b"\n" for line in BURST[:60]))
        client.expect(NOBODY)
        first = watch.seconds()
        assert first >= 0.25, f"refused after {first:.3f} s"
        rest = Stopwatch()
        refused = 1
        while client.receive(len(NOBODY), within=0.5) == NOBODY:
            refused += 1
            asking[0].expect_nothing_more()
        # One by one they would take a quarter of a second each.
        assert rest.seconds() < 0.25 * (refused - 1) / 2, f"{refused - 1} further ones refused in {rest.seconds():.2f} s"
        got = [message.line.rstrip(b"\n") for message in stuck.waiting()]
        assert got + BURST[len(got) : 60] == BURST[:60] and len(got) + refused == 60, (got, refused)
        client.expect(b"")
        client.send(b"z\n")  # there is room again
        assert stuck.receive().line == b"z\n"
        client.expect_nothing_more()


def test_what_else_the_waiting_client_sends_is_served_behind_its_burst(scene):
    with scene.process() as process, IpcClient() as client, XcpClient() as other:
        process.register(b"SLOW", wire.IPC)
        slow = SlowProcess(process, 0.05)
        try:
            client.send(b"".join(line + b"\n" for line in BURST[:40]) + b"*\n")
            client.send(b"*\n")
            for _ in range(10):
                other.expect_nothing_more()
            client.expect(b"0\r\n\r\n" * 2, within=10)
            if slow.longest_pause < 0.2:
                wait_until(lambda: slow.taken() == BURST[:40], f"all of it arrives: {slow.taken()}")
        finally:
            slow.end()


def test_a_burst_of_delayed_lines_to_a_slow_process_holds_nobody_up(scene):
    with scene.process() as process, witnesses(scene, XcpClient) as asking, IpcClient() as client:
        process.register(b"SLOW")
        client.send(b"".join(b"DELAY 1|%s\n" % line for line in BURST[:40]))
        client.expect(b"OK\r\n\r\n" * 40)
        slow = SlowProcess(process, 0.1)
        try:
            expect_prompt(ask(scene.tessd, asking, 1.5))
            slow.hurry()
            if slow.longest_pause < 0.2:
                wait_until(lambda: len(slow.taken()) == 40, f"all of it arrives: {slow.taken()}", 10)
            expect_in_order(slow.taken())
        finally:
            slow.end()


@needs_tracer
def test_nothing_is_sent_in_vain_to_a_process_that_is_slow(scene):
    with nuisances.Burst(scene) as burst:
        wait_until(lambda: len(burst.slow.taken()) >= 3, "the process is at it")
        with system_calls(scene.tessd.pid) as calls:
            before = len(burst.slow.taken())
            time.sleep(2)
            taken = len(burst.slow.taken()) - before
        sent = calls["sendto"] + calls["sendmsg"]
        assert sent <= 2 * taken + 5, f"{sent} tries for {taken} commands: {calls}"
        assert sum(calls.values()) <= 40 * (taken + 5), f"{taken} commands: {calls}"


# Frames


def test_a_header_and_its_payload_in_two_writes_close_that_connection_after_100_ms(scene):
    with witnesses(scene, IpcClient, XcpClient):
        for _ in range(3):
            with XcpClient() as client:
                client.send(wire.header(0, 0, 1, 3))
                nuisances.wait_taken(client.socket)
                watch = Stopwatch()
                client.send(b"*\r\n")
                client.expect_close()
                assert watch.seconds() >= 0.09, f"closed after {watch.seconds():.3f} s"
        scene.tessd.wait_log(6001, "XCP socket connection closed.  Active connections = 1", count=3)


def test_half_a_header_and_hundreds_of_replies_do_not_hide_a_stop_message(scene):
    with witnesses(scene, IpcClient) as asking, scene.process() as process, nuisances.HalfHeaders(scene):
        process.register(b"ENC")
        asking[0].send(b"s3.ENC X\n")
        tag = process.expect_command(b"X").tag

        for first in range(0, 400, 100):  # what the client has not read counts against its socket
            for number in range(first, first + 100):
                process.reply(tag, b"%d\r\n" % number)
            if first == 300:
                process.send(wire.record(wire.STOP))
            asking[0].expect(b"".join(b"%d\r\n" % number for number in range(first, first + 100)))
        seconds = time_to_end(scene.tessd, process.wait_taken)
        assert seconds <= SERVED_AFTER_STOP + AT_ONCE * settings.SLOW, f"ended {seconds:.2f} s after a stop message"
    expect_whole_end(scene.tessd)


def send_frame_around_urgent_byte(whole: bytes, cut: int) -> None:
    for _ in range(10):
        with XcpClient() as client:
            client.expect_nothing_more()
            watch = Stopwatch()
            client.send(whole[:cut])
            with contextlib.suppress(BrokenPipeError):
                client.socket.send(b"!", socket.MSG_OOB)
                client.send(whole[cut:])
            if watch.seconds() < 0.05:  # else this process had to wait for a processor, longer than a header may take
                client.expect_frame(b"0\r\n\r\n")
                client.expect_nothing_more()
                return
    pytest.skip("this machine is too busy to send a frame in time")


def test_urgent_data_is_no_part_of_a_frame_and_wakes_nobody_again(scene):
    for cut in (0, 1, 8, 15):
        send_frame_around_urgent_byte(wire.frame(b"*\n"), cut)
    with XcpClient() as client:
        client.expect_nothing_more()
        client.socket.send(b"!", socket.MSG_OOB)
        if not settings.emulated() and not settings.sanitized():
            share = share_of_processor(scene.tessd, 1.5)
            assert share <= 0.05, f"{100 * share:.0f} % of a processor"
        for _ in range(5):  # one that comes before the last was taken would make an ordinary byte of that
            client.expect_nothing_more()
            client.socket.send(b"!", socket.MSG_OOB)
        client.expect_nothing_more()


# Telnet


LEAVERS = {
    "at once": nuisances.at_once,
    "greeted": nuisances.greeted,
    "named": TelnetClient.give_name,
    "logged in": TelnetClient.log_in,
}


@pytest.mark.parametrize("when", LEAVERS)
def test_clients_that_reset_behind_an_urgent_byte_are_gone_at_once_and_leave_room(scene, when):
    count = 10
    with witnesses(scene, IpcClient):
        for _ in range(count):
            nuisances.leave_urgently(LEAVERS[when])
        scene.tessd.wait_log(*closed(0), count=1)
        wait_until(lambda: not telnet_sockets(scene.tessd), "none of them is left")
        if not settings.emulated() and not settings.sanitized():
            share = share_of_processor(scene.tessd, 1)
            assert share <= 0.05, f"{100 * share:.0f} % of a processor"
        with contextlib.ExitStack() as stack:
            clients = [stack.enter_context(TelnetClient()) for _ in range(10)]
            for client in clients:
                client.give_name()


def test_ten_that_reset_behind_an_urgent_byte_together_are_gone_at_once(scene):
    clients = [TelnetClient() for _ in range(10)]
    for client in clients:
        client.log_in()
    for client in clients:
        client.socket.send(b"!", socket.MSG_OOB)
    for client in clients:
        client.reset()
    scene.tessd.wait_log(*closed(0))
    with TelnetClient() as client:
        client.log_in()


def telnet_sockets(tessd: Daemon) -> list[str]:
    """Those of the daemon that are connected, or were."""
    held = set(proc.descriptors(tessd.pid).values())
    with open("/proc/net/tcp", encoding="ascii") as table:
        rows = [line.split() for line in table]
    listening = {f"socket:[{row[9]}]" for row in rows if row[3] == "0A"}
    local = set()
    for kind in ("unix", "tcp"):
        with open(f"/proc/net/{kind}", encoding="ascii", errors="replace") as table:
            inode = 6 if kind == "unix" else 9
            for line in table.read().splitlines()[1:]:
                if kind == "unix" or line.split()[3] == "0A":
                    local.add(f"socket:[{line.split()[inode]}]")
    return sorted(name for name in held if name.startswith("socket:") and name not in local | listening)


def test_silent_clients_are_greeted_together(scene):
    with witnesses(scene, IpcClient) as asking, contextlib.ExitStack() as stack:
        watch = Stopwatch()
        clients = [stack.enter_context(TelnetClient()) for _ in range(10)]
        expect_prompt(ask(scene.tessd, asking, 0.7))
        for client in clients:
            client.expect(GREETING)
        # One after the other they would take ten seconds.
        assert 1.0 <= watch.seconds() < 5, f"greeted after {watch.seconds():.2f} s"


def test_a_client_that_does_not_answer_the_echo_switch_waits_alone(scene):
    with witnesses(scene, IpcClient) as asking, LinemodeClient() as client:
        client.negotiate()
        client.send(b"alice\r\n")
        client.expect(WILL_ECHO)
        watch = Stopwatch()
        expect_prompt(ask(scene.tessd, asking, 0.4))
        client.send(IAC + NOP + b"x")
        expect_prompt(ask(scene.tessd, asking, 0.4))
        client.expect(PASSWORD_PROMPT)
        assert watch.seconds() >= 1.3, f"prompted after {watch.seconds():.2f} s"


def test_a_password_that_takes_long_to_look_at_is_looked_at_for_its_client_alone(scene):
    with witnesses(scene, IpcClient) as asking, TelnetClient() as client, TelnetClient() as other:
        other.log_in()
        client.give_name(accounts.PATIENT.name)
        client.send(accounts.PATIENT.password + b"\r\n")
        answers = ask(scene.tessd, [*asking, other], 0.5)
        expect_prompt(answers)
        client.expect_connected(accounts.PATIENT.name, within=60)
        client.expect_nothing_more()


def test_a_client_that_leaves_while_its_password_is_looked_at_is_missed_by_nobody(scene):
    with witnesses(scene, IpcClient) as asking:
        for _ in range(3):
            client = TelnetClient()
            client.give_name(accounts.PATIENT.name)
            client.send(accounts.PATIENT.password + b"\r\n")
            ask(scene.tessd, asking, 0.1)
            client.reset()
        expect_prompt(ask(scene.tessd, asking, 0.5))
        with TelnetClient() as next_client:
            next_client.log_in(within=60)
            next_client.expect_nothing_more()


# The serial line


@pytest.fixture
def stalled(scene: Scene) -> int:
    """Bytes that are in the line before anybody of the daemon's side wants to write."""
    return scene.line.fill()


TEXT = 8000
KEPT = 8  # texts of that length in 64 KiB, with room for what the line may still take by itself


def test_what_the_line_does_not_take_is_kept_up_to_64_kib_and_dropped_as_whole_texts_behind_that(scene, stalled):
    texts = [b"%03d" % number + b"." * (TEXT - 3) for number in range(KEPT + 3)]
    with witnesses(scene, IpcClient) as asking, scene.process() as process:
        for text in texts:
            process.reply(wire.FIRST_COM2_ID, text)
        process.expect_daemon_done()
        scene.tessd.wait_log(*OUTPUT_DROPPED, count=3)
        expect_prompt(ask(scene.tessd, asking, 0.5))
        assert scene.tessd.entries().count(OUTPUT_DROPPED) == 3, scene.tessd.log_text()
        scene.line.expect(b"." * stalled + b"".join(texts[:KEPT]))
        process.reply(wire.FIRST_COM2_ID, b"|end")
        scene.line.expect(b"|end")


def test_a_write_to_a_stalled_line_is_answered_after_two_seconds_and_others_before(scene, stalled):
    with witnesses(scene, IpcClient) as asking, scene.process() as process, scene.process() as other:
        watch = Stopwatch()
        for tag in (1, 2):
            process.send(wire.record(wire.COM2_WRITE, b"menu", tag=tag, length=4))
        other.register(b"ENC")
        asking[0].send(b"s3.ENC X\n")
        other.reply(other.expect_command(b"X").tag, b"5\r\n")
        asking[0].expect(b"5\r\n")
        assert process.waiting() == [], "answered although the line has taken nothing"
        for tag in (1, 2):
            got = process.receive(within=10)
            assert (got.kind, got.tag, got.length_word, got.text) == (wire.REPLY, tag, 1, b""), got
        assert watch.seconds() >= 2, f"given up after {watch.seconds():.2f} s"
        scene.line.expect(b"." * stalled)
        process.send(wire.record(wire.COM2_WRITE, b"again", tag=3, length=5))
        scene.line.expect(b"again")
        got = process.receive()
        assert (got.tag, got.length_word) == (3, 0), got


def test_a_line_that_takes_a_little_now_and_then_gets_a_long_write_whole(scene, stalled):
    """As long as it takes something within each two seconds, nobody gives up."""
    text = bytes(65 + number % 26 for number in range(8176))
    with scene.process() as process:
        process.send(wire.record(wire.COM2_WRITE, text, tag=1, length=len(text)))
        watch = Stopwatch()
        received = scene.line.receive(stalled // 2)
        while watch.seconds() < 2.5 and len(received) < stalled + len(text) - 2000:
            received += scene.line.receive(100)
            time.sleep(0.05)
        received += scene.line.receive(stalled + len(text) - len(received), within=10)
        assert received == b"." * stalled + text, f"{len(received)} of {stalled + len(text)} bytes"
        assert process.receive().length_word == 0


@pytest.mark.parametrize("typed_after", [1.05, 1.3, 1.5, 1.7, 1.9])
def test_a_line_typed_in_the_second_second_of_a_mute_is_never_executed(scene, typed_after):
    with scene.process() as process:
        process.register(b"ENC")
        for _ in range(5):
            watch = Stopwatch()
            process.send(wire.record(wire.COM2_WRITE, b"menu", length=4))
            assert process.receive().length_word == 0
            scene.line.expect(b"menu")
            time.sleep(max(0.0, typed_after - watch.seconds()))
            scene.line.type(b"s3.ENC MUTED\r")
            in_time = watch.seconds() < MUTE_SECONDS  # on a busy machine the mute may be over by now
            time.sleep(max(0.0, MUTE_SECONDS + 0.7 - watch.seconds()))
            scene.line.type(b"s3.ENC HEARD\r")
            if in_time:
                process.expect_command(b"HEARD")
                assert process.waiting() == []
                return
            process.waiting()
    pytest.skip("a line is not typed in time on this machine")


# Long work


@pytest.mark.parametrize("row", [nuisances.TypedReinitialisation, nuisances.ReinitialisationByMessage])
def test_a_second_reinitialisation_is_refused_while_one_runs(scene, row):
    with row(scene), scene.process() as process, XcpClient() as framed, IpcClient() as client:
        framed.ask(b"RESET REINIT s3", RESET_ERROR)
        client.ask(b"RESET REINIT s3", RESET_ERROR)
        process.send(wire.record(wire.RESET, b"RESET REINIT s3" + bytes(60)))
        assert process.receive().line == RESET_MESSAGE_ERROR
        with open(nuisances.REINIT_STARTED, encoding="ascii") as started:
            assert len(started.readlines()) == 1, "it runs more than once"
        process.register(b"ENC")  # messages are served
        client.send(b"s3.ENC X\n")
        process.expect_command(b"X")
        expect_end_at_once(scene.tessd)


@pytest.mark.parametrize("kind", ["typed", "message"])
def test_a_reinitialisation_that_fails_is_answered_when_it_has_ended(scene, kind):
    nuisances.write_reinit_program("sleep 1\nexit 3")
    with witnesses(scene, XcpClient) as asking, scene.process() as process, IpcClient() as client:
        watch = Stopwatch()
        if kind == "typed":
            client.send(b"RESET REINIT s3\n*\n")
        else:
            process.send(wire.record(wire.RESET, b"RESET REINIT s3" + bytes(60)))
        expect_prompt(ask(scene.tessd, asking, 0.5))
        if kind == "typed":
            client.expect(RESET_ERROR + b"0\r\n\r\n")  # its next line waits its turn
        else:
            assert process.receive().line == RESET_MESSAGE_ERROR
        assert watch.seconds() >= 1, f"answered after {watch.seconds():.2f} s"


@pytest.mark.parametrize("kind", ["typed", "message"])
@pytest.mark.parametrize("stop", ["signal", "stop message"])
def test_a_stop_does_not_wait_for_a_reinitialisation_and_no_restart_follows(scene, kind, stop):
    """A restart would end the test itself."""
    nuisances.write_reinit_program("trap '' HUP TERM; sleep 4; echo ended >/run/reinit.ended")
    row = nuisances.TypedReinitialisation if kind == "typed" else nuisances.ReinitialisationByMessage
    with row(scene):
        if stop == "signal":
            expect_end_at_once(scene.tessd)
        else:
            seconds = time_to_end(scene.tessd, send_stop_message)
            assert seconds <= SERVED_AFTER_STOP + AT_ONCE * settings.SLOW, f"ended after {seconds:.2f} s"
        expect_whole_end(scene.tessd)
        wait_until(lambda: os.path.exists("/run/reinit.ended") or not reinitialising(), "the program has ended", 10)
        time.sleep(0.3)  # for a copy that would restart the device to show
        assert not copies(), "somebody is left to restart the device"


def reinitialising() -> bool:
    return any(nuisances.REINIT_PROGRAM in line for line in command_lines())


def copies() -> list[str]:
    return [line for line in command_lines() if settings.TESSD in line.split("\0")]


def command_lines() -> list[str]:
    lines = []
    for entry in os.listdir("/proc"):
        with contextlib.suppress(OSError):
            if entry.isdigit():
                with open(f"/proc/{entry}/cmdline", encoding="utf-8", errors="replace") as file:
                    lines.append(file.read())
    return lines


# Descriptors


@pytest.mark.skipif(settings.sanitized(), reason="the sanitizer needs descriptors of its own to look at memory")
def test_without_descriptors_nothing_is_logged_and_no_number_spent(scene):
    """And who waited is served as soon as there are some again."""
    tessd = scene.tessd
    with witnesses(scene, IpcClient) as asking, scene.process() as process:
        process.register(b"ENC")
        before = tessd.entries()[:]
        with nuisances.without_descriptors(tessd.pid):
            with contextlib.ExitStack() as stack:
                waiting = [stack.enter_context(kind()) for kind in (IpcClient, XcpClient, TelnetClient)]
                answers = ask(tessd, asking, 2)
                expect_prompt(answers)
                expect_rest(answers)
                assert tessd.entries() == before, f"{len(tessd.entries()) - len(before)} log lines"
                kept = stack.pop_all()
        with kept:
            ipc, xcp, telnet = waiting
            ipc.send(b"s3.ENC A\n")
            process.expect_command(b"A", tag=wire.FIRST_IPC_ID + wire.ID_STEP)
            xcp.send_frame(b"s3.ENC B\n")
            process.expect_command(b"B", tag=wire.FIRST_XCP_ID)
            telnet.log_in()
            telnet.send(b"s3.ENC C\r\n")
            process.expect_command(b"C", tag=wire.FIRST_TELNET_ID)
            tessd.wait_log(*opened(1))


@needs_tracer
def test_a_port_without_descriptors_is_asked_once_a_second(scene):
    with witnesses(scene, IpcClient) as asking, nuisances.NoDescriptors(scene):
        with system_calls(scene.tessd.pid) as calls:
            ask(scene.tessd, asking, 3)
        tried = calls["accept"] + calls["accept4"]
        assert 3 <= tried <= 3 * 5, f"{tried} tries to accept at three ports in three seconds"


# The log


def test_a_log_that_nobody_reads_loses_lines_and_says_how_many(set_scene):
    scene = set_scene(with_log_pipe=True)
    tessd, pipe = scene.tessd, scene.log_pipe
    with witnesses(scene, IpcClient) as asking:
        pipe.fill()
        idle = proc.descriptors(tessd.pid)
        visits = 12
        for _ in range(visits):
            with XcpClient() as client:
                client.expect_nothing_more()
        wait_until(lambda: proc.descriptors(tessd.pid) == idle, "all of them are gone")
        expect_prompt(ask(tessd, asking, 0.5))
        pipe.read()
        before = len(tessd.entries())
        with XcpClient() as client:
            client.expect_nothing_more()
        pipe.read_until((6001, "XCP socket connection closed.  Active connections = 0"))
        said = tessd.entries()[before:]
        assert said[0] == (250008, f"{2 * visits} log lines were lost"), tessd.log_text()
        assert said[1][0] == 36106 and len(said) == 3, tessd.log_text()
        seconds = end_by_signal(tessd)
        assert seconds <= AT_ONCE * settings.SLOW, f"ended {seconds:.2f} s after SIGTERM"
        pipe.read()
    expect_whole_end(tessd)


def test_a_signal_is_logged_without_waiting_for_the_log(set_scene):
    scene = set_scene(with_log_pipe=True)
    with witnesses(scene, IpcClient) as asking:
        scene.log_pipe.fill()
        for _ in range(20):
            scene.tessd.signal(signal.SIGCHLD)
            asking[0].expect_nothing_more()
        expect_end_at_once(scene.tessd)
        scene.log_pipe.read()
    assert NORMAL_EXIT not in scene.tessd.entries()
    scene.tessd.expect_end(0, 0.1)
    expect_no_files()


# The measure


def test_a_held_daemon_is_told_from_a_busy_machine(scene):
    """Guards the measure itself: a daemon that does nothing is to blame."""
    with witnesses(scene, IpcClient) as asking:
        scene.tessd.hold()
        pid = os.fork()
        if pid == 0:
            time.sleep(0.6 * settings.SLOW)
            scene.tessd.release()
            os._exit(0)
        answers = ask(scene.tessd, asking, 0.1)
        os.waitpid(pid, 0)
        with pytest.raises(AssertionError):
            expect_prompt(answers)
