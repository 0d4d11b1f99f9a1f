"""The bridge to a broker of MQTT 5: what becomes of a request, whatever trouble it meets."""

from __future__ import annotations

import contextlib
import json
import os
import random
import signal
import socket
import subprocess
import time
from collections.abc import Callable, Iterator

import pytest

from harness import settings, wire
from harness.clients import IpcClient, XcpClient
from harness.daemon import Daemon
from harness.mqtt import (
    COMMAND,
    Bridge,
    Broker,
    FakeBroker,
    FullListener,
    Requester,
    asker,
    make_certificates,
    needs_bridge,
    needs_tls,
    status_of,
)
from harness.queue_process import AnsweringProcess, QueueProcess
from harness.tessctl import held
from harness.waiting import Stopwatch, wait_until

pytestmark = needs_bridge


@pytest.fixture
def broker() -> Iterator[Broker]:
    broker = Broker()
    yield broker
    broker.kill()


@pytest.fixture
def start_bridge(broker: Broker) -> Iterator[Callable[..., Bridge]]:
    started = []

    def start(*lines: str, **options: object) -> Bridge:
        started.append(Bridge(*lines, **options))
        return started[-1].wait_connected()

    yield start
    for bridge in started:
        if bridge.process.poll() is None:
            bridge.stop()


@pytest.fixture
def bridge(tessd: Daemon, start_bridge: Callable[..., Bridge]) -> Bridge:
    return start_bridge()


@pytest.fixture
def ask(broker: Broker) -> Iterator[Requester]:
    with asker() as requester:
        yield requester


def thermometer(command: bytes) -> bytes:
    return {b"GET": b"20\r\n\r\n", b"LINES": b"one\r\ntwo\r\n\r\n"}.get(command, b"Error: no such command\r\n\r\n")


@pytest.fixture
def therm(tessd: Daemon) -> Iterator[AnsweringProcess]:
    with AnsweringProcess(2100, b"THERM", thermometer) as process:
        yield process


class Slow(QueueProcess):
    """Answers when it is told to."""

    def __init__(self) -> None:
        super().__init__(2200)
        self.register(b"SLOW")


@pytest.fixture
def slow(tessd: Daemon) -> Iterator[Slow]:
    with Slow() as process:
        yield process


# What a request gets

ANSWERS = [
    ("s3.THERM GET", "answered", "20"),
    ("s3.THERM GET\n", "answered", "20"),
    ("s3.THERM GET\r\n", "answered", "20"),
    ("  s3.THERM   GET", "answered", "20"),
    ("s3.THERM LINES", "answered", "one\ntwo"),
    ("s3.THERM GET|s3.THERM LINES", "answered", "20\none\ntwo"),
    ("s3.THERM BOIL", "refused", "Error: no such command"),
    ("s3.THERM GET|s3.THERM BOIL", "refused", "20\nError: no such command"),
    ("s3.NONE GET", "refused", "?"),
    ("s4.THERM GET", "refused", "?"),
    ("$x", "refused", "?"),
    ("$x|s3.NONE GET|$y", "refused", "?\n?\n?"),
    ("*", "answered", "0"),
    ("*|*|*", "answered", "0\n0\n0"),
    ("*|$|$x|*|*", "refused", "0\n?\n?\n0\n0"),
    ("DELAY", "answered", "OK"),
    ("DELAY nonsense", "refused", "Error Setting Command: Invalid Arguments."),
    ("DELAY 3600000|s3.THERM GET|*", "answered", "OK"),
    ("RESET", "refused", "Error: this command may not come from afar: the bridge's filter says so"),
    (" reset REINIT s3", "refused", "Error: this command may not come from afar: the bridge's filter says so"),
    ("DELAY 5| RESET", "refused", "Error: this command may not come from afar: the bridge's filter says so"),
    ("", "refused", "Error: an empty line is no command"),
    (" \t ", "refused", "Error: an empty line is no command"),
    (b"s3.THERM\0GET", "refused", "Error: a request is one line, without a line end or a NUL in it"),
    ("s3.THERM GET\ns3.THERM GET", "refused", "Error: a request is one line, without a line end or a NUL in it"),
    ("s3.THERM GET\rs3.THERM GET", "refused", "Error: a request is one line, without a line end or a NUL in it"),
    ("s3.THERM " + 1016 * "x", "refused", "Error: a line has 1006 bytes at most, and this has 1025"),
    ("s3.THERM " + 997 * "x", "refused", "Error: no such command"),
    ("*|" * 64 + "*", "refused", "Error: a line has 64 commands at most"),
    ("*|" * 63 + "*", "answered", "\n".join(64 * "0")),
]


def test_what_a_request_gets(bridge, therm, ask):
    wrong = []
    for number, (line, status, text) in enumerate(ANSWERS):
        answer = ask.ask(line, b"%d" % number)
        if (answer.status, answer.text, answer.device) != (status, text, "d1"):
            wrong.append(f"{line!r}: expected {status} {text!r}, got {answer}")
    assert not wrong, "\n".join(wrong)
    assert therm.answered == 11  # no command more often than once


def test_a_delayed_line_is_kept_without_a_line_end(bridge, ask):
    ask.expect("DELAY 999:0:0:0|s3.NONE x", "answered", "OK", correlation=b"delay")
    with XcpClient() as client:
        client.send_frame(b"DELAY")
        listing = client.receive_frame().line
    assert listing.endswith(b" s3.NONE x\r\n\r\n"), listing


