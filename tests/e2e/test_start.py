"""Start: options, log lines, readiness, what stands in the way."""

from __future__ import annotations

import contextlib
import datetime
import os
import signal
import socket
import stat

import device_ns  # of tools/
import pytest

from harness import com2, proc, settings, wire
from harness.clients import IpcClient, XcpClient
from harness.com2 import SerialLine
from harness.daemon import (
    CLOSING_ALL,
    COM2_PORT_CLOSED,
    ERROR_RUNTIME,
    INITIALIZE_COM2,
    INITIALIZE_IPC,
    INITIALIZE_TELNET,
    INITIALIZE_XCP,
    IPC_PORT_CLOSED,
    LOCAL_PORTS,
    NORMAL_EXIT,
    RECEIVED_SIGTERM,
    RUNNING,
    XCP_PORT_CLOSED,
)
from harness.endings import ALL_CLOSED
from harness.queue_process import QueueProcess, queue_path
from harness.system_log import SystemLog
from harness.waiting import wait_until

LIFE_WITH_LOCAL_PORTS = [
    INITIALIZE_XCP,
    INITIALIZE_IPC,
    RUNNING,
    RECEIVED_SIGTERM,
    CLOSING_ALL,
    XCP_PORT_CLOSED,
    IPC_PORT_CLOSED,
    NORMAL_EXIT,
]
QUEUE_IN_USE = (250001, "queue address 1001 is in use")


def serves(client_of: type[IpcClient] | type[XcpClient]) -> bool:
    try:
        with client_of() as client:
            client.expect_nothing_more()
    except (FileNotFoundError, ConnectionRefusedError):
        return False
    return True


def serves_queue() -> bool:
    with QueueProcess(2001) as process:
        process.expect_daemon_done()
    return True


def test_log_tells_start_and_stop_in_order(tessd):
    tessd.expect_entries([INITIALIZE_XCP, INITIALIZE_IPC, RUNNING])
    tessd.signal(signal.SIGTERM)
    tessd.expect_normal_end()
    tessd.expect_entries(LIFE_WITH_LOCAL_PORTS)


def test_all_four_ports_start_and_stop_in_order(launch):
    with SerialLine():
        tessd = launch().wait_running()
        tessd.wait_log(*com2.opened(1))
        started = tessd.entries()
        initialized = [INITIALIZE_COM2, INITIALIZE_TELNET, INITIALIZE_XCP, INITIALIZE_IPC]
        # The serial line's connection is opened by the service thread, which runs already.
        assert started[:4] == initialized, tessd.log_text()
        assert sorted(started[4:]) == sorted([com2.opened(1), RUNNING]), tessd.log_text()
        tessd.signal(signal.SIGTERM)
        tessd.expect_normal_end()
    actual = tessd.entries()[len(started) :]
    expected = [RECEIVED_SIGTERM, *ALL_CLOSED]
    assert actual == expected, f"expected {expected}, got {actual}"


def test_log_lines_carry_the_time_of_day_in_utc(start_tessd):
    before = datetime.datetime.now(datetime.timezone.utc)
    tessd = start_tessd(environment={"TZ": "Asia/Tokyo"})
    tessd.stop()
    after = datetime.datetime.now(datetime.timezone.utc)
    slack = datetime.timedelta(milliseconds=1)
    times = [datetime.datetime.strptime(line.time + "+0000", "%Y-%m-%dT%H:%M:%S.%fZ%z") for line in tessd.lines]
    assert times == sorted(times), f"times go back: {times}"
    assert before - slack <= times[0] and times[-1] <= after, f"expected {before} to {after}, got {times}"


def test_ready_is_said_only_when_the_ports_are_open(launch):
    launch(*LOCAL_PORTS).wait_ready()
    assert serves(IpcClient) and serves(XcpClient) and serves_queue()


def test_starts_without_a_service_manager(launch):
    tessd = launch(*LOCAL_PORTS, environment={"NOTIFY_SOCKET": None})
    tessd.wait_log(*RUNNING)
    assert serves(IpcClient)


def test_a_service_manager_that_does_not_read_holds_the_start_up_for_a_second(launch):
    path = "/run/busy"
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind(path)
        with contextlib.suppress(BlockingIOError), socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as another:
            while True:
                another.sendto(b"STATUS=", socket.MSG_DONTWAIT, path)
        tessd = launch(*LOCAL_PORTS, environment={"NOTIFY_SOCKET": path})
        tessd.wait_log(*RUNNING)
    said = f"{path}: Resource temporarily unavailable: the service manager does not read, and was not told READY=1"
    assert tessd.entries()[-2:] == [(250006, said), RUNNING]
    assert serves(IpcClient)


