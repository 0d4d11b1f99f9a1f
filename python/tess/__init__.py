"""Clients of tessd, and processes of the device that take its commands. Plain sockets, nothing else is needed.

A process, which answers commands:

    import sys, tess

    def answer(command: str) -> str:
        return command or "OK"

    sys.exit(tess.Process("ECHO", answer).run())

A client, which sends them:

    with tess.Client() as client:
        print(client.ask("s3.ECHO hello"))

What a process does by itself it says through `logging`, as "tess".
"""

from tess.answers import CommandError, CommandFailed, CommandRefused, NoAnswer
from tess.client import Client
from tess.ports import COM2, IPC, PORTS_ALL, TELNET, XCP
from tess.process import Process
from tess.queue import Queue, QueueError, Record

__all__ = [
    "COM2",
    "IPC",
    "PORTS_ALL",
    "TELNET",
    "XCP",
    "Client",
    "CommandError",
    "CommandFailed",
    "CommandRefused",
    "NoAnswer",
    "Process",
    "Queue",
    "QueueError",
    "Record",
]
