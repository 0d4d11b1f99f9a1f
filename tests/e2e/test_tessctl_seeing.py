"""tessctl status, list, who, metrics, watch and top."""

from __future__ import annotations

import dataclasses
import json
import os
import re
import signal
import subprocess
import termios
import threading

import pytest
from screen import Screen  # of tools/

from harness import items, settings, tessctl, wire
from harness.clients import IpcClient, XcpClient
from harness.com2 import SerialLine
from harness.queue_process import AnsweringProcess, QueueProcess
from harness.telnet import TelnetClient
from harness.tessctl import DONE, NO_ANSWER, NO_CONNECTION, REFUSED, WRONG_USAGE
from harness.waiting import wait_until

pytestmark = tessctl.needs_tessctl

with open("/proc/self/comm", encoding="utf-8") as comm:
    PROGRAM = comm.read().strip()

ASKING = [["status"], ["list"], ["who"], ["metrics"], ["watch"], ["watch", "--name", "ENC"], ["top"], ["status", "--json"]]


def serve_one_command(process: QueueProcess, client: IpcClient, command: bytes = b"X") -> None:
    client.send(b"s3.ENC " + command + b"\n")
    process.reply(process.expect_command(command).tag, b"0\r\n\r\n")
    client.expect(b"0\r\n\r\n")


@dataclasses.dataclass
class Busy:
    process: QueueProcess
    client: IpcClient


@pytest.fixture
def busy(tessd):
    """A daemon with a process, which has answered a command, and a client."""
    with QueueProcess(1500) as process, IpcClient() as client:
        process.register(b"ENC", wire.IPC)
        serve_one_command(process, client)
        client.ask(b"s3.NONE Y", b"?\r\n")
        yield Busy(process, client)


# --- status, list, who


def test_status_shows_what_the_daemon_has_done(busy):
    output = tessctl.run("status").expect(DONE, errors="").output
    expected = r"""tessd        [\d.]+, process \d+, up \d+ s
port         xcp 0 of 10
port         ipc 1 of 10
connections  1
processes    1 of 32
delays       0 pending
watchers     0
lines        2
commands     1 forwarded, 1 refused
answers      1 routed, 0 dropped
logins       0 accepted, 0 refused
full queues  0 waits
unknown      0 messages
"""
    assert re.fullmatch(expected, output), output
    report = json.loads(tessctl.run("status", "--json").expect(DONE, errors="").output)
    assert list(report) == ["daemon", "count", "ports", "connections", "processes"]
    assert report["count"]["lines"] == 2 and report["daemon"]["delays"] == 0
    assert report["ports"][1] == {"name": "ipc", "open": 1, "connections": 1, "limit": 10}


def test_list_shows_the_processes(busy):
    owner = f"pid {os.getpid()} {PROGRAM}"
    tessctl.run("list").expect(
        DONE, f"NAME  ADDRESS  SENT  ANSWERED  QUEUE  PORTS  OWNER\nENC   1500     1     1         ok     ipc    {owner}\n", ""
    )
    assert json.loads(tessctl.run("list", "--json").expect(DONE, errors="").output) == [
        {
            "name": "ENC", "address": 1500, "ports": wire.IPC, "sent": 1, "answered": 1, "full": 0,
            "pid": os.getpid(), "program": PROGRAM,
        }
    ]  # fmt: skip


def test_the_owner_of_a_queue_is_shown_to_those_who_may_see_him(busy):
    os.chmod(settings.QUEUE_DIR, 0o777)
    os.chmod(f"{settings.QUEUE_DIR}/1001", 0o777)
    os.chmod(f"{settings.QUEUE_DIR}/1500", 0o777)
    output = tessctl.run("list", user=12345, group=12345, extra_groups=[]).expect(DONE, errors="").output
    assert output.splitlines()[1] == "ENC   1500     1     1         ok     ipc    -", output


def test_the_names_alone_are_those_that_can_be_typed(busy):
    for name in (b"a b", b"*", b"", b"with.dot", b"\x1b[2J", b"n" * 300, b"OTHER"):
        busy.process.register(name)
    tessctl.run("list", "--names").expect(DONE, "ENC\n\\x1b[2J\nOTHER\n", "")


def test_who_shows_the_connections(busy):
    lines = tessctl.run("who").expect(DONE, errors="").output.splitlines()
    assert lines[0].split("  ")[0] == "PORT" and len(lines) == 2, lines
    pattern = rf"ipc   0xbb010000  -     \d+ s +\d+ s +-          pid {os.getpid()} .* uid \d+"
    assert re.fullmatch(pattern, lines[1]), lines
    (conn,) = json.loads(tessctl.run("who", "--json").expect(DONE, errors="").output)
    assert list(conn) == ["id", "port", "peer", "user", "connected", "idle", "waits"], conn


