"""Many clients, slow clients, processes that do not read, and who may have to wait for whom."""

from __future__ import annotations

import contextlib
import threading

import pytest

from harness import proc, settings, wire
from harness.clients import IpcClient, XcpClient
from harness.queue_process import AnsweringProcess, QueueProcess
from harness.waiting import Stopwatch, wait_until

NOBODY = b"?\r\n"
QUEUE_DEPTH = 10  # net.unix.max_dgram_qlen
MOST_TURNS = 20  # of another client until one is answered; it needs two, and a process in between
QUEUE_HOLDS = QUEUE_DEPTH + 1  # the kernel takes one more than it says


@pytest.fixture(autouse=True)
def kernel_default_depth():
    with open("/proc/sys/net/unix/max_dgram_qlen", encoding="ascii") as depth:
        assert int(depth.read()) == QUEUE_DEPTH


class Clients(contextlib.ExitStack):
    """Runs one function a client in threads of their own and reports what failed in any."""

    def run(self, *jobs) -> None:
        errors: list[BaseException] = []

        def guarded(job) -> None:
            try:
                job()
            except BaseException as error:  # every failure of a thread is the test's
                errors.append(error)

        threads = [threading.Thread(target=guarded, args=(job,), daemon=True) for job in jobs]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        if errors:
            raise errors[0]


def test_bursts_of_ten_clients_are_all_answered_in_order(tessd):
    rounds, burst = 20, 50

    def talk(client: IpcClient, name: int) -> None:
        for round_number in range(rounds):
            words = [b"c%d-%d-%d" % (name, round_number, number) for number in range(burst)]
            data = b"".join(b"s3.ENC %s\n" % word for word in words)
            assert len(data) < wire.FRAME_BUFFER, "a burst must stay below the buffer"
            client.send(data)
            client.expect(b"".join(word + b"\r\n" for word in words), within=20)

    with AnsweringProcess(2001, b"ENC", lambda command: command + b"\r\n") as process, Clients() as clients:
        members = [clients.enter_context(IpcClient()) for _ in range(10)]
        clients.run(*(lambda c=client, n=number: talk(c, n) for number, client in enumerate(members)))
        assert process.answered == 10 * rounds * burst
        for client in members:
            client.expect_nothing_more()


def test_bursts_to_several_processes_at_once_are_all_answered(tessd):
    """The bursts of six clients go to three processes each; every process answers every command."""
    rounds, burst = 10, 20

    def talk(client: IpcClient) -> None:
        for _ in range(rounds):
            client.send(b"X\n" * burst)
            answers = client.receive(3 * 3 * burst, within=20)
            assert sorted(answers.split(b"\n")[:-1]) == sorted([b"p1", b"p2", b"p3"] * burst), answers

    with Clients() as clients:
        for number in (1, 2, 3):
            clients.enter_context(AnsweringProcess(2000 + number, b"P%d" % number, lambda _command, n=number: b"p%d\n" % n))
        members = [clients.enter_context(IpcClient()) for _ in range(6)]
        clients.run(*(lambda c=client: talk(c) for client in members))
        for client in members:
            client.expect_nothing_more()


def test_answers_of_thousands_of_interleaved_commands_never_reach_the_other_client(tessd):
    rounds, burst = 120, 25  # 3000 commands a client

    def talk_ipc(client: IpcClient, name: bytes) -> None:
        for round_number in range(rounds):
            words = [b"%s%d.%d" % (name, round_number, number) for number in range(burst)]
            client.send(b"".join(b"s3.ENC %s\n" % word for word in words))
            client.expect(b"".join(word + b"\r\n" for word in words), within=20)

    def talk_xcp(client: XcpClient) -> None:
        for round_number in range(rounds):
            words = [b"x%d.%d" % (round_number, number) for number in range(burst)]
            for number, word in enumerate(words):
                client.send_frame(b"s3.ENC %s\n" % word, tag=number)
            for number, word in enumerate(words):
                client.expect_frame(word + b"\r\n", tag=number, within=20)

    with AnsweringProcess(2001, b"ENC", lambda command: command + b"\r\n"), Clients() as clients:
        first, second = (clients.enter_context(IpcClient()) for _ in range(2))
        framed = clients.enter_context(XcpClient())
        clients.run(lambda: talk_ipc(first, b"a"), lambda: talk_ipc(second, b"b"), lambda: talk_xcp(framed))
        for client in (first, second, framed):
            client.expect_nothing_more()


