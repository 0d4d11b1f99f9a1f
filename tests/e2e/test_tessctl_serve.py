"""tessctl serve: a program becomes a process of the device; tessctl listen: what such a process gets to see."""

from __future__ import annotations

import contextlib
import os
import signal
import struct
import subprocess

import pytest

from harness import settings, tessctl, wire
from harness.clients import IpcClient, XcpClient
from harness.manager import ServiceManager
from harness.queue_process import QueueProcess
from harness.tessctl import DONE, NO_ANSWER, NO_CONNECTION, REFUSED, WRONG_USAGE
from harness.waiting import Stopwatch, wait_until

pytestmark = tessctl.needs_tessctl

NOT_TAKEN = b"?\r\n"


def test_each_command_is_a_run_of_the_program(tessd):
    with tessctl.serving("UP", "tr", "a-z", "A-Z"), IpcClient() as client:
        client.ask(b"s3.UP hello", b"HELLO\r\n\r\n")
        client.ask(b"s3.up one|s3.UP two", b"ONE\r\n\r\nTWO\r\n\r\n")
        client.ask(b"anything", b"ANYTHING\r\n\r\n")


def test_a_thousand_commands_of_a_script_are_answered_in_order(tessd):
    numbers = [str(number) for number in range(1000)]
    with tessctl.serving("CAT", "cat"):
        tessctl.run("send", "--wait", "30", lines="".join(f"s3.CAT {n}\n" for n in numbers), within=120).expect(
            DONE, "".join(f"{n}\n" for n in numbers), ""
        )


def test_a_burst_waits_its_turn(tessd):
    with tessctl.serving("CAT", "cat"), XcpClient() as client:
        for number in range(200):
            client.send_frame(b"s3.CAT %d" % number, tag=number)
        for number in range(200):
            client.expect_frame(b"%d\r\n\r\n" % number, tag=number, within=20)


@pytest.mark.parametrize(
    "script, answer",
    [
        ("exit 3", b"Error: sh ended with status 3\r\n\r\n"),
        ("echo half; kill -9 $$", b"half\r\nError: sh was ended by signal 9\r\n\r\n"),
        ("exec sleep 1000", b"Error: sh did not end within 0.5 s\r\n\r\n"),
        ("echo begun; sleep 1000", b"begun\r\nError: sh did not end within 0.5 s\r\n\r\n"),
        ("true", b"OK\r\n\r\n"),
        ("echo '?'", b"?\r\n"),
        ("printf 'a\\n\\nb'", b"a\r\n \r\nb\r\n\r\n"),
    ],
)
def test_what_becomes_of_the_program_is_the_answer(tessd, script, answer):
    with tessctl.serving("P", "sh", "-c", script, options=("--timeout", "0.5")), IpcClient() as client:
        client.ask(b"s3.P go", answer, within=10)
        client.ask(b"*", b"0\r\n\r\n")
        client.ask(b"s3.P again", answer, within=10)


def test_a_program_gets_its_arguments_as_they_stand(tessd):
    with tessctl.serving("UP", "tr", "[:lower:]", "[:upper:]"), IpcClient() as client:
        client.ask(b"s3.UP hello", b"HELLO\r\n\r\n")
    arguments = ["", "[a,b]", "{}", "%%", "--", "++", "-h", "\x01", "[", ""]
    with tessctl.serving("P", "sh", "-c", 'for each; do printf "<%s>" "$each"; done', "sh", *arguments), IpcClient() as client:
        client.ask(b"s3.P go", "".join(f"<{argument}>" for argument in arguments).encode() + b"\r\n\r\n")


@tessctl.needs_tracer
def test_a_program_that_prints_without_end_is_stopped_at_its_limits(tessd):
    launcher = tessctl.tampered("read", "delay_exit=1000")  # there is always more when it comes back
    with tessctl.serving("P", "yes", options=("--timeout", "0.5"), launcher=launcher):
        output = tessctl.run("send", "s3.P go").expect(REFUSED, errors="").output
        assert output == "y\n" * 32768 + "Error: yes did not end within 0.5 s\n", output[-100:]
    with tessctl.serving("Q", "sh", "-c", "yes & sleep 0.5", options=("--timeout", "100"), launcher=launcher):
        output = tessctl.run("send", "s3.Q go").expect(REFUSED, errors="").output
        assert output == "y\n" * 32768 + "Error: sh printed more than 65536 bytes\n", output[-100:]


