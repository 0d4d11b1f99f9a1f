#!/usr/bin/python3
"""Shows tessd at work; runs inside the private namespaces that device_ns.py makes.

    tools/demo.py BIN-FOLDER

Makes an account and a serial line, starts tessd and the example process, sends a command over each port, then gives a
shell to a terminal; without one it stops both again. Ends with status 0 when everything went as it should.
"""

from __future__ import annotations

import glob
import os
import signal
import socket
import subprocess
import sys
import time

import ask
import device_ns
from serial_line import SerialCable

START_SECONDS = 20.0  # generous: a loaded machine, a sanitizer build
STOP_SECONDS = 10.0  # tessd itself needs about one
READY = "\0tessd-demo-ready"  # abstract, so there is nothing to remove
RC_FILE = "/tmp/demo.bashrc"

# The first command leaves what the next ones find, over other ports.
COMMANDS = {"telnet": "s3.ENC SETX 5", "com2": "s3.ENC GETX", "socket": "s3.ENC GETX", "xcp": "s3.ENC GETX"}

# SHA-512 of ask.PASSWORD; the hash must stand in the password file itself.
PASSWORD_HASH = "$6$Rk3pVx0LmT9sQe2Z$I3QZFCp/87TExccY2C252DgwRsK/JxTVAsDWUAzK6JOPHP9..8nchzRZQX8G.j33nS.BAMSUcwCkutb1yURrC1"

HOW_TO_TRY_MORE = f"""\
In 's3.ENC SETX 5', ENC is the name of the process, and s3 the unit name that every device has in its commands. It is not
the host name; '*' may stand in its place.

Try more, in the shell that scripts/run opens when it has a terminal:
    telnet {ask.HOST}                log in as {ask.USER} with the password {ask.PASSWORD}; 's3.ENC GETX', 'quit'
    com2                            a terminal on the serial line, Backspace works; Ctrl-A Ctrl-X leaves it
    ask socket 's3.ENC SETX 7'      a line over /tmp/socket, and its answer
    ask xcp 's3.ENC GETX'           the same in a frame, over /tmp/xcp
    ask telnet '*' 's3.ENC GETX'    two lines in a telnet session; or 'ask com2'
    tessctl console                 a dialogue over /tmp/socket; Ctrl-D leaves it
    tessctl check                   what works, port by port
    tessctl top                     who is there, and how much passes; q leaves it. Also: tessctl status, list, who
    tessctl watch &                 what passes, as it passes; 'kill %1' ends it
    ask socket 's3.NONE GETX'       nobody of that name: "?"
    ask socket 'DELAY 10.0|s3.ENC SETX 9' DELAY
                                    the position in ten seconds, and what is pending
    python3 examples/echo.py &      a process in Python; tessctl send 's3.ECHO hello'
    cat /tmp/tessd.log              what tessd logged
    tessctl help                    what else it does; all of it is in docs/man/tessctl.1, which 'man' takes by its path
"""


class DemoError(RuntimeError):
    """Something did not go as it should; the text says what."""


class Program:
    """A program of ours in the background, its output in /tmp/NAME.log."""

    def __init__(self, folder: str, name: str, **environment: str) -> None:
        self.name = name
        self.log = f"/tmp/{name}.log"
        with open(self.log, "wb") as log:
            self._process = subprocess.Popen(
                [os.path.join(folder, name)], stdin=subprocess.DEVNULL, stdout=log, stderr=log, env=os.environ | environment
            )

    def check_alive(self) -> None:
        if self._process.poll() is not None:
            raise DemoError(f"{self.name} ended with status {self._process.returncode}")

    def wait_for_log(self, text: str) -> None:
        deadline = time.monotonic() + START_SECONDS
        while text not in self._logged():
            self.check_alive()
            if time.monotonic() > deadline:
                raise DemoError(f"{self.name} did not log '{text}' in {START_SECONDS:g} s")
            time.sleep(0.02)

    def _logged(self) -> str:
        with open(self.log, encoding="utf-8", errors="replace") as log:
            return log.read()

    def stop(self) -> None:
        self.check_alive()
        self._process.send_signal(signal.SIGTERM)
        try:
            status = self._process.wait(STOP_SECONDS)
        except subprocess.TimeoutExpired:
            raise DemoError(f"{self.name} did not stop within {STOP_SECONDS:g} s after SIGTERM") from None
        if status != 0:
            raise DemoError(f"{self.name} ended with status {status} after SIGTERM")