def test_what_a_peer_has_sent_does_not_reach_the_terminal(busy):
    busy.process.register(b'evil"\x1b[2J\n')
    with tessctl.on_terminal("list", "--names") as terminal:
        terminal.expect(b'evil"\\x1b[2J\\x0a')
        assert terminal.expect_end() == DONE
        assert b"\x1b" not in terminal.shown, terminal.shown


def everything() -> tuple[QueueProcess, list]:
    process = QueueProcess(1500)
    for number in range(32):
        process.register(b"%02d" % number + b"n" * (wire.TEXT - 4 - 3))
    clients = [IpcClient() for _ in range(10)] + [XcpClient() for _ in range(10)] + [TelnetClient() for _ in range(10)]
    for client in clients[:20]:
        client.expect_nothing_more()
    for client in clients[20:]:
        client.give_name()
    return process, clients


def test_everything_at_its_most_is_shown(launch):
    """32 processes with the longest names, and 31 connections."""
    with SerialLine():
        launch().wait_running()
        process, clients = everything()
        report = json.loads(tessctl.run("status", "--json").expect(DONE, errors="").output)
        assert [p["name"][:3] for p in report["processes"]] == [f"{number:02d}n" for number in range(32)]
        assert len(report["connections"]) == 31
        assert len(tessctl.run("who").expect(DONE).output.splitlines()) == 32
        assert len(tessctl.run("list").expect(DONE).output.splitlines()) == 33
        metrics = families(tessctl.run("metrics").expect(DONE, errors="").output)
        assert len(metrics["tess_process_commands"].samples) == 32
        with on_narrow_terminal("list") as terminal:
            assert terminal.expect_end() == DONE
            lines = terminal.shown.decode().replace("\r", "").splitlines()
        assert len(lines) == 33 and max(map(len, lines)) <= 40, lines
        assert lines[1].startswith("00n") and "1500" in lines[1], lines[1]
        for client in clients:
            client.close()
        process.close()


def on_narrow_terminal(*arguments: str) -> tessctl.Terminal:
    """tessctl on a terminal of 40 columns and 12 rows, set up before it looks."""
    return tessctl.Terminal("/bin/sh", "-c", 'stty cols 40 rows 12; exec "$@"', "sh", tessctl.PROGRAM, *arguments)


# --- when it cannot be told


@pytest.mark.parametrize("command", ASKING, ids=" ".join)
def test_without_a_daemon_it_says_so(command):
    tessctl.run(*command).expect(
        NO_CONNECTION, "", f"tessctl: {settings.QUEUE_DIR}/1001: No such file or directory: is tessd running?\n"
    )


@pytest.mark.parametrize("command", ASKING, ids=" ".join)
def test_a_daemon_of_an_earlier_version_is_told_from_a_stuck_one(command):
    """It ignores the new kinds, and answers the old ones."""
    with QueueProcess(1001) as earlier:
        stop = threading.Event()

        def answer() -> None:
            earlier.socket.settimeout(0.1)
            while not stop.is_set():
                try:
                    asked = wire.Message.parse(*earlier.socket.recvfrom(65536))
                except TimeoutError:
                    continue
                if asked.kind == wire.UNREGISTER:
                    refusal = wire.record(wire.REPLY, b"Registered process list is empty\0", tag=0xFFFFFFFF)
                    earlier.socket.sendto(refusal, asked.origin)

        thread = threading.Thread(target=answer)
        thread.start()
        try:
            said = f"{settings.QUEUE_DIR}/1001: this tessd does not tell its state: it is of an earlier version"
            tessctl.run(*command).expect(NO_ANSWER, "", f"tessctl: {said}\n")
        finally:
            stop.set()
            thread.join()


def test_a_daemon_that_answers_nothing_is_stuck():
    with QueueProcess(1001):
        tessctl.run("status").expect(
            NO_ANSWER, "", f"tessctl: {settings.QUEUE_DIR}/1001: no answer from tessd within 5 s: is it stuck?\n"
        )


def test_output_that_cannot_be_written_is_a_failure(busy):
    with open("/dev/full", "w", encoding="ascii") as full:
        for command in ASKING[:4]:
            done = subprocess.run([tessctl.PROGRAM, *command], stdout=full, stderr=subprocess.PIPE, text=True, check=False)
            assert (done.returncode, done.stderr) == (REFUSED, "tessctl: standard output: No space left on device\n"), command


# --- metrics


