"""docs/log.md has every line that the sources can log, with its text, and nothing else."""

import os
import re
import sys

sys.path.insert(0, os.path.dirname(os.path.realpath(__file__)))

from log_calls import PROJECT, VARIES, Reader  # noqa: E402

FOLDERS = ["framework", "common", "connections", "ports", "commands", "daemon"]


def reference() -> list[tuple[int, str, list[str]]]:
    """Number, text, and the cells behind them."""
    with open(f"{PROJECT}/docs/log.md", encoding="utf-8") as file:
        rows = re.findall(r"^\| (\d+) \| `([^`\n]+)` \|(.*)\|$", file.read(), re.MULTILINE)
    return [(int(number), text, [cell.strip() for cell in cells.split("|")]) for number, text, cells in rows]


def with_gaps(text: str) -> str:
    """As log_calls writes it: what varies is not named."""
    return re.sub(r"<[a-z ]+>", VARIES, text)


def listed() -> set[tuple[int, str]]:
    return {(number, with_gaps(text)) for number, text, _ in reference()}


def said(lines: set[tuple[int, str]]) -> list[str]:
    return [f"{number} '{text}'" for number, text in sorted(lines)]


def test_every_line_of_the_sources_is_in_the_reference():
    logged = Reader(FOLDERS).lines()
    assert len(logged) > 40, f"only {len(logged)} were read"
    missing = logged - listed()
    assert not missing, "\n".join(["docs/log.md lacks, or has with another text:", *said(missing)])


def test_the_reference_has_nothing_that_the_sources_do_not_log():
    surplus = listed() - Reader(FOLDERS).lines()
    assert not surplus, "\n".join(["no source logs:", *said(surplus)])


def test_every_row_of_the_tables_is_logged_somewhere():
    """A row that is left over, or one whose call is not understood, shows here."""
    reader = Reader(FOLDERS)
    unused = sorted(reader.rows.keys() - reader.logged_rows())
    assert len(reader.rows) > 30, f"only {len(reader.rows)} rows were read"
    assert not unused, unused


def test_numbers_are_called_numbers_and_nothing_else_is():
    reader = Reader(FOLDERS)
    kinds = {(row.id, row.text): [value != "Text" for value in row.values] for row in reader.rows.values() if row.values}
    assert len(kinds) > 10, kinds
    named = {(number, with_gaps(text)): [gap == "<number>" for gap in re.findall(r"<[a-z ]+>", text)] for number, text, _ in reference()}
    wrong = [line for line in sorted(kinds) if named.get(line) != kinds[line]]
    assert not wrong, wrong


def test_every_line_of_the_reference_stands_once_and_is_explained():
    rows = reference()
    texts = [(number, text) for number, text, _ in rows]
    assert len(texts) == len(set(texts)), sorted(text for text in texts if texts.count(text) > 1)
    bare = [text for _, text, cells in rows if len(cells) != 2 or not all(cells)]
    assert not bare, bare
