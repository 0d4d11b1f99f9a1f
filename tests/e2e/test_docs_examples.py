"""What the documents tell a reader to type gives what they say it gives."""

from __future__ import annotations

import os
import re
import subprocess
from collections.abc import Iterator

import pytest

from harness import settings, tessctl
from harness.queue_process import QueueProcess
from harness.waiting import wait_until

pytestmark = tessctl.needs_tessctl

DOCUMENTS = ["operators.md", "processes.md", "integrators.md"]
BLOCK = re.compile(r"^```(\w+)(?: file=(\S+))?\n(.*?)^```$", re.DOTALL | re.MULTILINE)
FOLDER = "/tmp/reader"
END_OF_COMMAND = "\x01"


def blocks(document: str) -> Iterator[tuple[str, str | None, str]]:
    """Language, name of the file and text of each block."""
    with open(os.path.join(settings.PROJECT, "docs", document), encoding="utf-8") as file:
        yield from BLOCK.findall(file.read())


def commands(text: str) -> list[tuple[str, str]]:
    """Each command of a block and its output."""
    parts = re.split(r"^\$ (.*)\n", text, flags=re.MULTILINE)
    assert parts[0] == "", f"a block begins with a command, not with {parts[0]!r}"
    return list(zip(parts[1::2], parts[2::2], strict=True))


@pytest.fixture
def encoder(tessd):
    """The example process, as the documents expect it to be there."""
    process = subprocess.Popen([os.path.join(settings.BIN_DIR, "encoder")], stderr=subprocess.PIPE, text=True)
    assert "registered at tessd as ENC" in process.stderr.readline()
    yield
    process.terminate()
    assert process.wait(10 * settings.SLOW) == 0
    process.stderr.close()


@pytest.mark.parametrize("document", DOCUMENTS)
def test_commands_print_what_the_document_says(encoder, document):
    os.mkdir(FOLDER)
    script, expected = "", []
    for language, name, text in blocks(document):
        if name:
            with open(f"{FOLDER}/{name}", "w", encoding="utf-8") as file:
                file.write(text)
        if language == "console":
            for command, output in commands(text):
                script += f"{command}\nprintf '\\001'\n"
                expected.append((command, output))
    assert expected, f"{document} has no commands to try"
    environment = {"PATH": settings.BIN_DIR + os.pathsep + os.environ["PATH"], "LC_ALL": "C"}
    shell = subprocess.run(
        ["bash", "-c", script], cwd=FOLDER, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT, text=True, timeout=30 * settings.SLOW,
    )  # fmt: skip
    actual = shell.stdout.split(END_OF_COMMAND)
    for (command, output), printed in zip(expected, actual, strict=False):
        assert printed == output, f"{document}: $ {command}\nprints\n{printed}\nand not\n{output}"
    assert len(actual) == len(expected) + 1, f"{len(actual) - 1} of {len(expected)} commands were run\n{shell.stdout}"


def test_the_dialogue_goes_as_the_document_says(encoder):
    dialogues = [text for language, _, text in blocks("operators.md") if language == "dialogue"]
    assert dialogues, "operators.md has no dialogue"
    for dialogue in dialogues:
        ((command, lines),) = commands(dialogue)
        program, *arguments = command.split()
        assert program == "tessctl"
        terminal = tessctl.on_terminal(*arguments)
        for line in lines.splitlines():
            if line.startswith("tess> "):
                terminal.expect(b"tess> ")
                terminal.type(line.removeprefix("tess> ").encode() + b"\r")
            else:
                terminal.expect(line.encode() + b"\r\n")
        terminal.type(b"\x04")
        assert terminal.expect_end() == tessctl.DONE


def test_listen_says_what_the_document_shows(tessd):
    """Its numbers differ from run to run; everything else is as shown."""
    ((command, lines),) = [
        pair for language, _, text in blocks("processes.md") if language == "text" and "listen" in text for pair in commands(text)
    ]
    shown = [re.sub(r"at address \d+|0x[0-9a-f]{8}", "N", line) for line in lines.splitlines()]
    arguments = command.split()[1:]
    with tessctl.running(*arguments, until="listening as") as listen, QueueProcess(2001):
        tessctl.run("send", "--wait", "0.5", "HELLO")
        listen.terminate()
        output = listen.communicate()[0].splitlines()
        said = listen.errors().splitlines()
    wait_until(lambda: listen.poll() is not None, "listen ends")
    assert [re.sub(r"at address \d+|0x[0-9a-f]{8}", "N", line) for line in said + output] == shown
