"""The end of the daemon with clients on every port."""

from __future__ import annotations

import pytest
from users import CLOSING_ALL, SECONDS, Telnet, shell, type_on_line

PORTS_CLOSED = (
    b"36102 COM2 port closed",
    b"6001 telnet port closed",
    b"36105 XCP Socket port closed",
    b"36105 Socket port closed",
    b"51001 Normal application exit",
)
ENDS = {"the init script": "/etc/init.d/tessd stop", "a stop message": "tessctl stop"}


@pytest.mark.parametrize("how", ENDS)
def test_a_stop_with_clients_connected_closes_everything(board, how):
    type_on_line(board, b"s3.ENC GETX", b"0\r\n\r\n")
    shell(
        board, "mknod /tmp/pipe p; (tessctl console </tmp/pipe; echo gone >/tmp/console.ended) & exec 7>/tmp/pipe; echo '*' >&7"
    )
    client, in_login = Telnet(board), Telnet(board, log_in=False)
    in_login.give_name(within=SECONDS)
    board.console.rest()
    board.console.send(ENDS[how].encode() + b"\n")
    shown = board.console.wait_for(PORTS_CLOSED[-1], SECONDS)
    client.receive_until_close(within=SECONDS)
    in_login.receive_until_close(within=SECONDS)
    for line in CLOSING_ALL, *PORTS_CLOSED:
        assert line in shown, f"{line!r} is not in the log:\n{shown.decode(errors='replace')}"
    positions = [shown.index(line) for line in PORTS_CLOSED]
    assert positions == sorted(positions)
    shell(board, "until [ -e /tmp/console.ended ]; do echo '*' >&7; sleep 1; done 2>/dev/null")
    shell(board, "! pidof tessd && [ ! -e /run/tess/queue/1001 ] && [ ! -e /tmp/socket ] && [ ! -e /tmp/xcp ]")
    assert "speed 9600" in shell(board, "stty -F /dev/ttyS1 -a")  # as it was before the start
    client.close()
    in_login.close()


def test_the_next_daemon_serves_on_all_ports(board):
    with Telnet(board) as telnet:
        telnet.ask(b"s3.ENC SETX 8", b"0\r\n\r\n", within=SECONDS)
    shown = shell(board, "/etc/init.d/tessd restart; /etc/init.d/tessd status")
    assert "tessd is running." in shown
    shell(board, "until tessctl send 's3.ENC GETX' | grep -qx 8; do sleep 1; done")
    type_on_line(board, b"s3.ENC GETX", b"8\r\n\r\n")
    with Telnet(board) as telnet:
        assert telnet.get() == 8


def test_a_board_that_is_switched_off_stops_it_in_order(board):
    with Telnet(board) as telnet:
        board.console.send(b"poweroff\n")
        board.console.wait_for(PORTS_CLOSED[-1], SECONDS)
        telnet.receive_until_close(within=SECONDS)
    assert board.wait_off(SECONDS) == 0