@tessctl.needs_tracer
def test_an_old_kernel_that_has_no_descriptors_for_processes_will_do(tessd):
    launcher = tessctl.tampered("pidfd_open", "error=ENOSYS")
    with tessctl.serving(
        "CAT", "sh", "-c", "cat; exit 3", options=("--timeout", "100"), launcher=launcher
    ), IpcClient() as client:
        client.ask(b"s3.CAT X", b"X\r\nError: sh ended with status 3\r\n\r\n")


def test_a_program_that_cannot_be_started_is_a_visible_answer(tessd):
    with tessctl.serving("P", "/nowhere/at-all"), IpcClient() as client:
        client.ask(b"s3.P go", b"Error: /nowhere/at-all: No such file or directory\r\n\r\n")


@pytest.mark.parametrize("port", ["ipc", "xcp"])
def test_twenty_thousand_bytes_arrive_whole(tessd, port):
    lines = "".join(f"line {number:04} {'x' * 88}\n" for number in range(210))
    assert len(lines) > 20_000
    with open("/tmp/long", "w", encoding="ascii") as file:
        file.write(lines)
    with tessctl.serving("LONG", "cat", "/tmp/long"):
        tessctl.run("send", "-p", port, "s3.LONG go").expect(DONE, lines, "")


def test_what_is_printed_beyond_65536_bytes_is_thrown_away_and_said(tessd):
    script = "head -c 100000 /dev/zero | tr '\\0' x | fold -w 79"
    with tessctl.serving("LONG", "sh", "-c", script):
        result = tessctl.run("send", "s3.LONG go").expect(REFUSED, errors="")
        assert result.output.endswith("\nError: sh printed more than 65536 bytes\n")
        assert len(result.output) == 65536 + 1 + len("Error: sh printed more than 65536 bytes\n")


def test_only_so_many_commands_wait(tessd):
    """The program is stopped for good by the first command; the daemon's own queue takes the rest meanwhile."""
    with tessctl.serving("SLOW", "sleep", "1000", options=("--timeout", "1000")) as serve, XcpClient() as client:
        for number in range(1001):
            client.send_frame(b"s3.SLOW go", tag=number & 0xFFFF)
        client.send_frame(b"s3.SLOW go", tag=4711)
        client.expect_frame(b"Error: too many commands wait for SLOW\r\n\r\n", tag=4711, within=20)
        serve.kill()
        serve.wait()


def test_only_the_ports_asked_for_reach_it(tessd):
    with tessctl.serving("CAT", "cat", options=("--ports", "xcp,telnet")), IpcClient() as ipc, XcpClient() as xcp:
        ipc.ask(b"s3.CAT X", NOT_TAKEN)
        xcp.ask(b"s3.CAT X", b"X\r\n\r\n")


def test_it_has_the_address_asked_for(tessd):
    with tessctl.serving("CAT", "cat", options=("--address", "4242")) as serve:
        assert os.path.exists(f"{settings.QUEUE_DIR}/4242")
        assert "CAT is served at address 4242" in serve.errors()
        tessctl.run("serve", "DOG", "--address", "4242", "--", "cat").expect(
            NO_CONNECTION,
            "",
            f"tessctl: {settings.QUEUE_DIR}/4242: Address already in use: another process holds that address; choose another"
            " one with --address\n",
        )
    assert not os.path.exists(f"{settings.QUEUE_DIR}/4242"), "a clean end removes the queue"


