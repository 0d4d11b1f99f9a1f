"""What the documents tell a reader to type gives what they say it gives."""

from __future__ import annotations

import os
import re
import subprocess

import pytest

import doc_examples  # of tools/
from harness import settings, tessctl
from harness.queue_process import QueueProcess

pytestmark = tessctl.needs_tessctl

FOLDER = "/tmp/reader"


@pytest.fixture
def encoder(tessd):
    """The example process, as the documents expect it to be there."""
    process = subprocess.Popen([os.path.join(settings.BIN_DIR, "encoder")], stderr=subprocess.PIPE, text=True)
    assert "registered at tessd as ENC" in process.stderr.readline()
    yield
    process.terminate()
    assert process.wait(10 * settings.SLOW) == 0
    process.stderr.close()


@pytest.mark.parametrize("document", doc_examples.DOCUMENTS)
def test_commands_print_what_the_document_says(encoder, document):
    session = doc_examples.Session(document)
    os.mkdir(FOLDER)
    for name, text in session.files.items():
        with open(f"{FOLDER}/{name}", "w", encoding="utf-8") as file:
            file.write(text)
    environment = {"PATH": settings.BIN_DIR + os.pathsep + os.environ["PATH"], "LC_ALL": "C"}
    shell = subprocess.run(
        ["bash", "-c", session.script], cwd=FOLDER, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT, text=True, timeout=30 * settings.SLOW,
    )  # fmt: skip
    session.expect(shell.stdout)


def test_the_dialogue_goes_as_the_document_says(encoder):
    dialogues = [text for language, _, text in doc_examples.blocks("operators.md") if language == "dialogue"]
    assert dialogues, "operators.md has no dialogue"
    for dialogue in dialogues:
        program, *arguments = doc_examples.commands(dialogue)[0][0].split()
        assert program == "tessctl"
        terminal = tessctl.on_terminal(*arguments)
        doc_examples.hold_dialogue(dialogue, terminal, 10 * settings.SLOW)
        terminal.type(b"\x04")
        assert terminal.expect_end() == tessctl.DONE


def test_listen_says_what_the_document_shows(tessd):
    """Its numbers differ from run to run; everything else is as shown."""
    ((command, lines),) = [
        pair
        for language, _, text in doc_examples.blocks("processes.md")
        if language == "text" and "listen" in text
        for pair in doc_examples.commands(text)
    ]
    shown = [re.sub(r"at address \d+|0x[0-9a-f]{8}", "N", line) for line in lines.splitlines()]
    arguments = command.split()[1:]
    with tessctl.running(*arguments, until="listening as") as listen, QueueProcess(2001):
        tessctl.run("send", "--wait", "0.5", "HELLO")
        listen.terminate()
        output = listen.communicate()[0].splitlines()
        said = listen.errors().splitlines()
    assert [re.sub(r"at address \d+|0x[0-9a-f]{8}", "N", line) for line in said + output] == shown