def test_mosquitto_rr_is_a_whole_client(bridge, therm):
    done = subprocess.run(
        ["mosquitto_rr", "-V", "5", "-h", "127.0.0.1", "-t", "tess/d1/command", "-e", "any/topic", "-W", "10"]
        + ["-D", "publish", "correlation-data", "one", "-m", "s3.THERM GET", "-F", "%P %D %p"],
        text=True,
        capture_output=True,
        timeout=20 * settings.SLOW,
        check=False,
    )
    assert done.returncode == 0, done
    assert "status:answered" in done.stdout and "device:d1" in done.stdout and done.stdout.split()[-1] == "20", done.stdout


def test_a_request_without_correlation_data_is_answered_without(bridge, therm, ask):
    for _ in range(2):
        ask.expect("s3.THERM GET", "answered", "20")
    assert therm.answered == 2


def test_all_and_groups_are_answered_with_the_name_of_the_device(tessd, start_bridge, therm, ask):
    start_bridge("groups = hall, yard", device="d1")
    start_bridge("groups = yard", device="d2")
    start_bridge(device="d3")
    for topic, devices in [("all", "d1 d2 d3"), ("group/yard", "d1 d2"), ("group/hall", "d1")]:
        ask.send("s3.THERM GET", b"x" + topic.encode(), topic=f"tess/{topic}/command")
        answers = [ask.receive() for _ in devices.split()]
        assert sorted(answer.device for answer in answers) == devices.split(), answers
        assert {answer.text for answer in answers} == {"20"}
    ask.expect_nothing_more()


# Trouble


def test_a_process_that_does_not_answer_is_a_timeout_and_its_late_answer_goes_to_nobody(tessd, start_bridge, slow, therm, ask):
    start_bridge("timeout = 1")
    ask.send("s3.SLOW GO", b"slow")
    command = slow.expect_command(b"GO")
    ask.expect("s3.THERM GET", "answered", "20", correlation=b"meanwhile")  # it holds up nobody
    answer = ask.receive()
    assert (answer.status, answer.correlation) == ("timeout", b"slow"), answer
    assert answer.text == "Error: no answer within 1 s: it may have been carried out, or may still be"
    slow.reply(command.tag, b"late\r\n\r\n")
    ask.expect_nothing_more()


def test_answers_find_their_requests_whatever_their_order(bridge, slow, ask):
    for number in range(8):
        ask.send(f"s3.SLOW {number}", b"c%d" % number)
    commands = [slow.expect_command(b"%d" % number) for number in range(8)]
    ask.expect("s3.NONE x", "refused", "?", correlation=b"none")  # tessd's own, among them
    for command in reversed(commands):
        slow.reply(command.tag, b"answer " + command.line.strip() + b"\r\n\r\n")
    got = [ask.receive() for _ in range(8)]
    assert [(each.correlation, each.text) for each in got] == [(b"c%d" % n, f"answer {n}") for n in range(7, -1, -1)]


def test_a_refusal_is_told_from_others_although_its_tag_is_anybodys(bridge, slow, ask):
    with XcpClient() as other:
        for number in range(1, 40):
            # What another client forwards leaves its tag in the daemon's record, for the bridge's refusals to carry.
            other.send_frame(b"s3.SLOW other\n", tag=number)
            slow.reply(slow.expect_command(b"other").tag, b"to the other\r\n\r\n")
            other.expect_frame(b"to the other\r\n\r\n", tag=number)
            ask.send("s3.SLOW mine", b"mine%d" % number)
            mine = slow.expect_command(b"mine")
            ask.expect("$refused", "refused", "?", correlation=b"no%d" % number)
            slow.reply(mine.tag, b"mine\r\n\r\n")
            answer = ask.receive()
            assert (answer.correlation, answer.status, answer.text) == (b"mine%d" % number, "answered", "mine")


def test_a_frame_tells_whether_a_process_or_tessd_has_answered(tessd, therm):
    """What the bridge goes by."""
    with XcpClient() as client:
        client.send_frame(b"s3.THERM GET\n", tag=7)
        answer = client.receive_frame()
        assert (answer.kind, answer.sender, answer.tag, answer.line) == (wire.REPLY, 2100, 7, b"20\r\n\r\n"), answer
        for line in (b"*", b"$", b"s3.NONE x", b"DELAY", b"DELAY x", b"RESET nonsense"):
            client.send_frame(line + b"\n", tag=7)
            answer = client.receive_frame()
            assert answer.kind == wire.TEXT_KIND, (line, answer)


def test_a_full_queue_is_refused(bridge, slow, ask):
    slow.fill(2200)
    answer = ask.ask("s3.SLOW GO", b"full")
    assert (answer.status, answer.text) == ("refused", "?"), answer
    assert answer.ms >= 200, answer
    slow.waiting()
    ask.send("s3.SLOW AGAIN", b"room")
    slow.reply(slow.expect_command(b"AGAIN").tag, b"done\r\n\r\n")
    assert ask.receive().text == "done"


def test_more_than_the_bridge_takes_at_a_time_is_busy(tessd, start_bridge, slow, ask):
    start_bridge("in_flight = 3")
    for number in range(5):
        ask.send(f"s3.SLOW {number}", b"%d" % number)
    commands = [slow.expect_command(b"%d" % number) for number in range(3)]
    busy = [ask.receive() for _ in range(2)]
    assert [(each.status, each.correlation) for each in busy] == [("busy", b"3"), ("busy", b"4")]
    for command in commands:
        slow.reply(command.tag, b"done\r\n\r\n")
    assert [ask.receive().status for _ in range(3)] == 3 * ["answered"]
    # What was busy was not carried out, and may be asked again with the same correlation data.
    ask.send("s3.SLOW 3", b"3")
    slow.reply(slow.expect_command(b"3").tag, b"now\r\n\r\n")
    assert ask.receive().text == "now"