def test_commands_that_come_before_the_answer_to_the_registration_are_served():
    with QueueProcess(1001) as daemon:
        command = [tessctl.PROGRAM, "serve", "CAT", "--address", "4242", "--", "cat"]
        serve = subprocess.Popen(command, stderr=subprocess.DEVNULL)
        assert daemon.receive().kind == wire.REGISTER
        for number in range(3):
            daemon.send(wire.record(wire.TEXT_KIND, b"%d\n\0" % number, tag=number), to=4242)
        daemon.send(wire.record(wire.REPLY, b"\0"), to=4242)
        for number in range(3):
            answer = daemon.receive()
            assert (answer.kind, answer.tag, answer.text) == (wire.REPLY, number, b"%d\r\n\r\n\0" % number), answer
        serve.kill()
        serve.wait()


def test_the_service_manager_is_told_once_it_is_registered():
    def confirm_registration(daemon: QueueProcess) -> None:
        assert daemon.receive().kind == wire.REGISTER
        manager.expect_nothing_yet()
        daemon.send(wire.record(wire.REPLY, b"Process register operation successful\0"), to=4242)

    command = [tessctl.PROGRAM, "serve", "CAT", "--address", "4242", "--", "cat"]
    with ServiceManager() as manager:
        with QueueProcess(1001) as daemon:
            serve = subprocess.Popen(command, stderr=subprocess.PIPE, text=True, env=os.environ | manager.ENVIRONMENT)
            confirm_registration(daemon)
            manager.expect(b"READY=1")
            assert serve.stderr.readline().startswith("tessctl: CAT is served")
        with QueueProcess(1001) as later:
            confirm_registration(later)
            assert serve.stderr.readline() == "tessctl: tessd was started anew, CAT has registered again\n"
            manager.expect_nothing_yet()
        serve.kill()
        serve.communicate()


def test_the_service_manager_is_not_told_of_a_name_that_was_refused(tessd):
    environment = os.environ | ServiceManager.ENVIRONMENT
    with ServiceManager() as manager, tessctl.serving("CAT", "cat"):
        tessctl.run("serve", "CAT", "--", "cat", env=environment).expect(REFUSED)
        manager.expect_nothing_yet()


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP], ids=["SIGTERM", "SIGINT", "SIGHUP"])
def test_at_the_end_it_answers_what_it_has_taken_and_unregisters(tessd, number):
    with tessctl.serving("SLOW", "sh", "-c", "sleep 0.3; echo done") as serve, XcpClient() as client, IpcClient() as ipc:
        client.send_frame(b"s3.SLOW a", tag=1)
        client.send_frame(b"s3.SLOW b", tag=2)
        client.expect_frame(b"done\r\n\r\n", tag=1)
        serve.send_signal(number)
        client.expect_frame(b"done\r\n\r\n", tag=2, within=10)
        assert serve.wait(10 * settings.SLOW) == DONE
        ipc.ask(b"s3.SLOW X", NOT_TAKEN)


def leave(serve: subprocess.Popen, number: int = signal.SIGTERM) -> None:
    """Waits until it has unregistered. A signal that comes sooner than this again counts as the same one."""
    watch = Stopwatch()
    serve.send_signal(number)
    with IpcClient() as client:
        wait_until(lambda: (client.send(b"s3.SLOW X\n"), client.receive(3, 0.1))[1] == NOT_TAKEN, "it has unregistered", 10)
    wait_until(lambda: watch.seconds() > 0.2, "the same signal does not count twice")


def slow_program(name: str) -> contextlib.AbstractContextManager[subprocess.Popen]:
    return tessctl.serving(name, "sh", "-c", "echo $$ >/tmp/running; echo half; exec sleep 1000", options=("--timeout", "1000"))


NO_LONGER = b"Error: SLOW is no longer served\r\n\r\n"