def test_a_process_that_does_not_read_costs_one_wait(tessd):
    with QueueProcess(2001) as stuck, AnsweringProcess(2002, b"OK", lambda _command: b"ok\r\n"):
        stuck.register(b"STUCK")
        with IpcClient() as client, IpcClient() as other, XcpClient() as framed:
            client.send(b"s3.STUCK X\n" * QUEUE_HOLDS)
            client.expect_nothing_more()
            watch = Stopwatch()
            client.ask(b"s3.STUCK X", NOBODY)
            first = watch.seconds()
            assert first >= 0.25, f"the first refusal took {first:.3f} s"
            watch = Stopwatch()
            for _ in range(30):
                client.ask(b"s3.STUCK X", NOBODY)
                other.ask(b"s3.OK X", b"ok\r\n")
                framed.ask(b"s3.OK X", b"ok\r\n")
            rest = watch.seconds()
            # A wait for each of the 30 would take twice as long.
            assert rest < 30 * 0.25 / 2 * settings.SLOW, f"90 commands after it took {rest:.3f} s"
            # Room again: commands get through again.
            for _ in range(QUEUE_HOLDS):
                stuck.expect_command(b"X")
            client.send(b"s3.STUCK AGAIN\n")
            stuck.expect_command(b"AGAIN")
            client.expect_nothing_more()


def test_a_process_that_does_not_read_holds_up_broadcasts_once(tessd):
    """The commands that reach everybody reach the others whether or not one of them is full."""
    with QueueProcess(2001) as stuck, QueueProcess(2002) as healthy, IpcClient() as client:
        stuck.register(b"STUCK")
        healthy.register(b"OK")
        watch = Stopwatch()
        for number in range(QUEUE_HOLDS + 30):
            client.send(b"%d\n" % number)
            healthy.expect_command(b"%d" % number)
        # A wait for each of the 30 would take twice as long.
        assert watch.seconds() < 30 * 0.25 / 2 * settings.SLOW, f"took {watch.seconds():.3f} s"
        client.expect_nothing_more()
        assert len(stuck.waiting()) == QUEUE_HOLDS


def test_the_daemon_waits_for_a_full_queue_without_using_the_processor(tessd):
    with QueueProcess(2001) as stuck, IpcClient() as client:
        stuck.register(b"STUCK")
        before = proc.cpu_seconds(tessd.pid)
        client.send(b"s3.STUCK X\n" * (QUEUE_HOLDS + 1))
        client.expect(NOBODY)
        used = proc.cpu_seconds(tessd.pid) - before
        assert used <= 0.05 * settings.SLOW, f"{used:.2f} s of processor time"


def test_a_process_that_reads_while_the_daemon_waits_gets_the_command(tessd):
    with QueueProcess(2001) as slow, IpcClient() as client:
        slow.register(b"SLOW")
        count = QUEUE_HOLDS + 40
        client.send(b"s3.SLOW X\n" * count)
        for _ in range(count):
            slow.expect_command(b"X")
        client.expect_nothing_more()


def test_two_stuck_processes_shut_out_nobody(tessd):
    """All that lies unread in full queues counts against the daemon's own send buffer; it must be large enough."""
    body = b"x" * 1000
    with Clients() as clients:
        stuck = [clients.enter_context(QueueProcess(3000 + number)) for number in range(12)]
        for number, process in enumerate(stuck):
            process.register(b"STUCK%d" % number)
        clients.enter_context(AnsweringProcess(2002, b"OK", lambda command: command[:1] + b"\r\n"))
        client = clients.enter_context(IpcClient())
        for number in range(len(stuck)):
            for _ in range(QUEUE_HOLDS):
                client.send(b"s3.STUCK%d " % number + body + b"\n")
                client.expect_nothing_more()
        for _ in range(20):
            client.ask(b"s3.OK " + body, b"x\r\n")


