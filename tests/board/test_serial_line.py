"""The serial line: writes of programs and the mute behind them, flow control, faults."""

from __future__ import annotations

import re
import time

import pytest
from users import SECONDS, Telnet, expect_on_line, number, shell, type_on_line, uptime

HELD_SECONDS = 10
MUTE_SECONDS = 2
XOFF, XON = b"\x13", b"\x11"
COM2_DEVICE = "fe0004600.serial"
DRIVER = "/sys/bus/platform/drivers/of_serial"
ANSWER_LINES = 1000  # 5000 bytes: more than the line's own buffers hold, less than a record
TICKS_A_SECOND = 100


def test_it_is_set_as_it_must_be(board):
    settings = shell(board, "stty -F /dev/ttyS1 -a")
    for word in (
        "speed 38400 baud",
        "cs8",
        "-parenb",
        "-cstopb",
        "cread",
        "clocal",
        "-crtscts",
        "ignpar",
        "-inpck",
        "icrnl",
        "-ixon",
        "ixoff",
        "icanon",
        "-echo",
        "-isig",
        "erase = ^H",
        "kill = ^W",
        "opost",
        "-onlcr",
    ):
        assert re.search(rf"(^|[ ;]){re.escape(word)}($|[ ;])", settings, re.MULTILINE), f"{word} is missing in\n{settings}"


def test_what_a_program_writes_comes_out(board):
    shell(board, "tessctl com2 'hello, line'")
    expect_on_line(board, b"hello, line\r\n")


@pytest.mark.parametrize("wait", [0.0, 1.2, 1.6])
def test_what_is_typed_in_the_two_seconds_behind_a_write_is_thrown_away(board, wait):
    # The mute begins after `before`. What the console has answered by `after` was sent later than what was typed; when that
    # came too late, on a slow machine, it is tried again.
    type_on_line(board, b"s3.ENC SETX 1", b"0\r\n\r\n")
    for _ in range(5):
        before = uptime(board)
        shell(board, "tessctl com2 x")
        expect_on_line(board, b"x\r\n")
        time.sleep(max(wait - (uptime(board) - before), 0))
        board.com2.send(b"s3.ENC SETX 2\r")
        after = uptime(board)
        time.sleep(MUTE_SECONDS + 1)
        if after - before < MUTE_SECONDS:
            break
        board.com2.rest()
    else:
        pytest.fail("this machine is too slow for a line to be typed within the mute")
    type_on_line(board, b"s3.ENC GETX", b"1\r\n\r\n")


def test_a_line_that_takes_nothing_loses_no_answers_and_holds_nobody(board):
    # The far end holds the line by taking nothing, as one that has sent XOFF to a line with flow control does.
    asked = 6
    last = 1000 + ANSWER_LINES
    shell(
        board,
        f"tessctl serve BIG -- seq 1001 {last} 2>/dev/null & until tessctl send 's3.BIG X' | grep -q 1001; do sleep 1; done",
    )
    answer = b"".join(b"%d\r\n" % line for line in range(1001, last + 1)) + b"\r\n"
    with Telnet(board) as telnet:
        for _ in range(asked):
            board.com2.send(b"s3.BIG X\r")
        begin = time.monotonic()
        rounds = 0
        while time.monotonic() < begin + HELD_SECONDS:
            telnet.expect_alive()
            assert "OK" in shell(board, "tessctl send DELAY")
            rounds += 1
        assert rounds > 1
        while len(board.com2.shown) < asked * len(answer) and board.com2.take_in(5):
            pass
    got = board.com2.rest()
    assert got == answer * asked, f"{len(got)} bytes, expected {len(answer) * asked}; complete: {got.count(answer)} of {asked}"
    type_on_line(board, b"s3.ENC GETX", b"0\r\n\r\n")


def test_a_write_of_a_program_to_a_line_that_takes_nothing_fails_and_holds_nobody(board):
    with Telnet(board) as telnet:
        board.console.rest()
        board.console.send(f"tessctl com2 \"$(seq 1001 {1000 + ANSWER_LINES})\"; echo 'en''ded' $?\n".encode())
        telnet.expect_alive()
        ended = board.console.wait_for(re.compile(rb"ended (\d+)\r\n"), SECONDS)
        assert not ended.endswith(b"ended 0\r\n"), ended
        telnet.expect_alive()
    board.com2.wait_for(b"1001\n1002\n", SECONDS)  # what it took before it was held