@pytest.mark.parametrize("first", [signal.SIGTERM, signal.SIGHUP], ids=["SIGTERM", "SIGHUP"])
def test_a_second_signal_ends_it_at_once(tessd, first):
    with slow_program("SLOW") as serve, XcpClient() as client:
        for tag in range(1, 4):
            client.send_frame(b"s3.SLOW go", tag=tag)
        wait_until(lambda: os.path.exists("/tmp/running") and os.path.getsize("/tmp/running"), "the program runs", 10)
        leave(serve, first)
        assert serve.poll() is None
        watch = Stopwatch()
        serve.send_signal(signal.SIGTERM)
        client.expect_frame(b"half\r\nError: sh was not waited for any longer\r\n\r\n", tag=1)
        client.expect_frame(NO_LONGER, tag=2)
        client.expect_frame(NO_LONGER, tag=3)
        assert serve.wait(10 * settings.SLOW) == DONE
        assert watch.seconds() < 5 * settings.SLOW
        with open("/tmp/running", encoding="ascii") as running:
            assert not os.path.exists(f"/proc/{int(running.read())}")
        assert os.listdir(settings.QUEUE_DIR) == ["1001"]


@pytest.mark.slow
def test_what_waits_at_the_end_is_answered_for_ten_seconds(tessd):
    with slow_program("SLOW") as serve, XcpClient() as client:
        client.send_frame(b"s3.SLOW go", tag=1)
        client.send_frame(b"s3.SLOW go", tag=2)
        wait_until(lambda: os.path.exists("/tmp/running"), "the program runs", 10)
        watch = Stopwatch()
        serve.terminate()
        client.expect_frame(b"half\r\nError: sh was not waited for any longer\r\n\r\n", tag=1, within=20)
        client.expect_frame(NO_LONGER, tag=2)
        assert watch.seconds() >= 10
        assert serve.wait(10 * settings.SLOW) == DONE


def test_whoever_hangs_up_does_not_end_what_runs_under_nohup(tessd):
    with tessctl.serving("CAT", "cat", launcher=("nohup",)) as serve, IpcClient() as client:
        serve.send_signal(signal.SIGHUP)
        client.ask(b"s3.CAT X", b"X\r\n\r\n")
        with pytest.raises(subprocess.TimeoutExpired):
            serve.wait(1.5)
        client.ask(b"s3.CAT X", b"X\r\n\r\n")


def test_it_registers_again_at_a_daemon_that_was_started_anew(start_tessd):
    tessd = start_tessd()
    with tessctl.serving("CAT", "cat") as serve:
        tessd.stop()
        tessd = start_tessd()
        wait_until(lambda: "CAT has registered again" in serve.errors(), "it registers again", 10)
        with IpcClient() as client:
            client.ask(b"s3.CAT X", b"X\r\n\r\n")


# Who has the name

TAKEN = "tessctl: CAT is taken: another tessctl serves it or listens under it; "


