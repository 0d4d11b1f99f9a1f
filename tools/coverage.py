#!/usr/bin/python3
"""Tells what the tests do not reach, of a report of gcovr, and whether a document names it.

    tools/coverage.py COVERAGE.json NOTE.md

Prints lines and branches of each room, and for each function that is not reached as a whole which of its lines are not, and
at which lines a branch is never taken. A row of the note names such a function, or with `*` all of a file: `file`,
`function`, reason. Ends with status 1 when there is one that no row names."""

from __future__ import annotations

import bisect
import collections
import dataclasses
import json
import re
import sys

ROW = re.compile(r"\| `(?P<file>[^`]+)` \| `(?P<function>[^`]+)` \| (?P<reason>.+) \|")


@dataclasses.dataclass
class Share:
    reached: int = 0
    all: int = 0

    def count(self, reached: bool) -> None:
        self.reached += reached
        self.all += 1

    def __str__(self) -> str:
        return f"{self.reached:5} of {self.all:5} {100 * self.reached / max(self.all, 1):6.1f} %"


@dataclasses.dataclass
class Gap:
    """What is not reached of a function."""

    lines: list[int] = dataclasses.field(default_factory=list)
    branches: list[int] = dataclasses.field(default_factory=list)  # the lines that they leave from

    def __str__(self) -> str:
        parts = []
        if self.lines:
            parts.append(f"lines {ranges(self.lines)}")
        partly = sorted(set(self.branches) - set(self.lines))
        if partly:
            parts.append(f"branches at {ranges(partly)}")
        return ", ".join(parts)


def ranges(numbers: list[int]) -> str:
    """1, 2, 3, 7 is "1-3, 7"."""
    found: list[list[int]] = []
    for number in sorted(numbers):
        if found and number == found[-1][-1] + 1:
            found[-1].append(number)
        else:
            found.append([number])
    return ", ".join(f"{run[0]}-{run[-1]}" if len(run) > 1 else str(run[0]) for run in found)


def short(function: str) -> str:
    """Without what stands in parentheses or angle brackets, and without the anonymous namespace."""
    function = function.replace("(anonymous namespace)::", "")
    while (shorter := re.sub(r"<[^<>]*>|\([^()]*\)|\[[^\[\]]*\]", "", function)) != function:
        function = shorter
    return function.strip().removesuffix(" const").removesuffix(" noexcept").split(" ")[-1]


class FileReport:
    def __init__(self, facts: dict) -> None:
        self.name = facts["file"]
        self.room = self.name.split("/")[0]
        self.lines = [line for line in facts["lines"] if not line.get("gcovr/noncode")]
        starts = sorted((each["lineno"], short(each["name"])) for each in facts["functions"] if "lambda" not in each["name"])
        self._at = [at for at, _ in starts]
        self._names = [name for _, name in starts]

    def function_at(self, line: int) -> str:
        index = bisect.bisect_right(self._at, line) - 1
        return self._names[index] if index >= 0 else "?"

    def gaps(self) -> dict[str, Gap]:
        """By function."""
        found: dict[str, Gap] = collections.defaultdict(Gap)
        for line in self.lines:
            number = line["line_number"]
            if line["count"] == 0:
                found[self.function_at(number)].lines.append(number)
            found[self.function_at(number)].branches += [number for branch in line["branches"] if branch["count"] == 0]
        return {function: gap for function, gap in found.items() if gap.lines or gap.branches}


def table(files: list[FileReport]) -> str:
    shares: dict[str, tuple[Share, Share]] = collections.defaultdict(lambda: (Share(), Share()))
    for file in files:
        for line in file.lines:
            for name in (file.room, "all"):
                shares[name][0].count(line["count"] > 0)
                for branch in line["branches"]:
                    shares[name][1].count(branch["count"] > 0)
    rows = [f"{'':12}{'lines':>24}  {'branches':>24}"]
    for name in [*sorted(set(shares) - {"all"}), "all"]:
        rows.append(f"{name:12}{shares[name][0]!s:>24}  {shares[name][1]!s:>24}")
    return "\n".join(rows)


def named_in(note: str) -> set[tuple[str, str]]:
    return {(row["file"], row["function"]) for line in note.splitlines() if (row := ROW.fullmatch(line))}


def main(report_path: str, note_path: str) -> int:
    with open(report_path, encoding="utf-8") as file:
        files = [FileReport(facts) for facts in json.load(file)["files"]]
    with open(note_path, encoding="utf-8") as file:
        named = named_in(file.read())
    print(table(files))
    unnamed = 0
    for file in sorted(files, key=lambda report: report.name):
        for function, gap in file.gaps().items():
            is_named = bool({(file.name, function), (file.name, "*")} & named)
            unnamed += not is_named
            print(f"{'' if is_named else 'NOT NAMED '}{file.name}: {function}: {gap}")
    if unnamed:
        print(f"{unnamed} functions are not reached as a whole, and {note_path} does not name them")
    return 1 if unnamed else 0


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("usage: coverage.py COVERAGE.json NOTE.md")
    sys.exit(main(*sys.argv[1:]))
