"""What answers look like on the way, what they mean, and the errors that tell it."""

from __future__ import annotations

RECORD_TEXT_BYTES = 8192 - 16

_ERRORS_OF_TESSD = ("Error Setting Command: Invalid Arguments.", "Error Processing Reset Command.")


class CommandError(Exception):
    """A command was not carried out; `answer` is the whole answer."""

    def __init__(self, answer: str) -> None:
        super().__init__(answer)
        self.answer = answer


class CommandRefused(CommandError):
    """Nobody took the command, or its process does not know it: the answer is "?"."""


class CommandFailed(CommandError):
    """The last line of the answer begins with "Error: ", or the answer is an error of tessd itself."""


class NoAnswer(TimeoutError):
    """No answer came in time."""


def checked(answer: str) -> str:
    """Returns the answer, lines separated by LF. Raises CommandError when it says that the command was not carried out."""
    if answer == "?":
        raise CommandRefused(answer)
    if answer.rpartition("\n")[2].startswith("Error: ") or answer in _ERRORS_OF_TESSD:
        raise CommandFailed(answer)
    return answer


def reply(text: str) -> bytes:
    """The answer that a text makes: its lines with CR LF, then an empty line.

    An empty line inside gets a blank, so that it does not end the answer, and so does a "?" in front of other lines; empty
    lines at the end are left out, and so are NULs. "?" alone is a refusal, without an empty line. Nothing becomes "OK"."""
    lines = text.replace("\0", "").rstrip("\r\n").split("\n")
    if lines == ["?"]:
        return b"?\r\n"
    lines = [line.removesuffix("\r") or " " for line in lines]
    if lines == [" "] and not text.strip("\0\r\n"):
        lines = ["OK"]
    if lines[0] == "?":
        lines[0] = "? "
    return "".join(f"{line}\r\n" for line in [*lines, ""]).encode(errors="surrogateescape")


def pieces(answer: bytes) -> list[bytes]:
    """Cuts an answer into what one record each can carry with a NUL, behind line ends where there are any."""
    found = []
    while answer:
        count = RECORD_TEXT_BYTES - 1
        if len(answer) > count:
            count = answer.rfind(b"\n", 0, count) + 1 or count
        found.append(answer[:count])
        answer = answer[count:]
    return found