def test_a_duplicate_is_carried_out_once_and_answered_again(bridge, therm, ask):
    for _ in range(3):
        ask.expect("s3.THERM GET", "answered", "20", correlation=b"same")
    assert therm.answered == 1
    with asker() as other:  # the same correlation data of another asker is another request
        other.expect("s3.THERM GET", "answered", "20", correlation=b"same")
    assert therm.answered == 2


def test_another_line_with_the_same_correlation_data_is_another_request(bridge, therm, ask):
    ask.expect("s3.THERM GET", "answered", "20", correlation=b"same")
    ask.expect("s3.THERM LINES", "answered", "one\ntwo", correlation=b"same")
    ask.expect("s3.THERM GET", "answered", "20", correlation=b"same")
    assert therm.answered == 2


def test_a_duplicate_of_what_is_under_way_is_one_with_it(bridge, slow, ask):
    for _ in range(3):
        ask.send("s3.SLOW GO", b"same")
    command = slow.expect_command(b"GO")
    ask.expect_nothing_more()
    slow.reply(command.tag, b"done\r\n\r\n")
    assert ask.receive().text == "done"
    ask.expect("*", "answered", "0", correlation=b"end")
    assert slow.waiting() == []


def test_a_duplicate_is_known_after_the_bridge_was_killed(bridge, therm, ask):
    ask.expect("s3.THERM GET", "answered", "20", correlation=b"same")
    bridge.kill()
    bridge.start()
    bridge.wait_connected(2)
    answer = ask.ask("s3.THERM GET", b"same")
    assert (answer.status, answer.text) == (
        "timeout",
        "Error: it was taken before, and its answer is not known any more",
    )
    ask.expect("s3.THERM GET", "answered", "20", correlation=b"another")
    assert therm.answered == 2


def test_an_expired_request_is_not_carried_out(bridge, therm, tessd, ask):
    with held(tessd):
        ask.send("s3.THERM GET", b"first")
        ask.send("s3.THERM GET", b"second", expiry=1)
        time.sleep(1.5)  # time itself is what expires
    answers = {each.correlation: each for each in (ask.receive(), ask.receive())}
    assert answers[b"first"].status == "answered", answers
    assert (answers[b"second"].status, answers[b"second"].text) == (
        "timeout",
        "Error: it has expired, and was not carried out",
    )
    ask.expect_nothing_more()
    assert therm.answered == 1


def test_a_stopped_daemon_makes_timeouts_and_what_it_has_not_come_to_is_busy(tessd, start_bridge, therm, ask):
    start_bridge("timeout = 1")
    with held(tessd):
        ask.send("s3.THERM GET", b"1")
        ask.send("s3.THERM GET", b"2")
        got = {each.correlation: each.status for each in (ask.receive(), ask.receive())}
        assert got == {b"1": "timeout", b"2": "busy"}
    ask.expect("s3.THERM GET", "answered", "20", correlation=b"3")
    assert therm.answered == 2  # the first one was carried out after all, as its answer says; the second was not


def test_an_offline_device_answers_nothing_and_its_status_says_so(bridge, ask):
    ask.subscribe("tess/+/status")
    assert status_of(ask.wait_for("tess/d1/status", "online"))["device"] == "d1"
    bridge.kill()
    ask.wait_for("tess/d1/status", "offline")
    ask.send("*", b"nobody").wait_for_publish(10 * settings.SLOW)
    bridge.start()
    ask.wait_for("tess/d1/status", "online")
    ask.expect_nothing_more()  # nobody's request has been kept for it


def test_a_request_for_another_device_is_for_nobody_here(bridge, therm, ask):
    ask.send("s3.THERM GET", b"other", device="d2")
    ask.expect_nothing_more()
    assert therm.answered == 0


def test_what_nobody_could_be_told_of_is_not_carried_out(bridge, therm, ask):
    ask.publish("tess/d1/command", "s3.THERM GET")
    ask.publish("tess/d1/command", "s3.THERM GET", ResponseTopic="tess/d1/command", CorrelationData=b"1")
    ask.publish("tess/d1/command", "s3.THERM GET", ResponseTopic="tess/d1/status", CorrelationData=b"2")
    ask.publish("tess/d1/command", "s3.THERM GET", ResponseTopic="tess", CorrelationData=b"3")
    ask.publish("tess/d1/command", "s3.THERM GET", retain=True, ResponseTopic=ask.topic)
    assert ask.receive().text == "20"  # delivered while it is connected, it is not a retained one
    bridge.kill()
    bridge.start()
    bridge.wait_connected(2)
    ask.expect_nothing_more()
    assert therm.answered == 1


def test_the_filter_decides_by_its_first_rule_that_matches(tessd, start_bridge, therm, ask):
    start_bridge("filter = deny *.therm lines", "filter = allow s3.THERM *", "filter = deny *")
    ask.expect("s3.THERM  GET", "answered", "20")
    denied = "Error: this command may not come from afar: the bridge's filter says so"
    for line in ("s3.THERM   LINES", "S3.THERM lines", "*", "GET", "s3.THERM GET|*", "DELAY"):
        ask.expect(line, "refused", denied)
    assert therm.answered == 1


