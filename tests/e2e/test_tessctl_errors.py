"""What tessctl says when something is in its way: the path, the system's reason, the likely cause."""

from __future__ import annotations

import contextlib
import fcntl
import os
import select
import signal
import socket
import subprocess
import threading
from collections.abc import Iterator

import pytest

from harness import settings, tessctl, wire
from harness.clients import IpcClient
from harness.queue_process import QueueProcess
from harness.tessctl import DONE, NO_ANSWER, NO_CONNECTION, REFUSED
from harness.waiting import wait_until

pytestmark = tessctl.needs_tessctl

DAEMON_QUEUE = f"{settings.QUEUE_DIR}/1001"
STRANGER = {"user": 12345, "group": 12345, "extra_groups": []}


@contextlib.contextmanager
def server(family: int, address: str | tuple[str, int], answer: bytes) -> Iterator[None]:
    """Something that is not tessd: it sends the same to everybody, and hangs up."""
    with socket.socket(family) as listener:
        listener.bind(address)
        listener.listen()

        def serve() -> None:
            with contextlib.suppress(OSError):
                while True:
                    client, _ = listener.accept()
                    with client:
                        client.sendall(answer)
                        client.shutdown(socket.SHUT_WR)
                        client.recv(100)

        thread = threading.Thread(target=serve, daemon=True)
        thread.start()
        yield
        listener.shutdown(socket.SHUT_RDWR)
        thread.join()


def test_a_queue_directory_that_is_none():
    environment = {**os.environ, "TESS_QUEUE_DIR": "/etc/passwd/queue"}
    tessctl.run("close", env=environment).expect(
        NO_CONNECTION,
        "",
        "tessctl: /etc/passwd/queue: Not a directory: TESS_QUEUE_DIR names something that is no directory\n",
    )


@tessctl.needs_tracer
def test_a_queue_of_its_own_that_cannot_be_read(tessd):
    command = [*tessctl.tampered("recvmsg", "error=EIO"), tessctl.PROGRAM, "listen", "--address", "4711"]
    run = subprocess.run(command, capture_output=True, text=True, timeout=20, check=False)
    assert run.stderr.endswith(f"tessctl: {settings.QUEUE_DIR}/4711: Input/output error\n"), run
    assert run.returncode == NO_CONNECTION, run


@tessctl.needs_tracer
@pytest.mark.parametrize(
    "command, path",
    [(["send", "*"], settings.IPC_PATH), (["close"], DAEMON_QUEUE), (["ping", "telnet"], "127.0.0.1:23")],
    ids=str,
)
def test_a_process_that_may_open_no_more_files(tessd, command, path):
    command = [*tessctl.tampered("socket", "error=EMFILE"), tessctl.PROGRAM, *command]
    run = subprocess.run(command, capture_output=True, text=True, timeout=20, check=False)
    assert run.stderr == f"tessctl: {path}: Too many open files: this process may open no more files (ulimit -n)\n", run


def test_a_queue_directory_with_too_long_a_name():
    for directory, path, cause in (
        ("/run/" + "x" * 110, "/1001", "TESS_QUEUE_DIR is too long, a socket's path has 107 bytes at most"),
        ("/run/" + "x" * 256, "", "TESS_QUEUE_DIR is longer than a path may be"),
    ):
        with contextlib.suppress(OSError):
            os.mkdir(directory)
        tessctl.run("close", env={**os.environ, "TESS_QUEUE_DIR": directory}).expect(
            NO_CONNECTION, "", f"tessctl: {directory}{path}: File name too long: {cause}\n"
        )
    directory = "/run/" + "x" * 95  # 1001 fits, an address of its own does not
    os.mkdir(directory)
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as daemon:
        daemon.bind(f"{directory}/1001")
        errors = tessctl.run("close", env={**os.environ, "TESS_QUEUE_DIR": directory}).expect(NO_CONNECTION, "").errors
    assert errors.startswith(f"tessctl: {directory}/1000"), errors
    assert errors.endswith(": File name too long: TESS_QUEUE_DIR is too long, a socket's path has 107 bytes at most\n"), errors


def test_an_address_of_its_own_that_is_no_queue(tessd):
    path = f"{settings.QUEUE_DIR}/4711"
    open(path, "wb").close()
    tessctl.run("listen", "--address", "4711").expect(
        NO_CONNECTION,
        "",
        f"tessctl: {path}: Socket operation on non-socket: something that is no queue has that name; remove it\n",
    )
    os.unlink(path)
    with socket.socket(socket.AF_UNIX) as other:
        other.bind(path)
        other.listen()
        errors = tessctl.run("listen", "--address", "4711").expect(NO_CONNECTION, "").errors
    assert errors.startswith(f"tessctl: {path}: Address already in use: another process holds that address"), errors