def start_daemon(folder: str) -> Program:
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as ready:
        ready.bind(READY)
        ready.settimeout(0.1)
        daemon = Program(folder, "tessd", NOTIFY_SOCKET=READY.replace("\0", "@"))
        deadline = time.monotonic() + START_SECONDS
        while time.monotonic() < deadline:
            try:
                if b"READY=1" in ready.recv(1024):
                    return daemon
            except TimeoutError:
                daemon.check_alive()
    raise DemoError(f"tessd was not ready in {START_SECONDS:g} s")


def show_command(port: str, line: str) -> None:
    client = ask.PORTS[port]
    try:
        connection = client()
        answer = connection.ask(line)
        connection.close()
    except OSError as error:
        raise DemoError(f"{client.name}: no answer to '{line}': {error}") from error
    print(f"    {client.name:<12} {line:<16} -> {answer.rstrip()}")
    if answer in ("", "?\r\n"):
        raise DemoError(f"{client.name}: '{line}' did not reach the process it was for")


def shell(folder: str) -> None:
    """An interactive shell inside; comes back when the user leaves it."""
    tools = os.path.dirname(os.path.realpath(__file__))
    with open(RC_FILE, "w", encoding="utf-8") as file:
        file.write(
            f"""\
PATH='{os.path.abspath(folder)}':$PATH
ask() {{ '{sys.executable}' '{tools}/ask.py' "$@"; }}
com2() {{ picocom --nolock --omap delbs --echo --emap crcrlf,delbs '{ask.SERIAL_TERMINAL}'; }}
export PYTHONPATH='{os.path.dirname(tools)}/python'
PS1='[inside the device] \\w\\$ '
"""
        )
    print("This is a shell inside the device. 'exit' stops everything and leads back.\n", flush=True)
    subprocess.run(["bash", "--noprofile", "--rcfile", RC_FILE, "-i"], check=False)


def make_account() -> None:
    """Adds the user of the demo to the password file, as far as those inside can see."""
    with open("/etc/passwd", encoding="utf-8") as system, open("/tmp/passwd", "w", encoding="utf-8") as ours:
        ours.write(f"{ask.USER}:{PASSWORD_HASH}:1000:1000::/tmp:/bin/sh\n" + system.read())
    device_ns.bind("/tmp/passwd", "/etc/passwd")


def demonstrate(folder: str) -> None:
    make_account()
    try:
        with SerialCable() as cable:
            os.symlink(cable.user_device, ask.SERIAL_TERMINAL)
            run_programs(folder)
        print("tessd and the example process have stopped.")
    except DemoError as error:
        print(f"\ndemo: {error}", file=sys.stderr)
        for log in sorted(glob.glob("/tmp/*.log")):
            with open(log, encoding="utf-8", errors="replace") as text:
                print(f"--- {log}:\n{text.read()}", file=sys.stderr)
        raise SystemExit(1) from None


def run_programs(folder: str) -> None:
    daemon = start_daemon(folder)
    encoder = Program(folder, "encoder")
    encoder.wait_for_log("registered at tessd")
    print("\ntessd is running, and the example process is registered as ENC. A command over each port:\n")
    for port, line in COMMANDS.items():
        show_command(port, line)
    print("\n" + HOW_TO_TRY_MORE)
    if sys.stdin.isatty() and sys.stdout.isatty():
        shell(folder)
    encoder.stop()
    daemon.stop()


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit("usage: demo.py BIN-FOLDER")
    demonstrate(sys.argv[1])