def test_a_broker_that_comes_later_finds_the_device(tessd, therm, broker):
    broker.kill()
    bridge = Bridge()
    bridge.wait_log("55011")
    broker.start()
    watch = Stopwatch()
    bridge.wait_connected(within=10)
    assert watch.seconds() < 10 * settings.SLOW
    with asker() as ask:
        ask.expect("s3.THERM GET", "answered", "20")
    bridge.stop()


def test_a_broker_that_goes_before_the_answer_gets_it_when_it_is_back(tessd, slow):
    keeping = "persistence true\npersistence_location /tmp/\nautosave_on_changes true\nautosave_interval 1\n"
    broker = Broker("listener 1883 127.0.0.1\nallow_anonymous true\n" + keeping)
    bridge = Bridge().wait_connected()
    with asker(session=300) as ask:
        ask.send("s3.SLOW GO", b"before")
        command = slow.expect_command(b"GO")
        broker.kill(signal.SIGTERM)
        bridge.wait_log("55011")
        slow.reply(command.tag, b"done\r\n\r\n")
        time.sleep(0.5)  # the answer waits for the broker
        broker.start()
        answer = ask.receive(20)
        assert (answer.correlation, answer.status, answer.text) == (b"before", "answered", "done")
        ask.expect_nothing_more()
        assert slow.waiting() == []
    bridge.stop()
    broker.kill()


def test_where_tessd_has_no_room_for_it_the_bridge_tries_with_growing_pauses(tessd, broker, ask):
    ask.subscribe("tess/d1/status")
    with contextlib.ExitStack() as others:
        for _ in range(10):
            others.enter_context(XcpClient()).ask(b"*", b"0\r\n\r\n")
        bridge = Bridge().wait_connected()
        bridge.wait_log("55021")
        time.sleep(6)  # pauses of 0.5, 1, 2 and 4 s, each a quarter shorter at most
        tries = bridge.log_text().count("55020")
        assert 2 <= tries <= 5, bridge.log_text()
        answer = ask.ask("*", b"no room")
        assert answer.status in ("timeout", "refused"), answer  # whether it was still connected just then
    ask.wait_for("tess/d1/status", '"tessd":"', 20)
    ask.expect("*", "answered", "0", correlation=b"there is room")
    bridge.stop()


def test_names_come_also_when_the_queue_directory_was_made_anew(start_tessd, start_bridge, ask):
    tessd = start_tessd()
    bridge = start_bridge()
    ask.subscribe("tess/d1/status")
    ask.wait_for("tess/d1/status", '"tessd":"')
    tessd.kill()
    os.unlink(os.path.join(settings.QUEUE_DIR, str(1_000_000_000 + bridge.pid)))
    start_tessd()
    ask.wait_for("tess/d1/status", '"tessd":"', 20)


def test_answers_that_the_broker_takes_are_not_counted_as_lost(tessd, start_bridge, ask):
    bridge = start_bridge("answer_keep = 0", "in_flight = 1000", "timeout = 60")
    for number in range(300):
        ask.send("*", b"%d" % number)
    got = [ask.receive() for _ in range(300)]
    assert {answer.status for answer in got} == {"answered"} and len({answer.correlation for answer in got}) == 300
    assert "55031" not in bridge.log_text(), bridge.log_text()


def test_an_answer_that_is_too_long_for_the_broker_is_told_in_short(tessd, therm):
    small = Broker("listener 1887 127.0.0.1\nallow_anonymous true\nmax_packet_size 600\n", 1887)
    bridge = Bridge(broker="broker = 127.0.0.1:1887\nplain = yes").wait_connected()
    with AnsweringProcess(2300, b"LONG", lambda _: 1000 * b"y" + b"\r\n\r\n"), asker(1887) as ask:
        said = "Error: it was carried out, but the broker takes no answer of 1000 bytes"
        ask.expect("s3.LONG x", "timeout", said, correlation=b"long")
        ask.expect("s3.THERM GET", "answered", "20", correlation=b"next")
    assert "55031" not in bridge.log_text(), bridge.log_text()
    bridge.stop()
    small.kill()


def test_a_will_that_comes_late_does_not_leave_it_offline(tessd, start_bridge, ask):
    start_bridge("keep_alive = 5")
    ask.subscribe("tess/d1/status")
    ask.wait_for("tess/d1/status", "online")
    ask.publish("tess/d1/status", '{"status":"offline","device":"d1"}', retain=True)
    ask.wait_for("tess/d1/status", "offline")
    ask.wait_for("tess/d1/status", "online", 20)


def test_answers_are_not_kept_for_ever(tessd, slow, broker):
    bridge = Bridge("answer_keep = 1").wait_connected()
    with asker() as ask:
        ask.send("s3.SLOW GO", b"lost")
        command = slow.expect_command(b"GO")
        broker.kill()
        bridge.wait_log("55011")
        slow.reply(command.tag, b"done\r\n\r\n")
        bridge.wait_log("55031")
    bridge.stop()


def test_tessd_may_end_and_come_back(start_tessd, start_bridge, ask):
    tessd = start_tessd()
    bridge = start_bridge()
    ask.subscribe("tess/d1/status")
    slow = Slow()
    ask.send("s3.SLOW GO", b"under way")
    slow.expect_command(b"GO")
    tessd.kill()
    answer = ask.receive()
    assert (answer.status, answer.correlation) == ("timeout", b"under way"), answer
    ask.wait_for("tess/d1/status", '"tessd":null')
    ask.expect("*", "refused", "Error: tessd is not there", correlation=b"away")
    slow.close()
    start_tessd()
    ask.wait_for("tess/d1/status", '"tessd":"', 20)
    ask.expect("*", "answered", "0", correlation=b"away")  # it was not carried out, so it is a new one
    assert bridge.log_text().count("55020") == 2


