"""What the C++ sources can log, read from the sources themselves.

    Reader(folders).lines()         every (identifier, text); what varies within a text is "<>"
    Reader(folders).rows            the rows of the tables, by name
    Reader(folders).logged_rows()   the names of those that a call takes

A row of a table (LogMessage) holds the whole text of its lines. Every call that takes one, logMessage() and composed(), is
followed to the rows that it can take: through references, parameters and members. What logMgr.log() is given itself, an
identifier and a literal or the text of an exception, is read too. A call that cannot be followed is an error, so that no line
is missed in silence.
"""

from __future__ import annotations

import dataclasses
import glob
import itertools
import os
import re
import sys

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
VARIES = "<>"

FORMATTER = "framework/log_message.h"  # logMessage() and composed() themselves
STRING = r'"(?:[^"\\\n]|\\.)*"'
KEYWORDS = {"if", "for", "while", "switch", "catch", "return", "sizeof", "defined"}


class CannotFollow(Exception):
    """The sources do something that this reader does not know; the text names the place."""


@dataclasses.dataclass(frozen=True)
class Row:
    name: str
    values: tuple[str, ...]  # Number, Hex, Text
    id: int
    text: str


@dataclasses.dataclass(frozen=True)
class Function:
    name: str
    parameters: tuple[str, ...]
    takes_any_number: bool  # the last parameter is a pack
    start: int
    end: int


@dataclasses.dataclass(frozen=True)
class Site:
    """A place in a file; what stands there is read as its function reads it."""

    source: Source
    at: int

    @property
    def function(self) -> Function:
        around = [f for f in self.source.functions if f.start <= self.at < f.end]
        if not around:
            raise CannotFollow(f"{self}: outside of any function")
        return max(around, key=lambda f: f.start)

    def before(self) -> str:
        """The function's text in front of this place."""
        return self.source.code[self.function.start : self.at]

    def __str__(self) -> str:
        return f"{self.source.path}:{self.source.code.count(chr(10), 0, self.at) + 1}"


class Source:
    def __init__(self, path: str) -> None:
        self.path = path
        with open(os.path.join(PROJECT, path), encoding="utf-8") as file:
            self.code = without_comments(file.read())
        self.functions = list(functions_in(self.code))

    @property
    def folder(self) -> str:
        return os.path.dirname(self.path)


def without_comments(code: str) -> str:
    """Of the same length and lines."""

    def blank(match: re.Match[str]) -> str:
        return match[0] if match[0].startswith('"') else re.sub(r"[^\n]", " ", match[0])

    return re.sub(rf"{STRING}|//[^\n]*|/\*.*?\*/", blank, code, flags=re.DOTALL)


def functions_in(code: str):
    for match in re.finditer(r"\b(\w+)\(([^(){};]*)\)(?:\s|const\b|noexcept\b|override\b|final\b|try\b)*\{", code):
        if match[1] in KEYWORDS:
            continue
        parameters = re.sub(r"<[^<>]*>", "", match[2])  # there may be commas in them
        names = tuple(re.split(r"\W+", part.strip())[-1] for part in parameters.split(",") if part.strip())
        yield Function(match[1], names, "..." in parameters, match.start(), closing(code, match.end() - 1) + 1)


def closing(code: str, at: int) -> int:
    """Where the bracket that opens at this place is closed."""
    depth = 0
    for match in re.compile(rf"{STRING}|[(){{}}\[\]]").finditer(code, at):
        depth += (match[0] in "([{") - (match[0] in ")]}")
        if depth == 0:
            return match.start()
    raise CannotFollow(f"an open bracket: {code[at : at + 60]!r}")


def split(text: str, separator: str) -> list[str]:
    """At every separator outside of brackets and strings."""
    parts, depth, start = [], 0, 0
    for match in re.finditer(rf"{STRING}|[(){{}}\[\]]|{re.escape(separator)}", text):
        if match[0] == separator and depth == 0:
            parts.append(text[start : match.start()].strip())
            start = match.end()
        depth += (match[0] in "([{") - (match[0] in ")]}")
    return [*parts, text[start:].strip()]


def bare(expression: str) -> str:
    """Without what does not change the value: brackets around it, an address-of, a dereference."""
    expression = expression.strip().lstrip("&*").strip()
    while expression.startswith("(") and closing(expression, 0) == len(expression) - 1:
        expression = bare(expression[1:-1])
    return expression


def alternatives(expression: str) -> list[str]:
    """Both sides of a condition."""
    expression = bare(expression)
    condition = split(expression, "?")
    if len(condition) == 1:
        return [expression]
    sides = split(condition[1], " : ")
    if len(condition) != 2 or len(sides) != 2:
        raise CannotFollow(f"conditions within each other: {expression}")
    return [value for side in sides for value in alternatives(side)]


def literal(expression: str) -> str | None:
    """The text of a string literal, or of several in a row."""
    if not re.fullmatch(rf"{STRING}(?:\s*{STRING})*", expression):
        return None
    text = "".join(part[1:-1] for part in re.findall(STRING, expression))
    return re.sub(r"\\(.)", lambda escape: {"n": "\n", "r": "\r"}.get(escape[1], escape[1]), text)


def texts_of(parts: list[list[str]]) -> list[str]:
    """Every combination of the parts' alternatives; values side by side count as one."""
    return [re.sub(f"(?:{VARIES})+", VARIES, "".join(choice)) for choice in itertools.product(*parts)]