class Family:
    def __init__(self, kind: str) -> None:
        self.kind, self.help = kind, ""
        self.samples: dict[str, float] = {}


LABEL = r'[a-zA-Z_]\w*="(?:[^"\\\n]|\\["\\n])*"'
SAMPLE = re.compile(rf"([a-z_]+)(\{{{LABEL}(?:,{LABEL})*\}})? (-?\d+(?:\.\d+)?)")


def families(text: str) -> dict[str, Family]:
    """Reads OpenMetrics text strictly: any mistake is an error."""
    assert text.endswith("# EOF\n") and text.count("# EOF") == 1, text[-100:]
    found: dict[str, Family] = {}
    name = ""
    for line in text.splitlines()[:-1]:
        if line.startswith("# TYPE "):
            _, _, name, kind = line.split(" ")
            assert name not in found and kind in ("counter", "gauge") and not name.endswith("_total"), line
            found[name] = Family(kind)
        elif line.startswith("# HELP "):
            assert line.split(" ")[2] == name and not found[name].help, line
            found[name].help = line.split(" ", 3)[3]
        else:
            match = SAMPLE.fullmatch(line)
            assert match, f"no sample: {line}"
            assert match[1] == name + ("_total" if found[name].kind == "counter" else ""), f"not of {name}: {line}"
            assert match[2] not in found[name].samples, f"twice: {line}"
            found[name].samples[match[2]] = float(match[3])
    return found


def test_metrics_are_openmetrics_text(busy):
    busy.process.register(b'odd "name\\ \xff')
    found = families(tessctl.run("metrics").expect(DONE, errors="").output)
    assert found["tess_lines"].samples == {None: 2} and found["tess_lines"].kind == "counter"
    assert found["tess_port_connections"].samples == {'{port="xcp"}': 0, '{port="ipc"}': 1}
    assert found["tess_process_commands"].samples == {'{process="ENC"}': 1, '{process="odd \\"name\\\\ \\\\xff"}': 0}
    assert found["tess_processes"].samples == {None: 2}
    assert all(family.help.endswith(".") and family.samples for family in found.values())


def test_the_dashboard_asks_for_what_there_is(busy):
    found = families(tessctl.run("metrics").expect(DONE).output)
    samples = {name + ("_total" if family.kind == "counter" else "") for name, family in found.items()}
    with open(f"{settings.PROJECT}/examples/dashboard.json", encoding="utf-8") as file:
        dashboard = json.load(file)
    panels = dashboard["panels"]
    assert len({panel["id"] for panel in panels}) == len({panel["title"] for panel in panels}) == len(panels) > 10
    asked = set()
    for panel in panels:
        assert panel["targets"] and len({target["refId"] for target in panel["targets"]}) == len(panel["targets"]), panel
        for target in panel["targets"]:
            names = set(re.findall(r"\btess_\w+", target["expr"]))
            assert names and target["legendFormat"], target
            assert target["expr"].count("(") == target["expr"].count(")"), target
            labels = set(re.findall(r"\{\{(\w+)\}\}", target["legendFormat"]))
            known = set(re.findall(r'(\w+)="', "".join(str(s) for name in names for s in found[plain(name)].samples)))
            assert labels <= known, f"{target}: it has the labels {known}"
            asked |= names
    assert asked <= samples, f"there is no {sorted(asked - samples)}"
    assert len(asked) > 15, asked
    taken = [(x, y) for panel in panels for x, y in places(panel["gridPos"])]
    assert len(taken) == len(set(taken)) and max(x for x, _ in taken) < 24, "panels lie on each other"


def plain(sample: str) -> str:
    return sample.removesuffix("_total")


def places(box: dict[str, int]) -> list[tuple[int, int]]:
    return [(x, y) for x in range(box["x"], box["x"] + box["w"]) for y in range(box["y"], box["y"] + box["h"])]


# --- watch


def test_watch_shows_what_passes(busy):
    with tessctl.running("watch", "--count", "6", until="watching") as watch:
        serve_one_command(busy.process, busy.client, b"SETX 5")
        busy.client.ask(b"s3.NONE Y", b"?\r\n")
        busy.client.close()
        output = watch.communicate(timeout=20 * settings.SLOW)[0].splitlines()
    assert watch.returncode == DONE
    assert all(re.match(r"\d\d:\d\d:\d\d\.\d{3} ipc    0xbb010000 ", line) for line in output), output
    assert [" ".join(line.split()[3:]) for line in output] == [
        "line s3.ENC SETX 5",
        "forward process=1500 (ENC)",
        "answer process=1500 (ENC) 0",
        "line s3.NONE Y",
        "refuse s3.NONE Y",
        "disconnect",
    ]


