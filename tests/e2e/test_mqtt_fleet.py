"""tessctl fleet: a line to many devices through a broker."""

from __future__ import annotations

import json
import os
import shutil
import subprocess
import signal
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor

import pytest

from harness import tessctl
from harness.mqtt import Bridge, Broker, FakeBroker, asker, needs_bridge
from harness.queue_process import AnsweringProcess, QueueProcess
from harness.tessctl import needs_tessctl
from harness.waiting import wait_until

pytestmark = [needs_bridge, needs_tessctl]

SETTINGS = "/tmp/fleet.conf"


@pytest.fixture(autouse=True)
def broker() -> Iterator[Broker]:
    os.environ["TESS_FLEET"] = SETTINGS
    with open(SETTINGS, "w", encoding="ascii") as file:
        file.write("broker = 127.0.0.1\nplain = yes\n")
    broker = Broker()
    yield broker
    broker.kill()


@pytest.fixture
def devices(tessd) -> Iterator[list[Bridge]]:
    with AnsweringProcess(2100, b"THERM", lambda command: b"one\r\ntwo\r\n\r\n" if command == b"GET" else b"Error: no\r\n\r\n"):
        bridges = [Bridge("groups = hall", device="d1"), Bridge("groups = hall, yard", device="d2"), Bridge(device="d3")]
        for bridge in bridges:
            bridge.wait_connected()
        wait_until(lambda: "THERM" in fleet("status", "d3").output, "the device's status names its process", 20)
        yield bridges
        for bridge in bridges:
            if bridge.process.poll() is None:
                bridge.stop()


def fleet(*arguments: str) -> tessctl.Result:
    return tessctl.run("fleet", *arguments)


def rows(text: str) -> list[list[str]]:
    return [line.split() for line in text.splitlines()]


def test_status_is_a_table_of_the_devices(devices):
    result = fleet("status").expect(tessctl.DONE, errors="")
    assert rows(result.output) == [
        ["DEVICE", "STATUS", "TESSD", "GROUPS", "PROCESSES"],
        ["d1", "online", "1.0.0", "hall", "THERM"],
        ["d2", "online", "1.0.0", "hall,yard", "THERM"],
        ["d3", "online", "1.0.0", "-", "THERM"],
    ]
    assert [row[0] for row in rows(fleet("status", "--group", "yard").expect(tessctl.DONE).output)] == ["DEVICE", "d2"]
    devices[0].kill()
    wait_until(lambda: fleet("status").status == tessctl.NO_ANSWER, "d1 is offline", 10)
    states = json.loads(fleet("status", "--json").expect(tessctl.NO_ANSWER).output)
    assert [(state["device"], state["status"]) for state in states] == [("d1", "offline"), ("d2", "online"), ("d3", "online")]


@pytest.mark.parametrize(
    ("to", "answering"), [(["--all"], "d1 d2 d3"), (["--group", "hall"], "d1 d2"), (["d3"], "d3"), (["d1", "d3"], "d1 d3")]
)
def test_a_line_goes_to_those_that_are_meant(devices, to, answering):
    names = answering.split()
    result = fleet("send", "s3.THERM GET", *to).expect(tessctl.DONE, errors=f"{len(names)} answered\n")
    table = rows(result.output)
    assert table[0] == ["DEVICE", "STATUS", "MS", "ANSWER"]
    assert [row[0] for row in table[1::2]] == names and all(row[1] == "answered" for row in table[1::2])
    assert table[2::2] == len(names) * [["two"]]
    answers = json.loads(fleet("send", "s3.THERM GET", *to, "--json").expect(tessctl.DONE, errors="").output)
    assert [(each["device"], each["status"], each["answer"]) for each in answers] == [
        (name, "answered", "one\ntwo") for name in names
    ]
    assert all(isinstance(each["ms"], int) for each in answers)


def test_the_exit_status_tells_whether_all_have_answered(devices):
    fleet("send", "s3.THERM BOIL", "--all").expect(tessctl.REFUSED, errors="3 refused\n")
    fleet("send", "*", "d1", "nobody").expect(tessctl.NO_ANSWER, errors="1 answered, 1 unknown\n")
    devices[0].kill()
    wait_until(lambda: fleet("status").status == tessctl.NO_ANSWER, "d1 is offline", 10)
    fleet("send", "*", "--all").expect(tessctl.NO_ANSWER, errors="2 answered, 1 offline\n")
    fleet("send", "*", "--all", "-H", "x y").expect(tessctl.WRONG_USAGE)


def test_a_device_that_does_not_answer_in_time_is_told(devices):
    devices[2].process.send_signal(19)
    result = fleet("send", "*", "--all", "--wait", "2").expect(tessctl.NO_ANSWER, errors="2 answered, 1 no answer\n")
    devices[2].process.send_signal(18)
    assert rows(result.output)[3] == ["d3", "no", "answer", "-"]


def test_a_device_may_be_named_twice_and_an_unknown_one_is_told(devices):
    assert [row[:2] for row in rows(fleet("status", "d1", "d1").expect(tessctl.DONE).output)[1:]] == [["d1", "online"]]
    fleet("send", "*", "d1", "d1", "nobody", "nobody").expect(tessctl.NO_ANSWER, errors="1 answered, 1 unknown\n")
    states = json.loads(fleet("status", "d1", "nobody", "--json").expect(tessctl.NO_ANSWER).output)
    assert [(state["device"], state["status"]) for state in states] == [("d1", "online"), ("nobody", "unknown")]


def test_a_device_speaks_only_for_itself(devices):
    with asker() as liar:
        liar.subscribe("tess/d9/status")
        for name in ("d1", "d7"):
            liar.publish("tess/d9/status", json.dumps({"status": "offline", "device": name, "groups": []}), retain=True)
            liar.wait_for("tess/d9/status", name)
    states = json.loads(fleet("status", "--json").expect(tessctl.DONE).output)
    assert [(state["device"], state["status"]) for state in states] == [(name, "online") for name in ("d1", "d2", "d3")]