def test_a_name_that_is_taken_is_not_taken_over_unasked(tessd):
    with tessctl.serving("CAT", "cat") as serve, IpcClient() as client:
        said = TAKEN + "--take-over takes its commands until this one ends\n"
        tessctl.run("listen", "CAT").expect(REFUSED, "", said)
        tessctl.run("serve", "CAT", "--", "true").expect(REFUSED, "", TAKEN + "end that one first\n")
        client.ask(b"s3.CAT X", b"X\r\n\r\n")
        with tessctl.running("listen", "cat", until="listening as cat"):  # another name to tessd, too
            pass
        assert "taken" not in serve.errors(), serve.errors()
    with tessctl.running("listen", "CAT", until="listening as CAT"):
        tessctl.run("serve", "CAT", "--", "true").expect(REFUSED, "", TAKEN + "end that one first\n")


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL], ids=["SIGTERM", "SIGKILL"])
def test_a_name_that_was_taken_over_is_served_again_afterwards(tessd, number):
    with tessctl.serving("CAT", "cat") as serve, IpcClient() as client:
        listen = subprocess.Popen(
            [tessctl.PROGRAM, "listen", "CAT", "--take-over"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True
        )
        assert listen.stderr.readline().startswith("tessctl: listening as CAT")
        over = "tessctl: CAT was taken over by 'tessctl listen --take-over': it gets no commands until that has ended\n"
        wait_until(lambda: over in serve.errors(), "it says that it was taken over", 10)
        client.send(b"s3.CAT heard\n")
        assert listen.stdout.readline().endswith('"heard\\n"\n')
        listen.send_signal(number)
        listen.communicate(timeout=10 * settings.SLOW)
        back = "tessctl: CAT is back: 'tessctl listen --take-over' has ended\n"
        wait_until(lambda: back in serve.errors(), "it says that it is back", 10)
        client.ask(b"s3.CAT X", b"X\r\n\r\n")
        assert serve.errors().count("taken over") == 1, serve.errors()


@pytest.mark.slow
def test_a_name_that_another_process_took_is_taken_back(tessd):
    """What that one is, tessctl cannot know. The renewal that finds it out comes every ten seconds."""
    with tessctl.serving("CAT", "cat") as serve, QueueProcess(2001) as other, IpcClient() as client:
        client.ask(b"s3.CAT before", b"before\r\n\r\n")
        other.register(b"CAT")
        client.send(b"s3.CAT theirs\n")
        other.expect_command(b"theirs")
        said = "tessctl: CAT was taken by another process, and is back: that one gets no commands now\n"
        wait_until(lambda: said in serve.errors(), "it says that it was replaced and is back", 25)
        client.ask(b"s3.CAT ours", b"ours\r\n\r\n")
        assert other.waiting() == []


class FakeDaemon(QueueProcess):
    """Answers every registration with success, as tessd does."""

    TEXTS = {
        wire.REGISTER: b"Process register operation successful\0",
        wire.UNREGISTER: b"Process unregister operation successful\0",
    }

    def kinds(self, address: int, seconds: float, command_every: float = 0) -> list[int]:
        """Of what comes from a process in this time, but for its answers to the commands that it is sent. Commands that were held
        up for half a second are no stream of them: then the time begins again."""
        kinds, watch, gap = [], Stopwatch(), Stopwatch()
        while watch.seconds() < seconds:
            if command_every:
                if gap.seconds() > 0.5:
                    kinds, watch = [], Stopwatch()
                gap = Stopwatch()
                self.send(wire.record(wire.TEXT_KIND, b"busy\n\0"), to=address)
            with contextlib.suppress(AssertionError):
                message = self.receive(command_every or 1)
                if message.kind in self.TEXTS:
                    kinds.append(message.kind)
                    self.send(wire.record(wire.REPLY, self.TEXTS[message.kind]), to=address)
        return kinds


@pytest.mark.slow
@pytest.mark.deadline(300)
def test_a_name_is_looked_after_without_a_gap_where_none_is_needed():
    """The first renewal asks whether the name was lost. Later ones do when somebody has come, and not among commands."""
    with FakeDaemon(1001) as daemon:
        serve = subprocess.Popen([tessctl.PROGRAM, "serve", "CAT", "--address", "4242", "--", "cat"], stderr=subprocess.DEVNULL)
        try:
            kinds = daemon.kinds(4242, 26)
            assert kinds[:3] == [wire.REGISTER, wire.UNREGISTER, wire.REGISTER] and set(kinds[3:]) == {wire.REGISTER}, kinds
            with QueueProcess(2001):
                assert set(daemon.kinds(4242, 12, command_every=0.05)) == {wire.REGISTER}
                assert wire.UNREGISTER in daemon.kinds(4242, 12)
        finally:
            serve.kill()
            serve.wait()


def test_a_full_registry_refuses_it(tessd):
    processes = [QueueProcess(3000 + number) for number in range(32)]
    for number, process in enumerate(processes):
        process.register(b"P%d" % number)
    for command, name in (["serve", "CAT", "--", "cat"], "CAT"), (["listen"], "LISTEN"):
        said = f"tessctl: tessd does not register {name}: it has 32 names, and more do not fit: end another process\n"
        tessctl.run(*command).expect(REFUSED, "", said)
    for process in processes:
        process.close()


@pytest.mark.parametrize("command", [["serve", "CAT", "--", "cat"], ["listen"], ["close"], ["com2", "X"], ["stop"]], ids=" ".join)
def test_without_a_daemon_it_says_where_it_looked(command):
    tessctl.run(*command).expect(
        NO_CONNECTION, "", f"tessctl: {settings.QUEUE_DIR}/1001: No such file or directory: is tessd running?\n"
    )
    with QueueProcess(1001) as dead:
        dead.die()
        tessctl.run(*command).expect(
            NO_CONNECTION,
            "",
            f"tessctl: {settings.QUEUE_DIR}/1001: Connection refused: tessd has ended without cleaning up; start it again\n",
        )


def test_a_user_without_the_right_is_told_the_group(tessd):
    os.chmod(settings.QUEUE_DIR, 0o770)
    tessctl.run("stop", user=12345, group=12345, extra_groups=[]).expect(
        NO_CONNECTION, "", f"tessctl: {settings.QUEUE_DIR}: Permission denied: are you in group tess?\n"
    )


def test_another_queue_directory_is_looked_into(tessd):
    environment = {**os.environ, "TESS_QUEUE_DIR": "/run/nowhere"}
    tessctl.run("stop", env=environment).expect(
        NO_CONNECTION,
        "",
        "tessctl: /run/nowhere: No such file or directory: is tessd running, and with the same TESS_QUEUE_DIR?\n",
    )


def test_a_daemon_that_does_not_answer_is_not_waited_for_without_end():
    with QueueProcess(1001) as silent:
        watch = Stopwatch()
        tessctl.run("serve", "CAT", "--", "cat").expect(
            NO_ANSWER, "", f"tessctl: {settings.QUEUE_DIR}/1001: no answer from tessd within 5 s: is it stuck?\n"
        )
        assert watch.seconds() >= 5
        kinds = [message.kind for message in silent.waiting()]
        assert kinds == [wire.REGISTER, wire.UNREGISTER], "tessd may yet come to it"


def test_a_daemon_whose_queue_stays_full_is_not_waited_for_without_end():
    with QueueProcess(1001), QueueProcess(2001) as process:
        process.socket.setblocking(False)
        with pytest.raises(BlockingIOError):
            while True:
                process.socket.sendto(wire.record(wire.STOP), f"{settings.QUEUE_DIR}/1001")
        tessctl.run("close").expect(NO_ANSWER, "", f"tessctl: {settings.QUEUE_DIR}/1001: the queue stays full: is tessd stuck?\n")


@pytest.mark.parametrize("name", ["", "*", "A.B", "A B", "A|B", "$A", "x" * 256], ids=repr)
def test_a_name_that_no_command_can_address_is_wrong_usage(name):
    for command in (["serve", name, "--", "cat"], ["listen", name]):
        assert "a name has" in tessctl.run(*command).expect(WRONG_USAGE, "").errors


def test_what_serve_cannot_do_without_is_wrong_usage():
    for arguments in (
        ["serve"],
        ["serve", "CAT"],
        ["serve", "CAT", "--ports", "serial", "--", "cat"],
        ["serve", "CAT", "--address", "0"],
    ):
        tessctl.run(*arguments).expect(WRONG_USAGE, "")


# Listening


def test_listen_prints_what_arrives(tessd):
    with tessctl.running(
        "listen", "EAR", "--address", "4243", "--count", "2", until="listening as EAR at address 4243"
    ) as listen:
        with XcpClient() as client, QueueProcess(2001) as process:
            client.send_frame(b's3.EAR say "hi"', tag=7)
            wait_until(lambda: not client.expect_nothing_more(), "the command is forwarded")
            process.send(wire.record(4711, b"\x01\xff", tag=0x12345678, length=-5), to=4243)
            output = listen.communicate(timeout=10 * settings.SLOW)[0]
    assert listen.returncode == DONE
    first, second = output.splitlines()
    assert first == 'kind 101 (text), sender 1001, tag 0x00570007, len 0, text "say \\"hi\\"\\n"'
    assert second == 'kind 4711 (unknown), sender 2001, tag 0x12345678, len -5, text "\\001\\377"'
    with IpcClient() as client:
        client.ask(b"s3.EAR X", NOT_TAKEN)


def test_listen_shows_whole_records_in_hexadecimal(tessd):
    with tessctl.running("listen", "--raw", "--count", "1", until="listening as LISTEN") as listen, QueueProcess(2001) as process:
        address = int(listen.errors().rsplit(maxsplit=1)[1])
        process.send(wire.record(4711, b"AB", tag=2), to=address)
        output = listen.communicate(timeout=10 * settings.SLOW)[0]
    words = struct.pack("=IiIi", 4711, 2001, 2, 0).hex(" ")
    assert output == f"0000  {words}\n0010  41 42\n\n", output


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP], ids=["SIGTERM", "SIGINT", "SIGHUP"])
def test_listen_unregisters_when_it_is_interrupted(tessd, number):
    with tessctl.running("listen", until="listening as LISTEN") as listen:
        listen.send_signal(number)
        assert listen.wait(10 * settings.SLOW) == DONE
    assert os.listdir(settings.QUEUE_DIR) == ["1001"]
    with IpcClient() as client:
        client.ask(b"s3.LISTEN X", NOT_TAKEN)


