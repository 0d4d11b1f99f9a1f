"""What the documents tell a reader to type gives what they say it gives."""

from __future__ import annotations

import os
import re
import shlex
import signal
import stat
import subprocess

import pytest

import doc_examples  # of tools/
from harness import settings, tessctl
from harness.clients import IpcClient
from harness.com2 import SerialLine
from harness.queue_process import QueueProcess, queue_path
from harness.waiting import wait_until

pytestmark = tessctl.needs_tessctl

FOLDER = "/tmp/reader"
INSTALLED = "/usr/libexec/tess/"


def reader(script: str, stdout: int, within: float = 30, **variables: str) -> str | None:
    """What a reader types at a shell, with the programs of this build in the place of those installed."""
    environment = {"PATH": settings.BIN_DIR + os.pathsep + os.environ["PATH"], "LC_ALL": "C"} | variables
    return subprocess.run(
        ["bash", "-c", script.replace(INSTALLED, f"{settings.BIN_DIR}/")], cwd=FOLDER, env=environment, stdin=subprocess.DEVNULL,
        stdout=stdout, stderr=subprocess.STDOUT, text=True, timeout=within * settings.SLOW,
    ).stdout  # fmt: skip


@pytest.fixture
def folder() -> None:
    os.mkdir(FOLDER)


@pytest.fixture
def encoder(tessd, folder) -> None:
    """The example process, started as the document for operators says."""
    reader(doc_examples.preparation("operators.md"), subprocess.DEVNULL)


@pytest.mark.parametrize("document", doc_examples.DOCUMENTS)
def test_commands_print_what_the_document_says(tessd, folder, document):
    session = doc_examples.Session(document)
    write_files(session.files)
    session.expect(reader(session.script, subprocess.PIPE))


def write_files(files: dict[str, str]) -> None:
    for name, text in files.items():
        with open(f"{FOLDER}/{name}", "w", encoding="utf-8") as file:
            file.write(text)


def library_of_this_build() -> str:
    """What pkg-config says of the library, when it is the one of this build, with its sanitizer."""
    build = os.path.dirname(settings.BIN_DIR)
    with open(f"{build}/CMakeCache.txt", encoding="utf-8") as file:
        sanitizers = re.search(r"^TESS_SANITIZE:\w+=(.*)$", file.read(), re.MULTILINE)[1]
    options = f"-pthread -fsanitize={sanitizers}" if sanitizers else "-pthread"
    return f"""Name: tess-framework
Description: of this build
Version: 1
Cflags: -I{settings.PROJECT} {options}
Libs: {build}/framework/bundled/libtess_framework_bundled.a {options}
"""


@pytest.mark.deadline(180)
@pytest.mark.skipif(settings.emulated(), reason="the compiler of this machine builds for this machine")
def test_the_processes_that_an_author_writes_do_what_the_document_says(tessd, folder):
    session = doc_examples.Session("processes.md", "author")
    write_files(session.files | {"tess-framework.pc": library_of_this_build()})
    module = os.path.join(settings.PROJECT, "python")
    session.expect(reader(session.script, subprocess.PIPE, within=150, PKG_CONFIG_PATH=FOLDER, PYTHONPATH=module))


def test_the_process_in_cpp_is_complete_and_short():
    program = doc_examples.Session("processes.md").files["thermometer.cpp"]
    assert program.count("\n") <= 50, program


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


def examples(document: str, word: str) -> list[tuple[str, list[str]]]:
    """The commands of the blocks of text with that word in them, with the lines shown below them."""
    texts = [text for language, _, text in doc_examples.blocks(document) if language == "text" and word in text]
    return [(command, lines.splitlines()) for text in texts for command, lines in doc_examples.commands(text)]


def test_the_list_of_delayed_lines_looks_as_the_document_shows(tessd):
    """But for the seconds, which run."""

    def without_seconds(lines: list[str]) -> list[str]:
        return [re.sub(r"\d\d\.\d{3} ", "N ", line) for line in lines]

    shown = examples("operators.md", "DELAY")
    assert len(shown) == 2, shown
    for command, lines in shown:
        printed = tessctl.run(*shlex.split(command)[1:]).output.splitlines()
        assert without_seconds(printed) == without_seconds(lines), command