def test_status_names_who_is_registered(bridge, ask, tessd):
    ask.subscribe("tess/d1/status")
    with AnsweringProcess(2100, b"THERM", thermometer):
        text = ask.wait_for("tess/d1/status", "THERM", 30)  # it looks again after a while
    status = status_of(text)
    assert set(status) == {"status", "device", "groups", "tessd", "names", "bridge"}
    assert (status["status"], status["names"]) == ("online", ["THERM"])


def test_metrics_come_at_an_interval(tessd, start_bridge, therm, ask):
    ask.subscribe("tess/d1/metrics")
    start_bridge("metrics = 1")
    ask.expect("s3.THERM GET", "answered", "20")
    ask.expect("s3.THERM BOIL", "refused", "Error: no such command")
    text = ask.wait_for("tess/d1/metrics", 'tess_mqtt_requests_total{status="refused"} 1')
    assert 'tess_mqtt_requests_total{status="answered"} 1\n' in text
    assert "tess_commands_forwarded_total 2\n" in text and text.endswith("# EOF\n") and text.count("# EOF") == 1


def test_events_come_when_they_are_asked_for(tessd, start_bridge, therm, ask):
    start_bridge("events = asked")
    ask.subscribe("tess/d1/event")
    with IpcClient() as client:
        client.ask(b"s3.THERM GET", b"20\r\n\r\n")
        ask.publish("tess/d1/watch", "30")

        def asked_and_seen() -> bool:
            client.ask(b"s3.THERM GET", b"20\r\n\r\n")
            return not ask.others.empty()

        wait_until(asked_and_seen, "events come", 10)
        events = [json.loads(ask.wait_for("tess/d1/event", f'"event":"{word}"')) for word in ("forward", "answer")]
        assert events[1]["text"] == "20\r\n\r\n"
        ask.publish("tess/d1/watch", "0")
        wait_until(lambda: b"watchers=0" in status_bytes(tessd), "nobody watches any more", 10)


def status_bytes(tessd: Daemon) -> bytes:
    with QueueProcess(2999) as process:
        process.send(wire.record(wire.STATUS, tag=1))
        return process.receive().text


def test_events_leave_out_fences_and_nothing_else(tessd, start_bridge, therm, ask):
    start_bridge("events = always")
    ask.subscribe("tess/d1/event")
    wait_until(lambda: b"watchers=1" in status_bytes(tessd), "the bridge watches", 10)
    with XcpClient() as client:
        client.send_frame(b"*.THERM GET")
        client.expect_frame(b"20\r\n\r\n")
        client.send_frame(b"$")
        client.expect_frame(b"?\r\n")
    ask.expect("*|s3.THERM GET", "answered", "0\n20", correlation=b"star")
    ask.expect("$", "refused", "?", correlation=b"mine")
    with IpcClient() as client:
        client.ask(b"s3.THERM LAST", b"Error: no such command\r\n\r\n")
    seen = []
    while not seen or "s3.THERM LAST" not in seen[-1]:
        event = json.loads(ask.wait_for("tess/d1/event", ""))
        if event["event"] in ("line", "refuse"):
            seen.append(f"{event['event']} {event['text']}")
    expected = ["line *.THERM GET", "line $", "refuse $", "line *|s3.THERM GET", "line $", "refuse $", "line s3.THERM LAST"]
    assert seen == expected, seen


def test_a_wish_for_events_ends_also_when_the_broker_was_away(tessd, start_bridge, broker, ask):
    bridge = start_bridge("events = asked")
    ask.publish("tess/d1/watch", "4")
    wait_until(lambda: b"watchers=1" in status_bytes(tessd), "the bridge watches", 10)
    broker.kill()
    bridge.wait_log("55011")
    broker.start()
    bridge.wait_connected(2)
    wait_until(lambda: b"watchers=0" in status_bytes(tessd), "nobody watches any more", 15)


def test_events_do_not_come_where_they_are_not_allowed(bridge, therm, ask):
    ask.subscribe("tess/d1/event")
    ask.publish("tess/d1/watch", "30")
    ask.expect("s3.THERM GET", "answered", "20")
    ask.expect_nothing_more()
    assert ask.others.empty()


def test_a_thousand_requests_at_random_lose_and_double_nothing(tessd, start_bridge, therm, slow, ask):
    """Six kinds of request, some twice, against a model of what each must get."""
    start_bridge("in_flight = 1000", "timeout = 20")
    dice = random.Random(4711)
    expected: dict[bytes, tuple[str, str]] = {}
    commands, doubles = 0, 0
    for number in range(1000):
        name = b"r%d" % number
        line, status, text, sent = dice.choice(
            [
                ("s3.THERM GET", "answered", "20", 1),
                ("s3.THERM BOIL", "refused", "Error: no such command", 1),
                ("s3.NONE x", "refused", "?", 0),
                ("*", "answered", "0", 0),
                ("$|*|$", "refused", "?\n0\n?", 0),
                ("s3.THERM GET|$|s3.THERM LINES", None, None, 2),
            ]
        )
        expected[name] = (status, text)
        commands += sent
        times = dice.choice([1, 1, 1, 2])
        doubles += times - 1
        for _ in range(times):
            ask.send(line, name)
    answers: dict[bytes, list] = {}
    for _ in range(1000):
        wait_until(lambda: not ask.answers.empty() or len(answers) == 1000, "another answer", 30)
        while not ask.answers.empty():
            answer = ask.answers.get()
            answers.setdefault(answer.correlation, []).append((answer.status, answer.text))
        if len(answers) == 1000:
            break
    assert len(answers) == 1000
    wrong = []
    for name, (status, text) in expected.items():
        got = set(answers[name])
        # Of a line with answers of tessd's own and of a process, the order is not given.
        mixed = got <= {("refused", "\n".join(each)) for each in (("20", "one", "two", "?"), ("?", "20", "one", "two"))} | {
            ("refused", "20\n?\none\ntwo")
        }
        if not (got == {(status, text)} if status else mixed) or len(answers[name]) > 2:
            wrong.append((name, expected[name], answers[name]))
    assert not wrong, wrong[:5]
    ask.expect_nothing_more()
    assert therm.answered == commands
    assert doubles > 100


