"""What the daemon makes of a line before any process gets it."""

from __future__ import annotations

import pytest

from harness.clients import IpcClient, XcpClient
from harness.queue_process import QueueProcess

ARGUMENT_ERROR = b"Error Setting Command: Invalid Arguments.\r\n\r\n"
RESET_ERROR = b"Error Processing Reset Command.\r\n\r\n"
NOBODY = b"?\r\n"
STAR = b"0\r\n\r\n"

# Line, what the client reads at once, what the one registered process gets.
LINES = [
    # Built in.
    (b"*", [STAR], []),
    (b"  *  ", [STAR], []),
    (b"*|*", [STAR, STAR], []),
    (b"*|A|*", [STAR, STAR], [b"A"]),
    # Several commands in a line.
    (b"A|B|C", [], [b"A", b"B", b"C"]),
    (b"s3.ENC A|B|t1.ENC C|*.ENC D", [NOBODY], [b"A", b"B", b"D"]),
    (b"t1.A X|t1.B X|t1.C X", [NOBODY] * 3, []),
    (b"$|A|$", [NOBODY, NOBODY], [b"A"]),
    (b"$|*|$", [NOBODY, STAR, NOBODY], []),
    # Empty tokens are not produced; a token of blanks is an empty command.
    (b"|", [], []),
    (b"||||", [], []),
    (b"|A||B|", [], [b"A", b"B"]),
    (b"A| |B", [], [b"A", b"", b"B"]),
    (b"| ", [], [b""]),
    (b"|\t\v|", [], [b""]),
    # White space.
    (b"  A B  ", [], [b"A B"]),
    (b"A  |\tB\t|  C", [], [b"A", b"B", b"C"]),
    (b"\f\vA", [], [b"A"]),
    # Only telnet sessions can quit.
    (b"quit", [], [b"quit"]),
    (b"QUIT", [], [b"QUIT"]),
    (b"quitting", [], [b"quitting"]),
    # Words that only look like a reset.
    (b"X|RESET", [], [b"X", b"RESET"]),
    (b"*|RESET", [STAR], [b"RESET"]),
    (b"|RESET", [], [b"RESET"]),
    (b"s3.ENC RESET", [], [b"RESET"]),
    (b"RESE", [], [b"RESE"]),
    (b"R ESET", [], [b"R ESET"]),
    # Resets that are refused; the whole line is the reset's.
    (b"RESET A", [RESET_ERROR], []),
    (b"reset now|A|B", [RESET_ERROR], []),
    (b"RESET|X A", [RESET_ERROR], []),
    (b"RESET A B", [RESET_ERROR], []),
    (b"RESET A B C", [RESET_ERROR], []),
    (b"RESET REINIT", [RESET_ERROR], []),
    (b"RESET REINIT s4", [RESET_ERROR], []),
    (b"RESET REINIT S3", [RESET_ERROR], []),
    (b"RESET REINIT s", [RESET_ERROR], []),
    (b"RESET REINITS s3", [RESET_ERROR], []),
    (b"RESET REINI s3", [RESET_ERROR], []),
    (b"RESET REINIT s3 now", [RESET_ERROR], []),
    (b"Resetting the device", [RESET_ERROR], []),
    # A delay whose arguments are no good; what follows belongs to it.
    (b"DELAY x|A", [ARGUMENT_ERROR], []),
    (b"delay -1|A", [ARGUMENT_ERROR], []),
    (b"DELAY 0|A|B", [ARGUMENT_ERROR], []),
    (b"DELAYED|A", [ARGUMENT_ERROR], []),
    (b"A|DELAY 1.x|B", [ARGUMENT_ERROR], [b"A"]),
    (b"A| Delay 0 |B|*", [ARGUMENT_ERROR], [b"A"]),
    (b"s3.ENC DELAY 0", [], [b"DELAY 0"]),
    (b"DELA|Y", [], [b"DELA", b"Y"]),
]


@pytest.mark.parametrize("client_type", [IpcClient, XcpClient])
def test_lines_are_interpreted(start_tessd, client_type):
    start_tessd(environment={"TESS_REINIT": "/bin/false"})
    with QueueProcess(2001) as process, client_type() as client:
        process.register(b"ENC")
        for line, answers, commands in LINES:
            try:
                if client_type is IpcClient:
                    client.send(line + b"\n")
                    client.expect(b"".join(answers))
                else:
                    client.send_frame(line)
                    for answer in answers:
                        client.expect_frame(answer)
                client.expect_nothing_more()
            except AssertionError as error:
                raise AssertionError(f"{line!r}: {error}") from None
            actual = [message.text for message in process.waiting()]
            expected = [command + b"\n\0" for command in commands]
            assert actual == expected, f"{line!r}: expected {expected}, got {actual}"


def test_without_a_process_every_command_of_a_line_is_answered_for(tessd):
    with IpcClient() as client:
        client.ask(b"A|B|C", NOBODY * 3)
        client.ask(b"A|*|B", NOBODY + STAR + NOBODY)
        client.ask(b"A| |B", NOBODY * 3)
        client.ask(b"quit", NOBODY)
        client.expect_nothing_more()


def test_a_line_of_many_commands_is_served_to_its_end(tessd):
    with QueueProcess(2001) as process, IpcClient() as client:
        process.register(b"E")
        client.send(b"|".join([b"A"] * 500))
        for _ in range(500):
            process.expect_command(b"A")
        client.expect_nothing_more()
        client.send(b"$|" * 200)  # no more answers than the client's socket holds before it reads
        client.expect(NOBODY * 200)


def test_answers_of_the_daemon_and_of_processes_reach_only_who_asked(tessd):
    with QueueProcess(2001) as process, IpcClient() as asking, IpcClient() as silent, XcpClient() as framed:
        process.register(b"ENC")
        for client in (asking, silent, framed):
            client.expect_nothing_more()
        asking.ask(b"s3.NONE X", NOBODY)
        asking.ask(b"RESET A", RESET_ERROR)
        asking.send(b"s3.ENC X\n")
        process.reply(process.expect_command(b"X").tag, b"5\r\n\r\n")
        asking.expect(b"5\r\n\r\n")
        process.expect_daemon_done()
        for client in (asking, silent, framed):
            client.expect_nothing_more()


def test_a_command_that_fills_its_buffer_is_cut_to_1023_characters(tessd):
    with QueueProcess(2001) as process, IpcClient() as client:
        process.register(b"ENC")
        for sent, body in (
            (b"x" * 1023, b"x" * 1023),
            (b"x" * 1024, b"x" * 1023),
            (b"s3.ENC " + b"y" * 1017, b"y" * 1016),
        ):
            client.send(sent)
            got = process.expect_command(body)
            assert got.size == len(body) + 18
