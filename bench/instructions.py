#!/usr/bin/python3
"""Instructions of tessd for a command and its answer, in user mode: a figure to compare from one version to the next, on
any machine.

    bench/instructions.py [powerpc]

Of this machine's own program by valgrind; with "powerpc" of build/powerpc/bin/tessd, by a plugin of qemu-ppc. Each figure is
that of many commands, asked one by one."""

from __future__ import annotations

import json
import os
import subprocess
import sys

PROJECT = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
BUILD = os.path.join(PROJECT, "build")
PLUGIN = os.path.join(BUILD, "instruction_counter.so")
COUNTER = "/run/instructions"
COMMANDS = 500

TARGETS = {
    "host": {"TESSD_BIN_DIR": f"{BUILD}/release/bin"},
    "powerpc": {
        "TESSD_BIN_DIR": f"{BUILD}/powerpc/bin",
        "TESSD_WRAPPER": f"qemu-ppc -L /usr/powerpc-linux-gnu -plugin file={PLUGIN},counter={COUNTER}",
        "TESSD_BYTEORDER": "big",
        "TESSD_SLOW_FACTOR": "4",
    },
}


def measure(target: str) -> None:
    """Prints a line of JSON. In a process whose environment is that of the target."""
    import device  # of this folder; reads the environment
    from harness.clients import IpcClient, XcpClient

    def inside() -> None:
        for name, client in (("ipc", IpcClient), ("xcp", XcpClient)):
            each = by_plugin(client) if target == "powerpc" else by_valgrind(client)
            print(json.dumps({"target": target, "port": name, "instructions": round(each)}), flush=True)

    device.run(inside)


def converse(client: object, process: object, count: int) -> None:
    for _ in range(count):
        ask(client)
        process.reply(process.expect_command(b"SETX 5").tag, b"0\r\n\r\n")
        client.expect(b"0\r\n\r\n") if not hasattr(client, "expect_frame") else client.expect_frame(b"0\r\n\r\n")


def ask(client: object) -> None:
    line = b"s3.ENC SETX 5\n"
    client.send_frame(line) if hasattr(client, "send_frame") else client.send(line)


def by_plugin(kind: type) -> float:
    from harness.daemon import LOCAL_PORTS, Daemon
    from harness.queue_process import QueueProcess

    tessd = Daemon(*LOCAL_PORTS).wait_running(60)
    with QueueProcess(2001) as process, kind() as client:
        process.register(b"ENC")
        converse(client, process, 50)
        before = counted()
        converse(client, process, COMMANDS)
        each = (counted() - before) / COMMANDS
    tessd.stop()
    return each


def counted() -> int:
    with open(COUNTER, "rb") as file:
        return int.from_bytes(file.read(8), sys.byteorder)


def by_valgrind(kind: type) -> float:
    few, many = (executed(kind, commands) for commands in (50, 50 + COMMANDS))
    return (many - few) / COMMANDS


def executed(kind: type, commands: int) -> int:
    """By a daemon that serves so many commands and ends."""
    from harness import settings
    from harness.daemon import LOCAL_PORTS, Daemon
    from harness.measure import ExecutionCounter
    from harness.queue_process import QueueProcess

    counter = ExecutionCounter()
    settings.WRAPPER = counter.wrapper
    tessd = Daemon(*LOCAL_PORTS).wait_ready(30)
    with QueueProcess(2001) as process, kind() as client:
        process.register(b"ENC")
        converse(client, process, commands)
    tessd.stop()
    return counter.executed().instructions


def build_plugin() -> None:
    source = os.path.join(PROJECT, "bench/programs/instruction_counter.c")
    subprocess.run(["cc", "-O2", "-Wall", "-Wextra", "-shared", "-fPIC", "-o", PLUGIN, source], check=True)


def main() -> int:
    if sys.argv[1:2] == ["--inside"]:
        measure(sys.argv[2])
        return 0
    if sys.argv[1:] not in ([], ["powerpc"]):
        print("usage: instructions.py [powerpc]", file=sys.stderr)
        return 64
    target = "powerpc" if sys.argv[1:] else "host"
    if target == "powerpc":
        build_plugin()
    subprocess.run(
        [sys.executable, os.path.realpath(__file__), "--inside", target], env={**os.environ, **TARGETS[target]}, check=True
    )
    return 0


if __name__ == "__main__":
    sys.exit(main())