def test_watch_shows_only_what_is_wanted(busy):
    with AnsweringProcess(1501, b"OTHER", lambda _: b"0\r\n\r\n"), XcpClient() as xcp:
        with tessctl.running("watch", "--name", "other", "--json", "--count", "2", until="watching") as named:
            serve_one_command(busy.process, busy.client)
            xcp.ask(b"s3.OTHER X", b"0\r\n\r\n")
            events = [json.loads(line) for line in named.communicate(timeout=20 * settings.SLOW)[0].splitlines()]
        assert [(event["event"], event["process"]) for event in events] == [("forward", 1501), ("answer", 1501)]
        with tessctl.running("watch", "--port", "xcp", "--json", "--count", "3", until="watching") as of_port:
            serve_one_command(busy.process, busy.client)
            xcp.ask(b"s3.OTHER X", b"0\r\n\r\n")
            events = [json.loads(line) for line in of_port.communicate(timeout=20 * settings.SLOW)[0].splitlines()]
        assert [(event["event"], event["port"]) for event in events] == [
            ("line", "xcp"), ("forward", "xcp"), ("answer", "xcp"),
        ]  # fmt: skip


def test_watch_has_colours_on_a_terminal_only(busy):
    with tessctl.on_terminal("watch", "--count", "1") as terminal:
        terminal.expect(b"watching")
        busy.client.ask(b"s3.NONE Y", b"?\r\n")
        terminal.expect(b"\x1b[36mline")
        terminal.expect_end()


def test_watch_goes_on_with_a_new_daemon(start_tessd):
    first = start_tessd()
    with tessctl.running("watch", until="watching") as watch:
        first.stop()
        wait_until(lambda: "is tessd running? It is waited for." in watch.errors(), "it has noticed", 10)
        start_tessd()
        wait_until(lambda: watch.errors().count("watching") == 2, "it watches again", 10)
        with QueueProcess(2001) as asker, IpcClient() as client:
            assert items.of(items.status(asker), "daemon")[0]["watchers"] == 1
            client.ask(b"s3.NONE again", b"?\r\n")
        assert any("refuse     s3.NONE again" in line for line in watch.stdout), "it ended, and had not shown it"
        watch.send_signal(signal.SIGTERM)
        watch.wait(20 * settings.SLOW)
    assert watch.returncode == DONE


def test_watch_ends_with_its_reader(busy):
    with tessctl.running("watch", until="watching") as watch:
        watch.stdout.close()
        busy.client.ask(b"s3.NONE X", b"?\r\n")
        assert watch.wait(20 * settings.SLOW) == DONE


def test_a_ninth_watch_is_refused(tessd):
    watchers = [items.Watcher(3001 + number) for number in range(items.MAX_WATCHERS)]
    tessctl.run("watch").expect(REFUSED, "", "tessctl: tessd has as many watchers as it takes: end another 'tessctl watch'\n")
    for watcher in watchers:
        watcher.close()


def test_watch_with_a_port_that_there_is_none_of_is_wrong_usage():
    tessctl.run("watch", "--port", "usb").expect(WRONG_USAGE, "")


# --- top


COLUMNS, ROWS = 80, 24  # of a Terminal


def expect_row(terminal: tessctl.Terminal, row: str, columns: int = COLUMNS, rows: int = ROWS) -> list[str]:
    """Waits until the screen has a row that begins so; returns all of it."""

    def lines() -> list[str]:
        shown = Screen(columns, rows)
        shown.write(terminal.shown)
        return shown.lines

    def has_row() -> bool:
        terminal.look()
        return any(line.startswith(row) for line in lines())

    wait_until(has_row, f"the screen has the row {row!r}", 10)
    return lines()


def takes_lines(terminal: tessctl.Terminal) -> bool:
    """As a terminal does that no program has changed: a line at a time, and shows what is typed."""
    wanted = termios.ICANON | termios.ECHO
    return terminal.settings()[3] & wanted == wanted


def test_top_renews_itself_and_leaves_the_terminal_as_it_was(busy):
    with tessctl.on_terminal("top", "--interval", "0.1") as terminal:
        terminal.expect(b"\x1b[?1049h")
        expect_row(terminal, "Processes: 1")
        expect_row(terminal, "ENC   1500     1     1")
        serve_one_command(busy.process, busy.client)
        shown = expect_row(terminal, "ENC   1500     2     2")
        assert re.fullmatch(r"tessd \S+, up .*, 0 delays pending", shown[0]), shown
        assert re.fullmatch(r"[\d.]+ lines, .* a second", shown[1]), shown
        assert shown[3:5] == ["Processes: 1", "NAME  ADDRESS  SENT  ANSWERED  QUEUE  PORTS"], shown
        assert shown[7] == "Clients: 1" and shown[9].startswith("ipc   0xbb010000  -     "), shown
        assert not takes_lines(terminal), "keys come one by one"
        terminal.type(b"q")
        assert terminal.expect_end() == DONE
        assert b"\x1b[?1049l" in terminal.shown[-60:], terminal.shown
        assert takes_lines(terminal)


