"""A date that is set forward and backward moves no delay."""

from __future__ import annotations

import re
import time

from users import SECONDS, Telnet, number, shell, uptime, wait_until

DAY = 24 * 60 * 60
DELAY = 20


def pending(board) -> list[int]:
    """The seconds that the list of delays shows, one for each."""
    shown = shell(board, "tessctl send DELAY")
    return [
        int(h) * 3600 + int(m) * 60 + int(s) for h, m, s in re.findall(r"^(\d{3}):(\d\d):(\d\d)\.\d{3} ", shown, re.MULTILINE)
    ]


def set_date(board, by: int) -> None:
    before = int(number(board, "date +%s"))
    shell(board, f"date -s @{before + by} >/dev/null")
    assert abs(number(board, "date +%s") - before - by) < DAY / 2


def test_a_delay_waits_for_its_own_time_whatever_the_date_is(board):
    with Telnet(board) as telnet:
        telnet.ask(b"s3.ENC SETX 1", b"0\r\n\r\n", within=SECONDS)
        before = uptime(board)
        telnet.ask(b"DELAY %d.0|s3.ENC SETX 2" % DELAY, b"OK\r\n\r\n", within=SECONDS)
        telnet.ask(b"DELAY 23:0:0.0|s3.ENC SETX 3", b"OK\r\n\r\n", within=SECONDS)
        set_by = uptime(board)
        for by in DAY, -2 * DAY, DAY:
            set_date(board, by)
            time.sleep(1)
            left, position, now = pending(board), telnet.get(), uptime(board)
            if now < before + DELAY:
                assert position == 1, f"run {before + DELAY - now:.1f} s too early, after the date was set by {by} s"
            assert len(left) == (2 if position == 1 else 1), left
            assert 22 * 3600 < left[-1] < 23 * 3600, left
            if len(left) == 2:
                assert left[0] <= DELAY
        wait_until(lambda: telnet.get() == 2, "the delayed command")
        after = uptime(board)
        assert before + DELAY <= after < set_by + DELAY + SECONDS