@pytest.mark.parametrize("place", ["plain = yes", pytest.param("ca = /tmp/tls/ca.crt", marks=needs_tls)])
def test_without_a_network_it_costs_no_processor_time(tessd, certificates, place):
    bridge = Bridge(broker=f"broker = 127.0.0.1:1899\n{place}")
    bridge.wait_log("refused", within=5)
    before = bridge.cpu_seconds()
    time.sleep(4)
    used = bridge.cpu_seconds() - before
    bridge.stop()
    assert used < 0.02 * settings.SLOW, f"{used} s of 4 s"


def test_idle_it_sleeps(bridge):
    time.sleep(3)  # the early looks at tessd's state
    before = bridge.cpu_seconds()
    time.sleep(5)
    used = bridge.cpu_seconds() - before
    assert used < 0.01 * settings.SLOW, f"{used} s of 5 s"


def test_a_publication_that_is_far_too_long_is_not_even_sent_to_it(bridge, therm, ask):
    ask.send("x" * 1_000_000, b"long")
    ask.expect("s3.THERM GET", "answered", "20", correlation=b"next")
    with open(f"/proc/{bridge.pid}/status", encoding="ascii") as status:
        peak = next(int(line.split()[1]) for line in status if line.startswith("VmHWM"))
    if not settings.sanitized() and not settings.emulated():  # nor is an emulator's memory the bridge's
        assert peak < 16_000, f"{peak} KiB"


# Brokers that misbehave

FAKE = "broker = 127.0.0.1:1885\nplain = yes"


def test_a_broker_that_takes_it_and_ends_it_at_once_is_tried_with_growing_pauses(tessd):
    broker = FakeBroker(lambda client: None)
    bridge = Bridge(broker=FAKE)
    wait_until(lambda: broker.connections > 0, "it connects", 10)
    time.sleep(6)  # pauses of 0.5, 1, 2 and 4 s, each a quarter shorter at most
    assert 2 <= broker.connections <= 5, broker.connections
    bridge.stop()


def test_a_broker_that_takes_its_time_to_accept_is_waited_for(tessd):
    """As every broker that is not on the same machine: connect(2) is not done at once."""
    listener = socket.create_server(("127.0.0.1", 1885), backlog=0)
    others = []
    for _ in range(3):
        others.append(socket.socket())
        others[-1].setblocking(False)
        others[-1].connect_ex(("127.0.0.1", 1885))
    bridge = Bridge(broker=FAKE)
    bridge.wait_log("55000")
    time.sleep(1.5)  # a first SYN is thrown away, and another one comes a second later
    assert "55011" not in bridge.log_text(), bridge.log_text()
    for other in others:
        other.close()
    broker = FakeBroker(lambda client: time.sleep(3), listener)
    wait_until(lambda: broker.connections == 1, "it connects", 10)
    assert "55011" not in bridge.log_text(), bridge.log_text()
    bridge.stop()


def packet(kind: int, body: bytes) -> bytes:
    return bytes([kind, len(body)]) + body


def test_a_broker_that_delivers_what_nobody_wanted_gets_nothing_for_it(tessd, therm):
    wish = packet(0x30, b"\0\x0dtess/d1/watch\0" + b"30")
    no_command = packet(0x30, b"\0\x0ftess/d2/command\x0b\x08\0\x08any/here" + b"s3.THERM GET")
    again = b"\x90\x05\0\1\0\1\1"  # SUBACK
    heard = []

    def act(client):
        client.sendall(wish + no_command + again)
        client.settimeout(2)
        with contextlib.suppress(TimeoutError):
            while True:
                heard.append(FakeBroker.read_packet(client))

    broker = FakeBroker(act)
    bridge = Bridge(broker=FAKE)
    bridge.wait_connected()
    wait_until(lambda: broker.connections == 2, "it comes again", 20)
    assert bridge.log_text().count("55010") <= 2, bridge.log_text()
    assert b"watchers=0" in status_bytes(tessd) and therm.answered == 0
    assert not any(b"any/here" in each for each in heard), heard
    bridge.stop()


@pytest.mark.parametrize("rubbish", [b"\xf0\xff\xff\xff\xff\x7f", b"\x30\x02\xff\xff", bytes(range(256)), b"\x40\x00"])
def test_a_broker_that_sends_rubbish_is_left(tessd, rubbish):
    def act(client):
        client.sendall(rubbish)
        with contextlib.suppress(TimeoutError):
            while client.recv(4096):
                pass

    broker = FakeBroker(act)
    bridge = Bridge(broker=FAKE).wait_connected()
    bridge.wait_log("55011")
    wait_until(lambda: broker.connections == 2, "it comes again", 15)
    bridge.stop()