def test_a_line_is_sent_again_when_the_broker_was_away_and_carried_out_once(devices, broker):
    with QueueProcess(2200) as slow, ThreadPoolExecutor() as others:
        slow.register(b"SLOW")
        result = others.submit(fleet, "send", "s3.SLOW GO", "d1", "--wait", "15")
        command = slow.expect_command(b"GO")
        broker.kill()
        devices[0].wait_log("55011")
        broker.start()
        devices[0].wait_connected(2)
        slow.reply(command.tag, b"done\r\n\r\n")
        table = rows(result.result().expect(tessctl.DONE, errors="1 answered\n").output)
        assert (table[1][:2], table[1][3:]) == (["d1", "answered"], ["done"]), table
        assert slow.waiting() == []


def test_an_interrupt_ends_the_waiting_and_tells_what_there_is(devices):
    devices[2].process.send_signal(signal.SIGSTOP)
    try:
        terminal = tessctl.on_terminal("fleet", "send", "*", "--all", "--config", SETTINGS, "--wait", "60")
        terminal.wait_for(b"2 of 3 have answered", 20)
        terminal.type(b"\x03")
        terminal.wait_for(b"2 answered, 1 no answer", 20)
        assert terminal.wait_end(20) == tessctl.NO_ANSWER
        terminal.close()
    finally:
        devices[2].process.send_signal(signal.SIGCONT)


def test_what_is_wrong_is_said_with_what_to_do(devices, broker):
    for arguments, said in [
        (["send", "*"], "fleet send wants one of --all, --group GROUP, and names of devices"),
        (["send", "*", "--all", "d1"], "fleet send wants one of --all, --group GROUP, and names of devices"),
        (["send", "a\rb", "--all"], "a line with a carriage return or a NUL in it would become two commands"),
        (["status", "--config", "/tmp/none"], "/tmp/none: No such file or directory: 'fleet' wants a file"),
        (["sned"], "no command 'sned': do you mean 'send'?"),
        ([], "the commands are send, status"),
    ]:
        result = fleet(*arguments).expect(tessctl.WRONG_USAGE, output="")
        assert result.errors.startswith(f"tessctl: {said}"), result.errors
    nobody = fleet("send", "*", "--group", "attic").expect(tessctl.NO_ANSWER, output="")
    assert nobody.errors == "tessctl: no device of the group 'attic' has been seen: 'tessctl fleet status' names them all\n"
    broker.kill()
    away = fleet("status", "-w", "1").expect(tessctl.NO_CONNECTION, output="")
    assert away.errors.startswith("tessctl: 127.0.0.1:1883: no answer within 1 s: "), away.errors


def test_progress_is_shown_at_a_terminal(devices):
    terminal = tessctl.on_terminal("fleet", "send", "*", "--all", "--config", SETTINGS)
    terminal.wait_for(b"3 of 3 have answered", 20)
    terminal.wait_for(b"3 answered", 20)
    terminal.close()


def test_before_any_device_was_there_that_is_said():
    for arguments in (["status"], ["send", "*", "--all"]):
        result = fleet(*arguments).expect(tessctl.NO_ANSWER)
        assert arguments == ["status"] or "127.0.0.1:1883: no device has ever been seen there" in result.errors, result.errors


def test_a_status_that_is_none_is_passed_over(devices):
    with asker() as somebody:
        somebody.publish("tess/d9/status", "{", retain=True).wait_for_publish(10)
    assert [row[0] for row in rows(fleet("status").expect(tessctl.DONE).output)] == ["DEVICE", "d1", "d2", "d3"]


def test_its_settings_are_found_without_being_named(devices, monkeypatch):
    own = "/tmp/home/.config/tess/fleet.conf"
    monkeypatch.delenv("TESS_FLEET")
    monkeypatch.setenv("HOME", "/tmp/home")
    away = fleet("status").expect(tessctl.WRONG_USAGE, output="")
    assert away.errors.startswith("tessctl: /etc/tess/fleet.conf: No such file or directory"), away.errors
    os.makedirs(os.path.dirname(own))
    for text, status in [("plain = yes\n", tessctl.WRONG_USAGE), ("broker = 127.0.0.1\nplain = yes\n", tessctl.DONE)]:
        with open(own, "w", encoding="ascii") as file:
            file.write(text)
        result = fleet("status").expect(status)
        assert status == tessctl.DONE or result.errors.startswith(f"tessctl: {own}: it does not name a broker"), result.errors
    assert len(rows(result.output)) == 4


def test_a_broker_that_lets_nobody_hear_is_told():
    FakeBroker(lambda client: client.recv(1), granted=b"\x01\x87")
    with open("/tmp/refused.conf", "w", encoding="ascii") as file:
        file.write("broker = 127.0.0.1:1885\nplain = yes\n")
    refused = fleet("status", "--config", "/tmp/refused.conf").expect(tessctl.NO_CONNECTION, output="")
    assert "127.0.0.1:1885: the broker does not let you subscribe to " in refused.errors, refused.errors


def test_without_its_program_it_says_where_that_comes_from():
    os.mkdir("/tmp/alone")
    shutil.copy(tessctl.PROGRAM, "/tmp/alone/tessctl")
    done = subprocess.run(["/tmp/alone/tessctl", "fleet", "status"], capture_output=True, text=True, check=False)
    assert (done.returncode, done.stdout) == (tessctl.NO_CONNECTION, ""), done
    assert "tessctl-fleet" in done.stderr and "libmosquitto" in done.stderr, done.stderr
