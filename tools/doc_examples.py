"""The examples in the documents, in a form that tests can try.

A fenced block of language `console` holds commands, each behind "$ ", and their output; one of `author` the same, for a
reader who has a compiler, the library and the Python module; one of `dialogue` begins with the command of a program that
asks, whose answers stand behind its prompt; a block with `file=NAME` is a file to be there."""

from __future__ import annotations

import os
import re

from terminal import Terminal

DOCUMENTS = ["operators.md", "processes.md", "integrators.md"]
PROMPT = "tess> "
END_OF_COMMAND = "\x01"

_BLOCK = re.compile(r"^```(\w+)(?: file=(\S+))?\n(.*?)^```$", re.DOTALL | re.MULTILINE)
_DOCS = os.path.join(os.path.dirname(os.path.dirname(os.path.realpath(__file__))), "docs")


def blocks(document: str) -> list[tuple[str, str, str]]:
    """Language, name of the file and text of each block."""
    with open(os.path.join(_DOCS, document), encoding="utf-8") as file:
        return _BLOCK.findall(file.read())


def commands(text: str) -> list[tuple[str, str]]:
    """Each command of a block and its output."""
    parts = re.split(r"^\$ (.*)\n", text, flags=re.MULTILINE)
    assert parts[0] == "", f"a block begins with a command, not with {parts[0]!r}"
    return list(zip(parts[1::2], parts[2::2], strict=True))


def preparation(document: str) -> str:
    """For a shell: what the first commands of a document start, and the rest of it needs."""
    text = next(text for language, _, text in blocks(document) if language == "console")
    return "".join(f"{command}\n" for command, _ in commands(text))


def queue_program() -> str:
    """The example of the manual page tess-queue(7)."""
    with open(os.path.join(_DOCS, "man/tess-queue.7"), encoding="utf-8") as file:
        (program,) = re.findall(r"^\.Bd -literal.*\n(import .*?)^\.Ed$", file.read(), re.DOTALL | re.MULTILINE)
    return program.replace("\\e", "\\")


class Session:
    """All that a reader of a document types, in one folder and one shell; or all that an author types, as `kind` says."""

    def __init__(self, document: str, kind: str = "console") -> None:
        self._document = document
        self.files = {name: text for _, name, text in blocks(document) if name}
        self._pairs = [pair for language, _, text in blocks(document) if language == kind for pair in commands(text)]
        assert self._pairs, f"{document} has no commands to try"

    @property
    def script(self) -> str:
        """For a shell in a folder that has the files."""
        return "".join(f"{command}\nprintf '\\001'\n" for command, _ in self._pairs)

    def expect(self, printed: str) -> None:
        """What the script has printed, on standard output and error, must be what the document says."""
        actual = printed.split(END_OF_COMMAND)
        for (command, output), came in zip(self._pairs, actual, strict=False):
            assert came == output, f"{self._document}: $ {command}\nprints\n{came}\nand not\n{output}"
        assert len(actual) == len(self._pairs) + 1, f"{len(actual) - 1} of {len(self._pairs)} commands were run\n{printed}"


def hold_dialogue(text: str, terminal: Terminal, seconds: float) -> None:
    """Types what the block says, and waits for what it shows. Errors are OSError."""
    for line in text.splitlines()[1:]:
        if line.startswith(PROMPT):
            terminal.wait_for(PROMPT.encode(), seconds)
            terminal.type(line.removeprefix(PROMPT).encode() + b"\r")
        else:
            terminal.wait_for(line.encode() + b"\r\n", seconds)