def test_reports_and_times_look_as_the_document_shows(encoder):
    """But for the times."""

    def without_times(text: str) -> str:
        return re.sub(r'\d{4}-\d\d-\d\dT[\d:.]+Z|(?<="milliseconds":)[\d.]+', "T", text)

    shown = examples("operators.md", "--json")
    assert len(shown) == 2, shown
    for command, lines in shown:
        printed = tessctl.run(*shlex.split(command)[1:]).output.splitlines()
        assert list(map(without_times, printed)) == list(map(without_times, lines)), command


def shape(text: str) -> str:
    """Without what differs from device to device and from run to run, and without the columns' widths."""
    text = re.sub(r"\d\d:\d\d:\d\d\.\d{3}|0x[0-9a-f]{8}", "N", text)
    text = re.sub(r"\d+ (s|min|h|d)( \d+ (s|min|h))?\b", "T", text)
    text = re.sub(r"uid \d+", "uid N", re.sub(r"pid \d+ \w+(?= uid)|pid \d+", "pid N", text))
    return re.sub(r" +", " ", re.sub(r"\b\d+(\.\d+)*\b", "N", text))


def test_what_is_seen_looks_as_the_document_shows(launch, folder):
    """All ports, the example process and a client."""
    with SerialLine():
        launch().wait_running()
        reader(doc_examples.preparation("operators.md"), subprocess.DEVNULL)
        with IpcClient() as client:
            client.expect_nothing_more()
            shown = examples("operators.md", "tessctl who")
            assert [command for command, _ in shown] == ["tessctl status", "tessctl list", "tessctl who"]
            for command, lines in shown:
                printed = tessctl.run(*command.split()[1:]).expect(tessctl.DONE).output.splitlines()
                assert list(map(shape, printed)) == list(map(shape, lines)), command


def test_watch_prints_what_the_document_shows(tessd, encoder):
    ((command, lines),) = examples("operators.md", "tessctl watch")
    tessctl.run("send", "s3.ENC SETX 8").expect(tessctl.DONE)
    with tessctl.running(*command.split()[1:], "--port", "ipc", "--count", str(len(lines)), until="watching") as watch:
        tessctl.run("send", "s3.ENC GETX").expect(tessctl.DONE)
        printed = watch.communicate(timeout=20 * settings.SLOW)[0].splitlines()
    assert list(map(shape, printed)) == list(map(shape, lines))


def test_listen_says_what_the_document_shows(tessd):
    """Its numbers differ from run to run; everything else is as shown."""
    ((command, lines),) = examples("processes.md", "listen")
    shown = [re.sub(r"at address \d+|0x[0-9a-f]{8}", "N", line) for line in lines]
    arguments = command.split()[1:]
    with tessctl.running(*arguments, until="listening as") as listen, QueueProcess(2001):
        tessctl.run("send", "--wait", "0.5", "HELLO")
        listen.terminate()
        output = listen.communicate()[0].splitlines()
        said = listen.errors().splitlines()
    assert [re.sub(r"at address \d+|0x[0-9a-f]{8}", "N", line) for line in said + output] == shown


class QueueProgram:
    """The program of the manual page tess-queue(7), run by a reader whose umask lets nobody else write."""

    def __init__(self) -> None:
        self.process = subprocess.Popen(
            ["/usr/bin/python3", "-c", doc_examples.queue_program()], stderr=subprocess.PIPE, text=True, umask=0o022
        )

    def wait_registered(self) -> None:
        def registered() -> bool:
            assert self.process.poll() is None, self.process.stderr.read()
            with IpcClient() as client:
                client.send(b"s3.ECHO HELLO\n")
                return client.receive(3) == b"HEL" and client.receive(6) == b"LO\r\n\r\n"

        wait_until(registered, "an answer of the program", 10)

    def end(self, number: int) -> None:
        self.process.send_signal(number)
        self.process.communicate(timeout=10 * settings.SLOW)


def test_the_program_of_the_manual_page_answers_and_may_be_started_again(tessd):
    first = QueueProgram()
    first.wait_registered()
    # Who shares the directory must be able to answer it, tessd first of all.
    assert stat.S_IMODE(os.stat(queue_path(1700)).st_mode) == 0o660
    second = QueueProgram()
    _, said = second.process.communicate(timeout=10 * settings.SLOW)
    assert (second.process.returncode, said) == (1, "queue address 1700 is in use\n")
    first.end(signal.SIGKILL)
    third = QueueProgram()
    third.wait_registered()
    third.end(signal.SIGTERM)