def serves_telnet() -> bool:
    """Somebody listens; the conversation is not begun."""
    try:
        socket.create_connection(settings.TELNET_ADDRESS, timeout=5).close()
    except ConnectionRefusedError:
        return False
    return True


def test_starts_with_every_port_by_default(launch):
    with SerialLine() as line:
        launch().wait_running()
        assert serves(IpcClient) and serves(XcpClient) and serves_telnet() and serves_queue()
        line.expect_nothing_more()


def test_starts_without_the_serial_device(launch):
    """The port stays closed; nothing is said about it but by its connection, which exists all the same."""
    tessd = launch("--notelnet").wait_running()
    assert INITIALIZE_COM2 in tessd.entries(), tessd.log_text()
    tessd.wait_log(*com2.opened(1))
    assert serves(IpcClient) and serves(XcpClient) and serves_queue()
    tessd.stop()
    assert com2.CONNECTION_CLOSED in tessd.entries() and COM2_PORT_CLOSED not in tessd.entries(), tessd.log_text()


def test_a_serial_device_that_is_no_terminal_ends_the_start(launch):
    device_ns.bind("/dev/null", com2.DEVICE)
    tessd = launch()
    tessd.expect_end(1)
    tessd.expect_entries([INITIALIZE_COM2, ERROR_RUNTIME])
    assert not os.path.exists(settings.IPC_PATH)


def test_a_telnet_port_that_is_taken_ends_the_start_and_gives_the_line_back(launch):
    with SerialLine() as line, socket.create_server(settings.TELNET_ADDRESS):
        before = line.get_attributes()
        tessd = launch()
        tessd.expect_end(1)
        tessd.expect_entries([INITIALIZE_COM2, INITIALIZE_TELNET, COM2_PORT_CLOSED, ERROR_RUNTIME])
        assert line.get_attributes() == before
    assert not os.path.exists(settings.IPC_PATH)


@pytest.mark.parametrize(
    "arguments, number",
    [
        (["--debug"], 122),
        (["-z"], 122),
        (["-x"], 120),
        (["--nocom2", "-x"], 120),
        (["-yz"], 122),
        (["--deb"], 122),
    ],
    ids=lambda value: " ".join(value) if isinstance(value, list) else str(value),
)
def test_missing_option_argument_is_said_by_number_and_ends_the_start(launch, arguments, number):
    tessd = launch(*arguments)
    assert tessd.wait_end() == 1
    assert tessd.log_text() == f"{tessd.argv0}: option {number} requires an argument\n"
    assert tessd.output_text() == ""
    assert not os.path.exists(settings.IPC_PATH)


def test_options_without_an_effect_are_taken_silently(launch):
    for arguments in (
        ["--debug", "5"],
        ["--debug=verbose"],
        ["-z", "5"],
        ["-w"],
        ["--unknown"],
        ["-q", "stray"],
        ["--nocom2=yes"],
    ):
        tessd = launch(*LOCAL_PORTS, *arguments).wait_running()
        tessd.expect_entries([INITIALIZE_XCP, INITIALIZE_IPC, RUNNING])
        assert serves(IpcClient) and serves(XcpClient), arguments
        tessd.stop()


def test_socket_options_are_crossed(launch):
    """A deliberate oddity: --noipcsocket takes the XCP port away, --noxcp (-v) the IPC port."""
    for option, xcp, ipc in (
        ("--noipcsocket", False, True),
        ("--noxcp", True, False),
        ("-v", True, False),
        ("--noip", False, True),
    ):
        tessd = launch(*LOCAL_PORTS, option).wait_running()
        tessd.expect_entries([INITIALIZE_XCP] * xcp + [INITIALIZE_IPC] * ipc + [RUNNING])
        assert (serves(XcpClient), serves(IpcClient)) == (xcp, ipc), option
        tessd.signal(signal.SIGTERM)
        tessd.expect_normal_end()


def test_short_forms_of_the_port_options(launch):
    """-y is --nocom2; -x is --notelnet, but wants an argument; -v is --noxcp."""
    tessd = launch("-y", "-x", "anything", "-v").wait_running()
    tessd.expect_entries([INITIALIZE_XCP, RUNNING])
    assert not serves_telnet()