def test_listen_ends_when_nobody_reads_what_it_prints(tessd):
    with tessctl.running("listen", "ENC", until="listening as ENC") as listen, IpcClient() as client:
        client.send(b"s3.ENC X\n")
        assert listen.stdout.readline().endswith('"X\\n"\n')
        listen.stdout.close()
        client.send(b"s3.ENC X\n")
        assert listen.wait(10 * settings.SLOW) == DONE
        assert os.listdir(settings.QUEUE_DIR) == ["1001"]
        client.ask(b"s3.ENC X", NOT_TAKEN)


def test_listen_ends_when_what_it_prints_has_no_room(tessd):
    with open("/dev/full", "wb") as full, IpcClient() as client:
        listen = subprocess.Popen([tessctl.PROGRAM, "listen", "ENC"], stdout=full, stderr=subprocess.PIPE, text=True)
        assert listen.stderr.readline().startswith("tessctl: listening as ENC")
        client.send(b"s3.ENC X\n")
        assert listen.communicate(timeout=10 * settings.SLOW)[1] == "tessctl: standard output: No space left on device\n"
        assert listen.returncode == REFUSED
        client.ask(b"s3.ENC X", NOT_TAKEN)


def test_listen_registers_again_at_a_daemon_that_was_started_anew(start_tessd):
    tessd = start_tessd()
    with tessctl.running("listen", "EAR", until="listening as EAR") as listen:
        tessd.stop()
        start_tessd()
        wait_until(lambda: "EAR has registered again" in listen.errors(), "it registers again", 10)
        with IpcClient() as client:
            client.send(b"s3.EAR X\n")
            lines = [listen.stdout.readline() for _ in range(2)]
        assert lines[0].startswith("kind 102 (reply)") and lines[1].endswith('"X\\n"\n'), lines


