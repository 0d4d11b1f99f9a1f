"""Where people and processes reach tessd stands in framework/tess_messages.h; what is not C++ says the same."""

import inspect
import os
import re
import sys

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
for folder in ("python", "tools", "tests/e2e"):
    sys.path.insert(0, os.path.join(PROJECT, folder))

import ask  # noqa: E402
import device_ns  # noqa: E402
import serial_line  # noqa: E402
import tess.queue  # noqa: E402
from harness import settings, wire  # noqa: E402
from tess import Client, ports  # noqa: E402


def header() -> dict[str, str]:
    with open(f"{PROJECT}/framework/tess_messages.h", encoding="utf-8") as file:
        text = file.read()
    constants = re.findall(r"inline constexpr .*?\b([A-Z0-9_]+) = \"?([^\";]+)\"?;", text)
    kinds = re.findall(r"^    ((?:MSG|PORT)_[A-Z0-9_]+) = (\d+),", text, re.MULTILINE)
    return dict(constants) | dict(kinds)


def test_the_facts_of_the_header_are_those_of_the_python_module_the_tools_and_the_tests():
    facts = header()
    said = {
        "TESS_QUEUE_ID": [tess.queue.TESS_ADDRESS, wire.DAEMON],
        "HIGHEST_QUEUE_ADDRESS": [tess.queue.MAX_ADDRESS, settings.HIGHEST_QUEUE_ADDRESS],
        "DEFAULT_QUEUE_DIRECTORY": [device_ns.QUEUE_DIR, settings.QUEUE_DIR],
        "IPC_SOCKET_PATH": [inspect.signature(Client).parameters["path"].default, ask.LineSocket.name, settings.IPC_PATH],
        "XCP_SOCKET_PATH": [ask.FramedSocket.name, settings.XCP_PATH],
        "TELNET_TCP_PORT": [settings.TELNET_ADDRESS[1]],
        "COM2_DEVICE": [serial_line.DEVICE, settings.SERIAL_LINE],
        "PORT_COM2": [ports.COM2, wire.COM2],
        "PORT_TELNET": [ports.TELNET, wire.TELNET],
        "PORT_XCP": [ports.XCP, wire.XCP],
        "PORT_IPC": [ports.IPC, wire.IPC],
    }
    assert {name: [facts[name]] * len(values) for name, values in said.items()} == {
        name: [str(value) for value in values] for name, values in said.items()
    }


def test_the_queue_directory_of_the_python_module_is_the_usual_one(monkeypatch):
    monkeypatch.delenv("TESS_QUEUE_DIR", raising=False)
    assert tess.queue.queue_directory() == header()["DEFAULT_QUEUE_DIRECTORY"]