def test_a_client_that_never_reads_holds_nobody_up(tessd):
    with AnsweringProcess(2001, b"ENC", lambda command: command * 40 + b"\r\n") as process, Clients() as clients:
        deaf = [clients.enter_context(IpcClient()), clients.enter_context(IpcClient())]
        deaf_framed = clients.enter_context(XcpClient())
        client = clients.enter_context(IpcClient())
        sent = 0
        for _ in range(60):
            for each in deaf:
                each.send(b"s3.ENC 0123456789\n" * 20)
            deaf_framed.send_frame(b"s3.ENC 0123456789\n\n" * 20)
            sent += 60
            wait_until(lambda: process.answered >= sent, f"{sent} commands are answered", within=20)
            client.ask(b"s3.ENC x", b"x" * 40 + b"\r\n")
            sent += 1


def test_a_client_that_left_with_answers_on_the_way_does_not_disturb_the_next(tessd):
    with QueueProcess(2001) as process, XcpClient() as witness:
        process.register(b"ENC")
        witness.expect_nothing_more()
        for _ in range(30):
            with IpcClient() as leaving:
                leaving.send(b"s3.ENC X\n" * 5)
                tags = [process.expect_command(b"X").tag for _ in range(5)]
            with IpcClient() as next_client:
                next_client.expect_nothing_more()
                for tag in tags:
                    process.reply(tag, b"too late")
                process.expect_daemon_done()
                next_client.expect_nothing_more()
        witness.expect_nothing_more()


def test_clients_that_come_and_go_all_the_time_are_served(tessd):
    def visit(opened) -> None:
        for number in range(60):
            with opened() as client:
                client.ask(b"s3.ENC %d" % number, b"%d\r\n" % number)

    before = None
    with AnsweringProcess(2001, b"ENC", lambda command: command + b"\r\n"), Clients() as clients:
        before = proc.descriptors(tessd.pid)
        clients.run(*[lambda: visit(IpcClient)] * 4, *[lambda: visit(XcpClient)] * 4)
    wait_until(lambda: proc.descriptors(tessd.pid) == before, f"the descriptors are {before} again")


@pytest.mark.parametrize("opened", [IpcClient, XcpClient])
def test_close_all_while_clients_come_and_go_keeps_count_of_them(tessd, opened):
    """One thread closes connections while the other admits new ones; afterwards exactly ten have room."""
    ending = threading.Event()

    def come_and_go() -> None:
        while not ending.is_set():
            with contextlib.suppress(OSError), opened() as client:
                client.socket.settimeout(0.5)
                client.socket.recv(1)  # until the daemon closes

    def close_all() -> None:
        try:
            with QueueProcess(2001) as process:
                for _ in range(round(300 / settings.SLOW)):
                    process.send(wire.record(wire.CLOSE_ALL))
                    process.expect_daemon_done()
        finally:
            ending.set()

    with Clients() as clients:
        clients.run(close_all, *[come_and_go] * 3)

    def room_for_ten() -> bool:
        with contextlib.ExitStack() as stack:
            try:
                for _ in range(10):
                    stack.enter_context(opened()).expect_nothing_more()
                with opened() as eleventh:
                    eleventh.expect_close()
            except (AssertionError, BrokenPipeError):
                return False  # those that left may not have been noticed yet
        return True

    wait_until(room_for_ten, "there is room for ten clients and for no more")


def test_replies_are_served_while_commands_keep_the_service_thread_busy(tessd):
    """Commands without end from several clients must not starve the replies."""
    ending = threading.Event()
    asked, others = 100, 4
    bursts = [0] * others

    def press(client: IpcClient, number: int) -> None:
        while not ending.is_set():
            client.send(b"*\n" * 100)
            client.expect(b"0\r\n\r\n" * 100, within=20)
            bursts[number] += 1

    def ask(client: IpcClient) -> None:
        try:
            for number in range(asked):
                client.ask(b"s3.ENC %d" % number, b"%d\r\n" % number, within=20)
            served = sum(bursts)
            assert served < asked * others * MOST_TURNS, f"{served} bursts of the others during {asked} answers"
        finally:
            ending.set()

    with AnsweringProcess(2001, b"ENC", lambda command: command + b"\r\n"), Clients() as clients:
        members = [clients.enter_context(IpcClient()) for _ in range(5)]
        pressing = (lambda c=client, n=number: press(c, n) for number, client in enumerate(members[1:]))
        clients.run(*pressing, lambda: ask(members[0]))