# Who may


@pytest.fixture
def certificates() -> str:
    make_certificates("/tmp/tls")
    return "/tmp/tls"


TLS = "listener 8883 127.0.0.1\ncafile /tmp/tls/ca.crt\ncertfile /tmp/tls/server.crt\nkeyfile /tmp/tls/server.key\n"
SECURE = "broker = 127.0.0.1:8883\nca = /tmp/tls/ca.crt"


def asks_over_tls(**options: object) -> None:
    with asker(8883, ca_certs="/tmp/tls/ca.crt", **options) as ask:
        ask.expect("*", "answered", "0")


@needs_tls
def test_tls_with_the_brokers_certificate(tessd, certificates):
    broker = Broker(TLS + "allow_anonymous true\n", 8883)
    bridge = Bridge(broker=SECURE).wait_connected()
    asks_over_tls()
    bridge.stop()
    broker.kill()


@needs_tls
def test_tls_over_a_network_where_a_connection_takes_its_time(tessd, certificates):
    broker = Broker(TLS + "allow_anonymous true\n", 8883)
    with FullListener(1899) as listener:
        bridge = Bridge(broker="broker = 127.0.0.1:1899\nca = /tmp/tls/ca.crt")
        listener.wait_for_client()
        before = bridge.cpu_seconds()
        listener.let_pass(8883)
        bridge.wait_connected(within=7)
        used = bridge.cpu_seconds() - before
        assert "55011" not in bridge.log_text(), bridge.log_text()
        assert used < 0.1 * settings.SLOW, f"{used} s to connect"
        asks_over_tls()
        bridge.stop()
    broker.kill()


@needs_tls
@pytest.mark.parametrize(
    ("configuration", "why"),
    [
        ("broker = 127.0.0.1:8883\nca = /tmp/tls/stranger.crt", "certificate verify failed"),
        ("broker = 127.0.0.1:8883", "certificate verify failed"),
        ("broker = localhost:8883\nca = /tmp/tls/ca.crt", "certificate verify failed"),
        ("broker = 127.0.0.1:8883\nplain = yes", ""),
        ("broker = 127.0.0.1:8883\nca = /tmp/tls/none.crt", "/tmp/tls/none.crt: No such file or directory"),
        (
            "broker = 127.0.0.1:8883\nca = /tmp/tls/ca.crt\ncertificate = /tmp/tls/client.crt\nkey = /tmp/tls/none.key",
            "/tmp/tls/none.key: No such file or directory",
        ),
        (
            "broker = 127.0.0.1:8883\nca = /tmp/tls/ca.crt\ncertificate = /tmp/tls/client.crt\nkey = /tmp/tls/server.key",
            "key values mismatch",
        ),
    ],
)
def test_a_broker_that_is_not_the_right_one_gets_nothing(tessd, certificates, configuration, why):
    broker = Broker(TLS + "allow_anonymous true\n", 8883)
    bridge = Bridge(broker=configuration)
    bridge.wait_log("55011")
    assert why in bridge.log_text() and "55010" not in bridge.log_text(), bridge.log_text()
    bridge.stop()
    broker.kill()


@needs_tls
def test_tls_with_client_certificates(tessd, certificates):
    broker = Broker(TLS + "allow_anonymous true\nrequire_certificate true\n", 8883)
    without = Bridge(broker=SECURE)
    without.wait_log("55011")
    mine = "\ncertificate = /tmp/tls/client.crt\nkey = /tmp/tls/client.key"
    bridge = Bridge(broker=SECURE + mine).wait_connected()
    asks_over_tls(certfile="/tmp/tls/client.crt", keyfile="/tmp/tls/client.key")
    assert "55010" not in without.log_text()
    without.stop()
    bridge.stop()
    broker.kill()


@needs_tls
def test_tls_with_a_key_that_both_know(tessd):
    with open("/tmp/psk", "w", encoding="ascii") as file:
        file.write("d1:0123456789abcdef\n")
    listener = "listener 8884 127.0.0.1\npsk_file /tmp/psk\npsk_hint fleet\nuse_identity_as_username true\n"
    broker = Broker("per_listener_settings true\nlistener 1883 127.0.0.1\nallow_anonymous true\n" + listener)
    wrong = Bridge(broker="broker = 127.0.0.1:8884\npsk_identity = d1\npsk = 00", device="d2")
    wrong.wait_log("55011")
    bridge = Bridge(broker="broker = 127.0.0.1:8884\npsk_identity = d1\npsk = 0123456789abcdef").wait_connected()
    with asker() as ask:
        ask.expect("*", "answered", "0")
    assert "55010" not in wrong.log_text()
    wrong.stop()
    bridge.stop()
    broker.kill()


def test_user_and_password(tessd):
    subprocess.run(["mosquitto_passwd", "-b", "-c", "/tmp/passwords", "d1", "secret"], check=True)
    guarded = "listener 1884 127.0.0.1\nallow_anonymous false\npassword_file /tmp/passwords\n"
    broker = Broker("per_listener_settings true\nlistener 1883 127.0.0.1\nallow_anonymous true\n" + guarded)
    place = "broker = 127.0.0.1:1884\nplain = yes\nuser = d1\npassword = "
    wrong = Bridge(broker=place + "guessed", device="d2")
    wrong.wait_log("55011")
    assert "Not authorized" in wrong.log_text(), wrong.log_text()
    bridge = Bridge(broker=place + "secret").wait_connected()
    with asker() as ask:
        ask.expect("*", "answered", "0")
    wrong.stop()
    bridge.stop()
    broker.kill()