def test_options_leave_out_the_serial_line_and_telnet(launch):
    for option, left_out in (
        ("--nocom2", INITIALIZE_COM2),
        ("-y", INITIALIZE_COM2),
        ("--notelnet", INITIALIZE_TELNET),
    ):
        with SerialLine() as line:
            tessd = launch(option).wait_running()
            said = [entry for entry in (INITIALIZE_COM2, INITIALIZE_TELNET) if entry in tessd.entries()]
            assert said == [entry for entry in (INITIALIZE_COM2, INITIALIZE_TELNET) if entry != left_out], option
            assert serves_telnet() == (left_out != INITIALIZE_TELNET), option
            if left_out != INITIALIZE_COM2:
                line.expect_nothing_more()
            tessd.stop()


def test_without_any_port_queue_messages_are_served(launch):
    tessd = launch("--nocom2", "--notelnet", "--noipcsocket", "--noxcp").wait_ready()
    tessd.wait_log(*RUNNING)
    tessd.expect_entries([RUNNING])
    with QueueProcess(2001) as process:
        process.register(b"ENC")
        process.unregister()
    tessd.signal(signal.SIGTERM)
    tessd.expect_normal_end()


def test_leftover_socket_files_do_not_stop_the_start(start_tessd):
    for path in (settings.IPC_PATH, settings.XCP_PATH):
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as leftover:
            leftover.bind(path)
    tessd = start_tessd()
    assert serves(IpcClient) and serves(XcpClient)
    tessd.stop()
    for path in (settings.IPC_PATH, settings.XCP_PATH):
        with open(path, "w", encoding="ascii") as plain_file:
            plain_file.write("left over")
    start_tessd()
    assert serves(IpcClient) and serves(XcpClient)


def test_socket_files_have_the_default_permissions(start_tessd):
    start_tessd()
    for path in (settings.IPC_PATH, settings.XCP_PATH):
        mode = os.stat(path).st_mode
        assert stat.S_ISSOCK(mode) and stat.S_IMODE(mode) == 0o777 & ~current_umask(), f"{path}: {mode:o}"


def current_umask() -> int:
    umask = os.umask(0)
    os.umask(umask)
    return umask


def test_a_port_that_cannot_be_bound_ends_the_start(launch):
    for path, said_before in (
        (settings.XCP_PATH, [INITIALIZE_XCP]),
        (settings.IPC_PATH, [INITIALIZE_XCP, INITIALIZE_IPC]),
    ):
        os.makedirs(f"{path}/not-empty")
        tessd = launch(*LOCAL_PORTS)
        tessd.expect_end(1)
        # A port that was open already may say that it is closed.
        actual = [entry for entry in tessd.entries() if entry != XCP_PORT_CLOSED]
        assert actual == [*said_before, ERROR_RUNTIME], tessd.log_text()
        os.rmdir(f"{path}/not-empty")
        os.rmdir(path)
        assert not os.path.exists(queue_path(wire.DAEMON)), "the queue address must be free again"


def test_a_second_daemon_leaves_the_first_one_alone(start_tessd, launch):
    first = start_tessd()
    with QueueProcess(2001) as process, IpcClient() as ipc, XcpClient() as xcp:
        process.register(b"ENC")
        before = [(path, os.stat(path).st_ino) for path in (settings.IPC_PATH, settings.XCP_PATH)]
        second = launch(*LOCAL_PORTS)
        second.expect_end(1)
        second.expect_entries([QUEUE_IN_USE, ERROR_RUNTIME])
        assert [(path, os.stat(path).st_ino) for path, _ in before] == before
        ipc.send(b"s3.ENC STILL\n")
        process.reply(process.expect_command(b"STILL").tag, b"here")
        ipc.expect(b"here")
        xcp.expect_nothing_more()
        assert serves(IpcClient) and serves(XcpClient)
    assert not [entry for entry in first.entries() if entry[0] not in (36104, 51000, 36106, 6001)], first.log_text()


def test_a_daemon_that_was_killed_is_replaced(start_tessd):
    first = start_tessd()
    assert serves(IpcClient)
    first.kill()
    assert all(os.path.exists(path) for path in (settings.IPC_PATH, settings.XCP_PATH, queue_path(wire.DAEMON)))
    start_tessd()
    assert serves(IpcClient) and serves(XcpClient) and serves_queue()