class Reader:
    def __init__(self, folders: list[str]) -> None:
        patterns = [f"{folder}/**/*.{kind}" for folder in folders for kind in ("h", "cpp")]
        paths = {path for pattern in patterns for path in glob.glob(pattern, root_dir=PROJECT, recursive=True)}
        self.sources = [Source(path) for path in sorted(paths)]
        everything = "\n".join(source.code for source in self.sources)
        self.rows: dict[str, Row] = {}
        for values, name, number, text in re.findall(
            rf"\bLogMessage(?:<([\w, ]*)>)? (\w+)\{{\s*(\d+),\s*((?:{STRING}\s*)+)\}};", everything
        ):
            if name in self.rows:
                raise CannotFollow(f"two rows are called {name}")
            whole = (literal(text.strip()) or "").replace("{}", VARIES)
            self.rows[name] = Row(name, tuple(re.findall(r"\w+", values)), int(number), whole)
        self.identifiers = {name: int(number) for name, number in re.findall(r"\bTTraceMsg (\w+) = (\d+);", everything)}
        self.numbers = dict(re.findall(r"\bconstexpr (?:long|int|std::\w+) (\w+) = (\d+);", everything))

    def lines(self) -> set[tuple[int, str]]:
        of_rows = {(row.id, row.text) for row in self.followed_rows()}
        return of_rows | {line for site, arguments in self.calls(r"logMgr\.log", None) for line in self.logged(arguments, site)}

    def logged_rows(self) -> set[str]:
        return {row.name for row in self.followed_rows()}

    def followed_rows(self):
        for site, arguments in self.calls("(?:logMessage|logLongMessage|composed)", None):
            yield from self.rows_of(arguments[0], site)

    def calls(self, name: str, only: Source | None):
        for source in [only] if only else self.sources:
            if source.path == FORMATTER:
                continue
            definitions = {function.start for function in source.functions}
            for match in re.finditer(rf"\b{name}(?:<[\w:]+>)?\(", source.code):
                if match.start() in definitions:
                    continue
                end = closing(source.code, match.end() - 1)
                yield Site(source, match.start()), split(source.code[match.end() : end], ",")

    def calls_of_function_at(self, site: Site):
        """The calls of the function around this place, as (site, {parameter: argument})."""
        function = site.function
        everywhere = site.source.path.endswith(".h")
        found = False
        for call, arguments in self.calls(function.name, None if everywhere else site.source):
            if len(arguments) == len(function.parameters) or function.takes_any_number:
                found = True
                yield call, dict(zip(function.parameters, arguments))
        if not found:
            raise CannotFollow(f"{site}: nobody calls {function.name}()")

    def logged(self, arguments: list[str], site: Site):
        """The lines of a call log(identifier, text)."""
        identifier, text = arguments
        number = self.identifiers.get(identifier.rpartition("::")[2])
        if number is None:
            raise CannotFollow(f"{site}: which identifier is {identifier}?")
        if literal(text) is not None:
            yield number, literal(text)
        elif re.fullmatch(r"\w+\.what\(\)", text):
            for thrown in self.thrown_in(site.source.folder):
                yield number, thrown
        else:
            raise CannotFollow(f"{site}: a text that is composed belongs into a row: {text}")

    def rows_of(self, expression: str, site: Site):
        for value in alternatives(expression):
            local = (
                re.findall(rf"\bLogMessage(?:<[\w, ]*>)?& {re.escape(value)} = ([^;]+);", site.before())
                if value.isidentifier()
                else []
            )
            member = re.fullmatch(r"\w+(?:\.|->)(\w+)", value)
            if value.rpartition("::")[2] in self.rows:
                yield self.rows[value.rpartition("::")[2]]
            elif local:
                yield from self.rows_of(local[-1], site)
            elif value in site.function.parameters:
                for call, given in self.calls_of_function_at(site):
                    yield from self.rows_of(given[value], call)
            elif member:
                yield from self.rows_of_member(member[1], site)
            else:
                raise CannotFollow(f"{site}: which row is {value}?")

    def rows_of_member(self, name: str, site: Site):
        """What the initialisers of the folder put into that member."""
        for source in self.sources:
            if source.folder != site.source.folder:
                continue
            for match in re.finditer(rf"\s\.{name} = ([^,]+),", source.code):
                if match[1] != "nullptr":
                    yield from self.rows_of(match[1], Site(source, match.start()))

    def part(self, value: str) -> str:
        text = literal(value)
        return text if text is not None else self.numbers.get(value.rpartition("::")[2], VARIES)

    def thrown_in(self, folder: str) -> list[str]:
        """What the run-time errors of a folder say."""
        texts = []
        for source in self.sources:
            if source.folder != folder:
                continue
            for match in re.finditer(r"throw std::runtime_error\(", source.code):
                said = source.code[match.end() : closing(source.code, match.end() - 1)]
                site = Site(source, match.start())
                helper = set(site.function.parameters) & set(re.findall(r"\w+", said))
                for _, given in self.calls_of_function_at(site) if helper else [(site, {})]:
                    parts = [given.get(part, part) for part in split(said, "+")]
                    parts = [re.sub(r"^std::to_string\((.+)\)$", r"\1", part) for part in parts]
                    texts += texts_of([[self.part(value) for value in alternatives(part)] for part in parts])
        if not texts:
            raise CannotFollow(f"{folder}: nothing is thrown there")
        return texts


if __name__ == "__main__":
    for number, text in sorted(Reader(sys.argv[1:]).lines()):
        print(f"{number:6} {text!r}")
