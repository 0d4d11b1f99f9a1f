"""docs/log.md has every line that the sources can log, with its text, and every milestone; and nothing else."""

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
    named = {
        (number, with_gaps(text)): [gap == "<number>" for gap in re.findall(r"<[a-z ]+>", text)]
        for number, text, _ in reference()
    }
    wrong = [line for line in sorted(kinds) if named.get(line) != kinds[line]]
    assert not wrong, wrong


def test_every_line_of_the_reference_stands_once_and_is_explained():
    rows = reference()
    texts = [(number, text) for number, text, _ in rows]
    assert len(texts) == len(set(texts)), sorted(text for text in texts if texts.count(text) > 1)
    bare = [text for _, text, cells in rows if len(cells) != 2 or not all(cells)]
    assert not bare, bare


def milestones(path: str, row: str) -> dict[str, tuple[int, str]]:
    """Number and meaning by name."""
    with open(f"{PROJECT}/{path}", encoding="utf-8") as file:
        found = list(re.finditer(row, file.read(), re.MULTILINE))
    assert len(found) > 70, f"only {len(found)} milestones were read from {path}"
    names = {match["name"]: (int(match["number"]), match["meaning"]) for match in found}
    assert len(names) == len(found) == len({number for number, _ in names.values()}), f"a name or a number stands twice in {path}"
    return names


def test_the_milestones_of_the_reference_are_those_of_the_sources():
    listed_there = milestones("docs/log.md", r"^\| (?P<number>\d+) \| (?P<meaning>[^|]+) \| `(?P<name>\w+)` \|$")
    header = "common/milestone.h"
    passed = milestones(header, r"^ +(?P<name>\w+) = (?P<number>\d+), +///< (?P<meaning>.+)$")
    differ = {
        name: (passed.get(name), listed_there.get(name))
        for name in passed.keys() | listed_there.keys()
        if passed.get(name) != listed_there.get(name)
    }
    assert not differ, f"{header}, docs/log.md: {differ}"


def test_every_enumerator_is_explained_and_passed_somewhere():
    with open(f"{PROJECT}/common/milestone.h", encoding="utf-8") as file:
        body = re.search(r"enum class Milestone[^{]*\{(.*?)\};", file.read(), re.DOTALL)[1]
    explained = milestones("common/milestone.h", r"^ +(?P<name>\w+) = (?P<number>\d+), +///< (?P<meaning>.+)$")
    enumerators = re.findall(r"^\s*(\w+)", re.sub(r"//.*", "", body), re.MULTILINE)
    assert sorted(enumerators) == sorted(explained), set(enumerators) ^ set(explained)
    passed = {name for source in Reader(FOLDERS).sources for name in re.findall(r"\bMilestone::(\w+)", source.code)}
    assert passed == set(enumerators), passed ^ set(enumerators)
