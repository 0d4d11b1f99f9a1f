"""The tables of the benchmarks: what is compared with what."""

import copy
import os
import sys

import pytest

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
sys.path.insert(0, os.path.join(PROJECT, "bench"))

import tables  # noqa: E402


def measured(p50: list[float], rate: float = 1000, calls: float = 5.0) -> dict:
    rounds = [{"p50": value, "p99": 2 * value, "rate": rate, "processor": 14.0, "quantiles": [value]} for value in p50]
    return {
        "one client": rounds,
        "29 idle": [{**result, "p50": 1.5 * result["p50"]} for result in rounds],
        "10 clients": rounds,
        "16 in flight": rounds,
        "calls": {"sendto": calls - 1, "select": 1.0},
        "calls, 16 in flight": {"sendto": calls},
        "idle": {"wakeups": 2.0, "microseconds": 80.0},
        "idle, 10 clients": {"wakeups": 2.0, "microseconds": 90.0},
        "memory": {"resident": 2900, "private": 800},
        "first answer": [900.0, 1000.0, 5000.0],
        "size": {"program": 100.0, "libraries": 2000.0},
    }


# The third round was disturbed, for both.
ROUTERS = {
    "floor": measured([10, 10, 50]),
    "floor xcp": measured([20, 20, 20]),
    "tessd": measured([11, 11, 55], rate=1400, calls=6.0),
    "tessd xcp": measured([20, 20, 20], rate=500),
}
FACTS = {
    "command": "scripts/bench",
    "rounds": 3,
    "seconds": 0.5,
    "versions": {},
    "routers": ROUTERS,
    "growth": {"pending delays": {"0": {"tessd": 11.0}, "100": {"tessd": 12.0}}},
    "machine": {
        "processor": "p",
        "processors": 2,
        "core": 1,
        "nice": 0,
        "kernel": "k",
        "date": "d",
        "compiler": "c",
        "commit": "0",
        "load before": 0.0,
        "load after": 0.0,
    },
}


@pytest.mark.parametrize(
    ("title", "router", "expected"),
    [
        ("round trip p50, 1 client, over the floor's", "tessd", (1.1,)),
        ("round trip p50, 1 client, over the floor's", "tessd xcp", (1.0,)),  # over the floor of its own socket
        ("round trip with 29 idle clients on all ports over one's own with none", "tessd", (1.5,)),
        ("10 clients, 16 in flight", "tessd", (1.4,)),
        ("system calls a command, 1 client", "tessd", (6.0,)),
        ("resident; private KiB", "tessd", (2900, 800)),
    ],
)
def test_a_row_holds(title, router, expected):
    assert tables.rows(ROUTERS)[title][router] == pytest.approx(expected)


def test_a_disturbed_round_changes_no_ratio():
    disturbed = copy.deepcopy(ROUTERS)
    for name in ("floor", "tessd"):
        disturbed[name]["one client"][0]["p50"] *= 7
    title = "round trip p50, 1 client, over the floor's"
    assert tables.rows(disturbed)[title]["tessd"] == pytest.approx(tables.rows(ROUTERS)[title]["tessd"])


@pytest.mark.parametrize(
    ("goal", "figures", "reached"),
    [
        (tables.AtMost([1.05]), (1.05,), True),
        (tables.AtMost([1.05]), (1.06,), False),
        (tables.AtLeast([0.95]), (0.96,), True),
        (tables.AtLeast([0.95]), (0.94,), False),
        (tables.AtMost([3000, 700]), (2900, 800), False),
        (tables.AtMost([3000, 700]), (2900, 600), True),
    ],
)
def test_a_goal_is_reached(goal, figures, reached):
    assert goal.reached(figures) is reached


def line_of(text: str, title: str) -> str:
    return next(line for line in text.splitlines() if line.startswith(f"| {title} |"))


def test_the_table_says_which_goals_are_reached():
    text = tables.text(FACTS)
    assert line_of(text, "10 clients, 16 in flight").endswith("| 1.40 | 0.50 | at least 1.3 | yes; no |")
    assert line_of(text, "resident; private KiB").endswith("| at most 3000; 700 | no |")


def test_growth_is_told():
    assert "| pending delays | 100 | 12.0 |" in tables.text(FACTS)


def test_only_what_stands_between_the_marks_is_replaced(tmp_path):
    document = tmp_path / "document.md"
    document.write_text(f"before\n{tables.BEGIN}\nold\n{tables.END}\nafter\n", encoding="utf-8")
    tables.write(str(document), "new")
    assert document.read_text(encoding="utf-8") == f"before\n{tables.BEGIN}\nnew\n{tables.END}\nafter\n"


def test_a_document_without_marks_is_left_alone(tmp_path):
    document = tmp_path / "document.md"
    document.write_text("nothing\n", encoding="utf-8")
    with pytest.raises(SystemExit):
        tables.write(str(document), "new")
    assert document.read_text(encoding="utf-8") == "nothing\n"