def test_of_many_that_race_for_the_address_of_a_dead_one_a_single_one_wins(start_tessd, launch):
    for _round in range(5):
        start_tessd().kill()
        racing = [launch(*LOCAL_PORTS) for _ in range(4)]
        wait_until(lambda: sum(tessd.ended() for tessd in racing) == 3, "three of four have ended", within=20)
        winner = next(tessd for tessd in racing if not tessd.ended())
        winner.wait_running()
        assert serves(IpcClient) and serves(XcpClient) and serves_queue()
        for loser in racing:
            if loser is not winner:
                loser.expect_end(1)
                loser.expect_entries([QUEUE_IN_USE, ERROR_RUNTIME])
        winner.stop()


def test_missing_queue_directory_is_made(start_tessd):
    os.rmdir(settings.QUEUE_DIR)
    os.rmdir(os.path.dirname(settings.QUEUE_DIR))
    start_tessd()
    for path, mode in (
        (os.path.dirname(settings.QUEUE_DIR), 0o770),
        (settings.QUEUE_DIR, 0o770),
        (queue_path(wire.DAEMON), 0o660),
    ):
        actual = stat.S_IMODE(os.stat(path).st_mode)
        assert actual == mode, f"{path}: expected mode {mode:o}, got {actual:o}"
    assert serves_queue()


def test_queue_directory_can_be_chosen(launch):
    tessd = launch(*LOCAL_PORTS, environment={"TESS_QUEUE_DIR": "/run/elsewhere/queue"}).wait_running()
    assert stat.S_ISSOCK(os.stat("/run/elsewhere/queue/1001").st_mode)
    assert not os.path.exists(queue_path(wire.DAEMON))
    tessd.stop()
    assert not os.path.exists("/run/elsewhere/queue/1001")


def test_a_queue_directory_with_too_long_a_name_is_refused(launch):
    tessd = launch(*LOCAL_PORTS, environment={"TESS_QUEUE_DIR": "/run/" + "q" * 120})
    tessd.expect_end(1)
    assert tessd.entries()[-1] == ERROR_RUNTIME
    assert tessd.entries()[0][0] == 250001 and "q" * 120 in tessd.entries()[0][1], tessd.log_text()


def test_standard_streams_that_are_closed_are_opened_on_dev_null(launch):
    for closed in ((0, 1, 2), (0,), (1, 2)):
        tessd = launch(*LOCAL_PORTS, closed_streams=closed).wait_ready()
        streams = proc.descriptors(tessd.pid)
        for stream in closed:
            assert streams[stream] == "/dev/null", f"stream {stream}: {streams}"
        assert serves(IpcClient) and serves(XcpClient)
        tessd.signal(signal.SIGTERM)
        tessd.expect_end(0)


def test_every_descriptor_is_closed_for_programs_it_starts(tessd):
    with IpcClient() as ipc, XcpClient() as xcp:
        ipc.expect_nothing_more()
        xcp.expect_nothing_more()
        for number in proc.descriptors(tessd.pid):
            if number <= 2:
                continue
            with open(f"/proc/{tessd.pid}/fdinfo/{number}", encoding="ascii") as info:
                flags = next(int(line.split()[1], 8) for line in info if line.startswith("flags:"))
            assert flags & os.O_CLOEXEC, f"descriptor {number}: {proc.descriptors(tessd.pid)[number]}"


def test_log_can_go_to_the_system_log(launch):
    system_log = SystemLog()
    tessd = launch(*LOCAL_PORTS, environment={"TESS_LOG": "syslog"}).wait_ready()
    lines: list[str] = []
    wait_until(lambda: lines.extend(system_log.received()) or len(lines) == 3, "three lines in the system log")
    tessd.wait_asleep()
    tessd.signal(signal.SIGTERM)
    tessd.expect_end(0)
    assert tessd.log_text() == ""
    lines += system_log.received()
    assert [line.rpartition("    [TESS] ")[2] for line in lines] == [
        f"{identifier} {text}" for identifier, text in LIFE_WITH_LOCAL_PORTS
    ]
    # RFC 3164: facility daemon (3), any severity.
    priorities = {int(line[1 : line.index(">")]) for line in lines}
    assert all(priority >> 3 == 3 for priority in priorities), priorities


def test_log_can_go_to_both(launch):
    system_log = SystemLog()
    tessd = launch(*LOCAL_PORTS, environment={"TESS_LOG": "both"}).wait_running()
    tessd.stop()
    assert [line.rpartition("    [TESS] ")[2] for line in system_log.received()] == [
        f"{identifier} {text}" for identifier, text in tessd.entries()
    ]