def test_a_queue_that_cannot_be_opened_is_told_once(tessd):
    directory = os.open(settings.QUEUE_DIR, os.O_RDONLY)
    fcntl.flock(directory, fcntl.LOCK_EX)
    errors = tessctl.run("close").expect(NO_CONNECTION, "").errors.splitlines()
    assert "250001 queue address" in errors[0] and "Resource temporarily unavailable" in errors[0], errors
    assert errors[1:] == ["tessctl: /run/tess/queue: no queue can be opened there: the log has the reason (250001)"], errors
    os.close(directory)


def test_a_queue_of_the_daemon_that_is_closed_to_this_user(tessd):
    os.chmod(settings.QUEUE_DIR, 0o777)
    tessctl.run("close", **STRANGER).expect(
        NO_CONNECTION, "", f"tessctl: {DAEMON_QUEUE}: Permission denied: are you in group tess?\n"
    )


def test_something_else_at_the_daemons_queue():
    with socket.socket(socket.AF_UNIX) as other:
        other.bind(DAEMON_QUEUE)
        other.listen()
        tessctl.run("close").expect(
            NO_CONNECTION,
            "",
            f"tessctl: {DAEMON_QUEUE}: Protocol wrong type for socket: something else holds tessd's address\n",
        )


def test_a_socket_that_is_closed_to_this_user(tessd):
    os.chmod(settings.IPC_PATH, 0o770)
    tessctl.run("send", "*", **STRANGER).expect(
        NO_CONNECTION, "", "tessctl: /tmp/socket: Permission denied: are you in group tess?\n"
    )


def test_something_else_at_a_sockets_path():
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as other:
        other.bind(settings.XCP_PATH)
        tessctl.run("send", "-p", "xcp", "*").expect(
            NO_CONNECTION, "", "tessctl: /tmp/xcp: Protocol wrong type for socket: something else holds tessd's path\n"
        )


def test_a_daemon_that_is_held_up_answers_no_ping(tessd):
    with tessctl.held(tessd):
        tessctl.run("ping", "ipc").expect(REFUSED, "", "tessctl: /tmp/socket: no answer within 5 s: is tessd stuck?\n")


def test_somebody_else_who_answers_on_a_socket():
    with server(socket.AF_UNIX, settings.IPC_PATH, b"hello\r\n\r\n"):
        tessctl.run("ping", "ipc").expect(REFUSED, "", "tessctl: /tmp/socket answers, but not as tessd does\n")


def test_somebody_who_does_not_greet_on_the_telnet_port():
    with server(socket.AF_INET, settings.TELNET_ADDRESS, b"go away\r\n"):
        tessctl.run("ping", "telnet").expect(REFUSED, "", "tessctl: 127.0.0.1:23: no greeting: are ten others connected?\n")


def test_a_telnet_port_that_takes_no_connections(socket_tessd):
    with tessctl.held(socket_tessd), contextlib.ExitStack() as waiting:
        accepted = True
        while accepted:
            client = waiting.enter_context(socket.socket())
            client.setblocking(False)
            client.connect_ex(settings.TELNET_ADDRESS)
            accepted = bool(select.select([], [client], [], 0.2)[1])
        tessctl.run("ping", "telnet").expect(
            REFUSED, "", "tessctl: 127.0.0.1:23: Connection timed out: tessd takes no connections: is it stuck?\n"
        )


def test_a_serial_line_that_nobody_has_open():
    open(settings.SERIAL_LINE, "wb").close()
    tessctl.run("ping", "com2").expect(
        REFUSED, "", "tessctl: /dev/ttyS1 is open in no process: does tessd run with the COM2 port?\n"
    )
    output = tessctl.run("ping", "com2", **STRANGER).expect(DONE, errors="").output
    assert output.startswith("/dev/ttyS1 exists; only root can see who has it open"), output
    os.chmod(settings.SERIAL_LINE, 0o666)
    with open(settings.SERIAL_LINE, "rb") as line, subprocess.Popen(["sleep", "1000"], stdin=line, **STRANGER) as other:
        output = tessctl.run("ping", "com2", **STRANGER).expect(DONE, errors="").output
        assert output.startswith(f"/dev/ttyS1 is open in sleep ({other.pid}); only root can see who else has it open ("), output
        other.kill()


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM], ids=["SIGINT", "SIGTERM"])
@pytest.mark.parametrize("command", [["com2", "X"], ["stop"]], ids=" ".join)
def test_whoever_is_tired_of_waiting_may_leave(command, number):
    with QueueProcess(1001) as silent:
        process = subprocess.Popen([tessctl.PROGRAM, *command], stderr=subprocess.PIPE, text=True)
        silent.receive()
        process.send_signal(number)
        assert process.communicate(timeout=10 * settings.SLOW)[1] == "tessctl: interrupted\n"
        assert process.returncode == NO_ANSWER
        assert os.listdir(settings.QUEUE_DIR) == ["1001"], "its own queue is removed"