def test_listen_hears_only_the_ports_asked_for(tessd):
    with tessctl.running("listen", "EAR", "--ports", "xcp", "--count", "1", until="listening as EAR") as listen:
        with IpcClient() as ipc, XcpClient() as xcp:
            ipc.ask(b"s3.EAR X", NOT_TAKEN)
            xcp.send_frame(b"s3.EAR Y", tag=1)
            assert listen.communicate(timeout=10 * settings.SLOW)[0].endswith('"Y\\n"\n')


def test_processes_that_share_numbers_find_a_free_address(tessd):
    """As in containers that share the queue directory."""
    with tessctl.serving("CAT", "cat") as serve, IpcClient() as client:
        address = 1_000_000_000 + serve.pid
        assert os.path.exists(f"{settings.QUEUE_DIR}/{address}"), os.listdir(settings.QUEUE_DIR)
        command = ["unshare", "--pid", "--fork", tessctl.PROGRAM, "listen", "--count", "1"]
        others = []
        while not others or others[-1] != "taken":  # until the number of a process is one that is in use
            with QueueProcess(1_000_000_001 + len(others)):
                listen = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
                said = listen.stderr.readline()
                client.ask(b"s3.LISTEN X", b"", within=1)
                others.append("taken" if int(said.split()[-1]) > 1_005_000_000 else "free")
                listen.communicate(timeout=10 * settings.SLOW)
            assert len(others) < 10, others