def test_a_fast_typist_is_asked_to_wait_and_loses_nothing(board):
    lines = 60
    one = b"s3.ENC SETX " + b"0" * 186 + b"7\r"
    shell(board, "kill -STOP $(pidof tessd)")
    sent = 0
    while sent < lines and XOFF not in board.com2.shown:
        board.com2.send(one)
        sent += 1
        board.com2.take_in(0.2)
    board.com2.wait_for(XOFF, SECONDS)
    assert sent < lines, "the board has taken everything"
    time.sleep(HELD_SECONDS)
    assert board.com2.rest() == b""
    shell(board, "kill -CONT $(pidof tessd)")
    board.com2.wait_for(XON, SECONDS)
    for _ in range(lines - sent):
        board.com2.send(one)
    end = time.monotonic() + SECONDS
    while (answered := board.com2.shown.count(b"0\r\n\r\n")) < lines and time.monotonic() < end:
        board.com2.take_in(1)
    assert answered == lines, f"{answered} of {lines} lines were answered: {board.com2.shown!r}"
    board.com2.rest()
    type_on_line(board, b"s3.ENC GETX", b"7\r\n\r\n")


def test_it_does_not_heed_xoff_from_the_far_end(board):
    """So it is set (deliberate): the byte becomes part of the line."""
    board.com2.send(XOFF)
    type_on_line(board, b"s3.ENC GETX", b"?\r\n")
    type_on_line(board, b"s3.ENC GETX", b"0\r\n\r\n")


def test_a_break_costs_the_line_it_falls_into_and_no_other(board):
    type_on_line(board, b"s3.ENC SETX 3", b"0\r\n\r\n")
    board.monitor("chardev-send-break com2")
    board.com2.send(b"s3.ENC SETX 4\r")
    type_on_line(board, b"s3.ENC GETX", b"3\r\n\r\n")


def test_a_byte_with_a_parity_error_is_taken_as_it_came(board):
    """The line is set to 8 bits without parity, and not to check it."""
    shell(board, "insmod /lib/modules/line_fault.ko")
    board.com2.send(b"s3.ENC GET")
    time.sleep(0.2)
    shell(board, "sleep 1; echo 0x58 >/sys/module/line_fault/parameters/parity")
    type_on_line(board, b"", b"0\r\n\r\n")


def cpu_ticks(board) -> float:
    return number(board, "awk '{ print $14 + $15 }' /proc/$(cat /run/tessd.pid)/stat")


def test_a_line_that_hangs_up_costs_nothing_and_holds_nobody(board, figures):
    type_on_line(board, b"s3.ENC SETX 5", b"0\r\n\r\n")
    with Telnet(board) as telnet:
        shell(board, f"echo {COM2_DEVICE} >{DRIVER}/unbind")
        before, ticks = uptime(board), cpu_ticks(board)
        time.sleep(5)
        telnet.expect_alive()
        spent, elapsed = cpu_ticks(board) - ticks, uptime(board) - before
        figures["processor time of tessd behind a line that has hung up"] = f"{spent / TICKS_A_SECOND:.2f} s in {elapsed:.1f} s"
        assert spent < elapsed * TICKS_A_SECOND / 4, f"{spent:g} ticks in {elapsed:g} s"
        assert telnet.get() == 5
    shell(board, f"echo {COM2_DEVICE} >{DRIVER}/bind && /etc/init.d/tessd restart")
    wait_for_encoder(board)
    type_on_line(board, b"s3.ENC GETX", b"5\r\n\r\n")


def wait_for_encoder(board) -> None:
    shell(board, "until tessctl send 's3.ENC GETX' | grep -qx 5; do sleep 1; done")


def test_a_far_end_that_goes_and_comes_finds_the_line_as_it_was(board):
    type_on_line(board, b"s3.ENC SETX 6", b"0\r\n\r\n")
    board.reconnect_com2()
    type_on_line(board, b"s3.ENC GETX", b"6\r\n\r\n")