def test_what_the_broker_does_not_let_it_subscribe_to_is_said(tessd):
    FakeBroker(lambda client: client.recv(1), granted=b"\x01\x87")
    bridge = Bridge(broker=FAKE).wait_connected()
    assert "55012 the broker does not let this device subscribe to tess/all/command\n" in bridge.log_text(), bridge.log_text()
    assert bridge.log_text().count("55012") == 1, bridge.log_text()
    bridge.stop()


def test_the_reason_for_which_a_broker_ends_it_is_said(tessd):
    FakeBroker(lambda client: client.sendall(b"\xe0\x01\x8e"))
    bridge = Bridge(broker=FAKE)
    bridge.wait_log("55011 no connection to the broker: the broker ends it: Session taken over")
    bridge.stop()


def test_a_broker_that_says_nothing_is_tried_again(tessd):
    with socket.create_server(("127.0.0.1", 1899)) as listener:
        bridge = Bridge(broker="broker = 127.0.0.1:1899\nplain = yes")
        listener.settimeout(20 * settings.SLOW)
        with listener.accept()[0]:
            bridge.wait_log("55011 no connection to the broker: no answer from it")
        listener.accept()[0].close()
        bridge.stop()


def test_without_a_queue_directory_commands_work_all_the_same(tessd, broker, ask):
    bridge = Bridge(environment={"TESS_QUEUE_DIR": "/tmp/none"}).wait_connected()
    bridge.wait_log("55022 tessd is not asked for its state: /tmp/none/")
    ask.expect("*", "answered", "0")
    bridge.stop()


@pytest.mark.parametrize(("folder", "said"), [("", 0), ("/tmp/none", 1)])
def test_without_a_folder_of_its_own_it_works_all_the_same(tessd, broker, therm, ask, folder, said):
    bridge = Bridge("metrics = 0", environment={"RUNTIME_DIRECTORY": folder}).wait_connected()
    assert bridge.log_text().count("55032 /tmp/none/requests cannot be used") == said, bridge.log_text()
    for _ in range(2):
        ask.expect("s3.THERM GET", "answered", "20", correlation=b"twice")
    assert therm.answered == 1
    bridge.stop()


def test_a_wish_that_is_no_number_is_none(tessd, start_bridge, ask):
    start_bridge("events = asked")
    for wish in ("x", "30x", "-1", ""):
        ask.publish("tess/d1/watch", wish)
    ask.expect("*", "answered", "0")
    assert b"watchers=0" in status_bytes(tessd)


def test_a_broker_that_falls_silent_is_left(tessd):
    broker = FakeBroker(lambda client: wait_until(lambda: not client.recv(1), "it leaves", 60), granted=b"\x01\x01\x01")
    bridge = Bridge("keep_alive = 5", broker=FAKE).wait_connected()
    wait_until(lambda: broker.connections == 2, "it comes anew", 40)
    assert "55012" not in bridge.log_text() and "55011" in bridge.log_text(), bridge.log_text()
    bridge.stop()


def test_a_user_needs_no_password(tessd, broker, ask):
    bridge = Bridge(broker="broker = 127.0.0.1\nplain = yes\nuser = d1").wait_connected()
    ask.expect("*", "answered", "0")
    bridge.stop()


def test_its_options():
    def said(*arguments: str) -> tuple[int, str, str]:
        done = subprocess.run([*COMMAND, *arguments], text=True, capture_output=True, check=False)
        return done.returncode, done.stdout, done.stderr

    version = said("--version")
    assert version == said("-V") and version[0] == 0 and version[1].startswith("tess-mqtt "), version
    help_text = said("--help")
    assert help_text == said("-h") and help_text[0] == 0 and "Usage: tess-mqtt [--config FILE]" in help_text[1], help_text
    for wrong in (["--nonsense"], ["--config"], ["word"]):
        status, output, errors = said(*wrong)
        assert (status, output) == (64, "") and f"tess-mqtt: no option '{wrong[0]}'" in errors, (wrong, errors)
    with open("/tmp/mqtt.conf", "w", encoding="ascii") as file:
        file.write("broker = b.example:1\nplain = yes\ndevice = d1\n")
    checked = (0, "/tmp/mqtt.conf: device d1, broker b.example:1, NOT encrypted\n", "")
    assert said("--check", "--config=/tmp/mqtt.conf") == said("--config", "/tmp/mqtt.conf", "--check") == checked


def test_wrong_settings_are_told_with_their_line():
    cases = [
        ("broker = x\nbrokr = y\n", "mqtt.conf:2: no setting is called 'brokr': do you mean 'broker'?"),
        ("broker = x\nplain = maybe\n", "mqtt.conf:2: 'plain' is 'yes' or 'no'"),
        ("device = all\n", "mqtt.conf:1: 'device' has 1 to 64 letters"),
        ("# nothing\n", "mqtt.conf: it does not name a broker: broker = HOST"),
        ("broker = x\nplain = yes\nca = /a\n", "mqtt.conf: 'plain = yes' contradicts"),
        ("broker = x\nca = /none.crt\n", "mqtt.conf: /none.crt: No such file or directory"),
    ]
    for text, said in cases:
        with open("/tmp/mqtt.conf", "w", encoding="ascii") as file:
            file.write(text)
        done = subprocess.run([*COMMAND, "--config", "mqtt.conf", "--check"], cwd="/tmp", text=True, capture_output=True)
        assert done.returncode == 78 and said in done.stderr, (text, done)
