"""tools/coverage.py: what is not reached, and whether the note names it."""

from __future__ import annotations

import json
import os
import subprocess
import sys

import pytest

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
TOOL = os.path.join(PROJECT, "tools/coverage.py")


def line(number: int, count: int, *branches: int) -> dict:
    return {"line_number": number, "count": count, "branches": [{"count": taken} for taken in branches]}


def function(name: str, at: int) -> dict:
    return {"name": name, "lineno": at}


def run(tmp_path, lines: list[dict], note: str = "") -> tuple[int, str]:
    functions = [
        function("Door::open(std::vector<int, std::allocator<int> > const&) const", 1),
        function("Door::open(std::vector<int, std::allocator<int> > const&) const::{lambda(int)#1}::operator()(int) const", 3),
        function("(anonymous namespace)::shut[abi:cxx11](char*)", 10),
    ]
    report, note_file = tmp_path / "coverage.json", tmp_path / "note.md"
    report.write_text(json.dumps({"files": [{"file": "daemon/door.cpp", "lines": lines, "functions": functions}]}))
    note_file.write_text(note)
    ended = subprocess.run([sys.executable, TOOL, report, note_file], capture_output=True, text=True, check=False)
    return ended.returncode, ended.stdout + ended.stderr


def test_says_nothing_where_all_is_reached(tmp_path):
    status, told = run(tmp_path, [line(1, 3, 1, 2), line(10, 1)])
    assert status == 0, told
    assert told.splitlines()[1].split() == "daemon 2 of 2 100.0 % 2 of 2 100.0 %".split()
    assert len(told.splitlines()) == 3, told


@pytest.mark.parametrize(
    "lines, expected",
    [
        ([line(2, 0), line(3, 0), line(5, 0)], "daemon/door.cpp: Door::open: lines 2-3, 5"),
        ([line(2, 1, 0, 4)], "daemon/door.cpp: Door::open: branches at 2"),
        ([line(2, 0, 0, 0), line(4, 1, 0, 1)], "daemon/door.cpp: Door::open: lines 2, branches at 4"),
        ([line(10, 1), line(12, 0)], "daemon/door.cpp: shut: lines 12"),
    ],
)
def test_tells_what_is_not_reached_by_its_function(tmp_path, lines, expected):
    status, told = run(tmp_path, lines)
    assert status == 1
    assert f"NOT NAMED {expected}" in told.splitlines(), told


def test_is_content_with_what_the_note_names(tmp_path):
    note = "| File | Function | Why |\n|---|---|---|\n| `daemon/door.cpp` | `Door::open` | it is never locked |\n"
    status, told = run(tmp_path, [line(2, 0)], note)
    assert status == 0, told
    assert "daemon/door.cpp: Door::open: lines 2" in told.splitlines(), told


def test_a_star_names_all_of_a_file(tmp_path):
    status, told = run(tmp_path, [line(2, 0), line(11, 0)], "| `daemon/door.cpp` | `*` | it has none |\n")
    assert status == 0, told


def test_a_row_without_a_reason_names_nothing(tmp_path):
    status, _ = run(tmp_path, [line(2, 0)], "| `daemon/door.cpp` | `Door::open` |  |\n")
    assert status == 1