@pytest.mark.parametrize("key", [b"q", b"Q", b"\x1b", b"\x04"])
def test_top_is_left_by_a_key(busy, key):
    with tessctl.on_terminal("top") as terminal:
        expect_row(terminal, "Processes: 1")
        terminal.type(b"x\x1bOA")  # nor does an arrow leave it, as xterm sends it now
        serve_one_command(busy.process, busy.client)
        expect_row(terminal, "ENC   1500     2     2")
        terminal.type(key)
        assert terminal.expect_end() == DONE


def test_top_ends_in_order_at_a_signal(busy):
    with tessctl.on_terminal("top") as terminal:
        expect_row(terminal, "Processes: 1")
        terminal.process.send_signal(signal.SIGTERM)
        assert terminal.expect_end() == DONE
        assert b"\x1b[?1049l" in terminal.shown[-60:], terminal.shown
        assert takes_lines(terminal)


def test_top_fits_a_narrow_terminal_and_one_that_grows(busy):
    for number in range(20):
        busy.process.register(b"P%02d" % number + b"n" * 60)
    with on_narrow_terminal("top", "--interval", "60") as terminal:
        screen = expect_row(terminal, "... there is more", 40, 12)
        assert len(screen) == 12 and max(map(len, screen)) <= 40, screen
        assert screen[0].startswith("tessd ") and screen[-1].startswith("... there is more"), screen
        terminal.shown = b""
        terminal.resize(100, 50)
        screen = expect_row(terminal, "Clients: 1", 100, 50)
        assert len([row for row in screen if re.match("P[0-9]{2}n", row)]) == 20, screen


def test_top_says_so_when_it_cannot_draw(busy):
    with tessctl.Terminal("/usr/bin/env", "TERM=wood", tessctl.PROGRAM, "top") as terminal:
        assert terminal.expect_end() == REFUSED
        assert b"cannot draw on this terminal, TERM is 'wood'" in terminal.shown, terminal.shown


def test_top_ends_when_the_daemon_does(busy, tessd):
    with tessctl.on_terminal("top", "--interval", "0.1") as terminal:
        expect_row(terminal, "Processes: 1")
        tessd.stop()
        assert terminal.expect_end() == NO_CONNECTION
        restored, message = terminal.shown.split(b"\x1b[?1049l")
        assert b"tessctl: " in message, terminal.shown


def test_top_prints_once_into_a_pipe(busy):
    output = tessctl.run("top", "--interval", "0.1").expect(DONE, errors="").output
    assert output.count("tessd ") == 1 and "\x1b" not in output, output
    assert "0.0 lines, 0.0 forwarded, 0.0 answers, 0.0 refused, 0.0 dropped a second" in output
    assert "\nProcesses: 1\nNAME" in output and "\nClients: 1\nPORT" in output


def test_top_counts_rates(busy):
    with subprocess.Popen(
        [tessctl.PROGRAM, "top", "--json", "--count", "3", "--interval", "0.2"], stdout=subprocess.PIPE, text=True
    ) as top:
        while top.poll() is None:
            busy.client.ask(b"s3.NONE Y", b"?\r\n")
        reports = [json.loads(line) for line in top.stdout]
    assert len(reports) == 3 and list(reports[0])[-1] == "rates"
    for report in reports:
        rates = report["rates"]
        # A look may fall between a line and its refusal, at either end of an interval.
        assert rates["lines"] > 0 and abs(rates["lines"] - rates["refused"]) <= 2 / 0.2, rates
        assert rates["forwarded"] == 0


@pytest.mark.parametrize("name", ["vt100", "linux", "screen", "xterm-256color"])
def test_top_draws_on_terminals_of_other_kinds(busy, name):
    with tessctl.Terminal("/usr/bin/env", f"TERM={name}", tessctl.PROGRAM, "top") as terminal:
        screen = expect_row(terminal, "ENC   1500     1     1")
        assert screen[3] == "Processes: 1" and screen[7] == "Clients: 1", screen
        terminal.type(b"q")
        assert terminal.expect_end() == DONE