@pytest.mark.slow
def test_a_daemon_that_does_not_stop():
    with QueueProcess(1001):
        tessctl.run("stop", within=60).expect(
            NO_ANSWER, "", f"tessctl: {DAEMON_QUEUE}: tessd has not ended within 30 s: is it stuck?\n"
        )


def test_a_daemon_that_goes_while_a_program_runs_loses_its_answer(tessd):
    with tessctl.serving(
        "P", "sh", "-c", "touch /tmp/begun; until [ -e /tmp/go ]; do sleep 0.05; done"
    ) as serve, IpcClient() as client:
        client.send(b"s3.P go\n")
        wait_until(lambda: os.path.exists("/tmp/begun"), "the program runs", 10)
        tessd.stop()
        open("/tmp/go", "wb").close()
        reason = f"{DAEMON_QUEUE}: No such file or directory: is tessd running?\n"
        wait_until(lambda: f"tessctl: an answer is lost: {reason}" in serve.errors(), "the loss is said", 10)
        serve.terminate()
        assert serve.wait(10 * settings.SLOW) == DONE
        assert f"tessctl: not unregistered: {reason}" in serve.errors()


def test_a_daemon_started_anew_that_refuses_is_reported(tessd):
    with tessctl.serving("CAT", "cat") as serve:
        tessd.stop()
        with QueueProcess(1001) as anew:
            wait_until(lambda: anew.receive().kind == wire.REGISTER, "it registers again", 10)
            refusal = wire.record(wire.REPLY, b"Max # of registered processes reached\0", tag=0xFFFFFFFF)
            (address,) = set(os.listdir(settings.QUEUE_DIR)) - {"1001"}
            for _ in range(2):
                anew.send(refusal, to=int(address))
                assert anew.receive(10).kind == wire.REGISTER, "it asks again"
            anew.send(wire.record(wire.REPLY, b"\0"), to=int(address))
            wait_until(lambda: "CAT has registered again" in serve.errors(), "it registers at last", 10)
            said = (
                "tessctl: tessd does not register CAT: it has 32 names, and more do not fit: end another process;"
                " it is asked again every second\n"
            )
            assert serve.errors().count(said) == 1, serve.errors()
            serve.kill()
            serve.wait()


def test_what_has_unregistered_does_not_ask_again(tessd):
    with tessctl.serving("CAT", "cat") as serve:
        tessd.stop()
        with QueueProcess(1001) as anew:
            wait_until(lambda: anew.receive().kind == wire.REGISTER, "it registers again", 10)
            serve.terminate()
            wait_until(lambda: anew.receive().kind == wire.UNREGISTER, "it unregisters", 10)
            assert serve.wait(20 * settings.SLOW) == DONE  # the answer does not come
            assert not anew.waiting()


def test_a_daemon_started_anew_that_does_not_read_is_reported(tessd):
    with tessctl.serving("CAT", "cat") as serve:
        os.kill(serve.pid, signal.SIGSTOP)
        tessd.stop()
        with QueueProcess(1001) as anew, QueueProcess(2001) as process:
            process.socket.setblocking(False)
            with pytest.raises(BlockingIOError):
                while True:
                    process.socket.sendto(wire.record(wire.STOP), DAEMON_QUEUE)
            os.kill(serve.pid, signal.SIGCONT)
            said = f"tessctl: not registered again: {DAEMON_QUEUE}: the queue stays full: is tessd stuck?\n"
            wait_until(lambda: said in serve.errors(), "that is said", 20)
            assert set(message.kind for message in anew.waiting()) == {wire.STOP}
            assert anew.receive(10).kind == wire.REGISTER, "it asks again"
            serve.kill()
            serve.wait()
