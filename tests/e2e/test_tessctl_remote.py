"""tessctl -H HOST: the same command there, over ssh."""

from __future__ import annotations

import os
import shlex
import subprocess

import pytest

from harness import settings, tessctl
from harness.clients import IpcClient
from harness.terminal import Terminal
from harness.tessctl import DONE, NO_CONNECTION, REFUSED, WRONG_USAGE

pytestmark = tessctl.needs_tessctl

# What ssh does: it takes the whole of its standard input, unless told not to; its arguments make one line for a shell there.
SSH = f"""#!/bin/sh
echo "$*" >>/tmp/ssh.calls
[ "$1" = -t ] || [ "$1" = -T ] || exit 99
case $2 in
    -n) shift && exec </dev/null ;;
    *) [ "$1" = -t ] || {{ cat >/tmp/ssh.input && exec </tmp/ssh.input; }} ;;
esac
shift 2
PATH={shlex.quote(settings.BIN_DIR)}:$PATH exec sh -c "$*"
"""


@pytest.fixture
def ssh() -> dict[str, str]:
    """The environment in which there is one."""
    os.mkdir("/tmp/bin")
    with open("/tmp/bin/ssh", "w", encoding="ascii") as program:
        program.write(SSH)
    os.chmod("/tmp/bin/ssh", 0o755)
    return {**os.environ, "PATH": f"/tmp/bin:{os.environ['PATH']}"}


def calls() -> list[str]:
    with open("/tmp/ssh.calls", encoding="utf-8") as file:
        return file.read().splitlines()


@pytest.mark.parametrize(
    "host", [["-H", "me@device"], ["-Hme@device"], ["--host", "me@device"], ["--host=me@device"]], ids=" ".join
)
def test_a_command_is_run_there(echo, ssh, host):
    tessctl.run("send", *host, "s3.ECHO it's $HOME", env=ssh).expect(DONE, "it's $HOME\n", "")
    tessctl.run(*host, "send", "*", env=ssh).expect(DONE, "0\n", "")
    assert calls() == ["-T -n me@device tessctl 'send' 's3.ECHO it'\\''s $HOME'", "-T -n me@device tessctl 'send' '*'"]


def test_words_arrive_as_they_were_typed(echo, ssh):
    lines = ["", "[a,b]", "{}", "++", "a  b", "\\", '"x"', "-H", "--host=x"]
    expected = "".join(line + "\n" for line in lines if line)
    tessctl.run("send", "-H", "device", "--", *(f"s3.ECHO {line}" for line in lines[1:]), "", env=ssh).expect(DONE, expected, "")


def test_lines_of_standard_input_go_there(echo, ssh):
    tessctl.run("send", "-H", "device", lines="s3.ECHO A\ns3.ECHO B\n", env=ssh).expect(DONE, "A\nB\n", "")


def test_a_loop_over_lines_keeps_its_standard_input(echo, ssh):
    loop = f'while read line; do {tessctl.PROGRAM} send -H device "s3.ECHO $line"; done'
    done = subprocess.run(["sh", "-c", loop], input="A\nB\n", env=ssh, capture_output=True, text=True, check=False)
    assert (done.returncode, done.stdout, done.stderr) == (0, "A\nB\n", ""), done


def test_a_process_that_is_served_there_ends_with_the_connection(tessd, ssh):
    served = subprocess.Popen(
        [tessctl.PROGRAM, "serve", "-H", "device", "CAT", "--", "cat"],
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
        env=ssh,
    )
    assert served.stderr.readline().startswith("tessctl: CAT is served")
    with IpcClient() as client:
        client.ask(b"s3.CAT X", b"X\r\n\r\n")
        served.stdout.close()
        assert served.wait(10 * settings.SLOW) == DONE
        client.ask(b"s3.CAT X", b"?\r\n")
    served.stderr.close()


def test_a_process_that_is_served_here_needs_no_reader(tessd):
    with tessctl.serving("CAT", "cat") as served, IpcClient() as client:
        served.stdout.close()
        client.ask(b"s3.CAT X", b"X\r\n\r\n")
        client.ask(b"s3.CAT Y", b"Y\r\n\r\n")
        assert served.poll() is None


def test_the_status_is_that_of_the_command_there(tessd, ssh):
    tessctl.run("send", "-H", "device", "s3.NOBODY X", env=ssh).expect(REFUSED, "?\n", "")
    tessctl.run("send", "-H", "device", "--wait", "0", "X", env=ssh).expect(WRONG_USAGE, "")
    assert len(calls()) == 1, "wrong usage is found here"
    tessd.stop()
    tessctl.run("ping", "-H", "device", "queue", env=ssh).expect(REFUSED, "")
    tessctl.run("close", "-H", "device", env=ssh).expect(NO_CONNECTION, "")


@pytest.mark.parametrize(
    "command", ["check", "ping", "close", "listen", "stop", "serve", "com2", "reset", "help", "console", "send"]
)
def test_every_command_can_be_run_there(ssh, command):
    with open("/tmp/bin/ssh", "w", encoding="ascii") as program:
        program.write('#!/bin/sh\necho "$*" >>/tmp/ssh.calls\nexit 7\n')
    more = {"serve": ["CAT", "--", "cat", "-n"], "com2": ["X"], "reset": ["--yes"]}.get(command, [])
    tessctl.run(command, "-H", "device", *more, env=ssh).expect(7, "", "")
    options = "-T" if command == "send" else "-T -n"  # without lines of its own that reads those of standard input
    there = [command, *["--until-unread"] * (command == "serve"), *more]
    assert calls() == [" ".join([f"{options} device tessctl", *(f"'{word}'" for word in there)])]


def test_the_console_gets_a_terminal_there(tessd, ssh):
    terminal = Terminal(
        "/usr/bin/env", "ASAN_OPTIONS=detect_leaks=0", f"PATH={ssh['PATH']}", tessctl.PROGRAM, "console", "-H", "device"
    )
    terminal.expect(b"tess> ")
    terminal.type(b"\x04")
    assert terminal.expect_end() == DONE
    assert calls() == ["-t device tessctl 'console'"]


def test_without_ssh_it_says_what_is_missing():
    run = subprocess.run(
        [tessctl.PROGRAM, "check", "-H", "device"], env={"PATH": "/nowhere"}, capture_output=True, text=True, check=False
    )
    assert run.stderr == "tessctl: ssh: No such file or directory: -H wants ssh, of the package openssh-client\n", run
    assert run.returncode == NO_CONNECTION, run
