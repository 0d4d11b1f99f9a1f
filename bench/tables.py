#!/usr/bin/python3
"""The tables, from the JSON that compare.py has written.

    bench/tables.py FILE [--write DOCUMENT]

Prints them; with --write also puts them into a document, in the place of what stands between its two marks."""

from __future__ import annotations

import json
import statistics
import sys
import textwrap
from collections.abc import Callable

BEGIN, END = "<!-- bench: begin -->", "<!-- bench: end -->"

Figures = dict
Row = Callable[[Figures, Figures], "float | tuple[float, ...]"]


def median_of(rounds: list[dict], key: str) -> float:
    return statistics.median(result[key] for result in rounds)


def over_floor(load: str, key: str) -> Row:
    """The median of the rounds' ratios: what disturbs one round disturbs the floor of it too."""

    def ratio(own: Figures, floor: Figures) -> float:
        return statistics.median(mine[key] / least[key] for mine, least in zip(own[load], floor[load], strict=True))

    return ratio


def over_own(load: str, base: str, key: str) -> Row:
    return lambda own, _floor: statistics.median(more[key] / less[key] for more, less in zip(own[load], own[base], strict=True))


def calls(key: str) -> Row:
    return lambda own, _floor: sum(own[key].values())


def idle(own: Figures, _floor: Figures) -> tuple[float, float]:
    return own["idle"]["wakeups"], own["idle, 10 clients"]["microseconds"]


def memory(own: Figures, _floor: Figures) -> tuple[float, float]:
    return own["memory"]["resident"], own["memory"]["private"]


def first_answer(own: Figures, floor: Figures) -> float:
    return statistics.median(own["first answer"]) / statistics.median(floor["first answer"])


def size(own: Figures, _floor: Figures) -> tuple[float, float]:
    return own["size"]["program"], own["size"]["libraries"]


class AtMost(tuple):
    """Of one figure or of two."""

    def reached(self, figures: tuple[float, ...]) -> bool:
        return all(figure <= limit for figure, limit in zip(figures, self, strict=True))

    def __str__(self) -> str:
        return "at most " + "; ".join(f"{limit:g}" for limit in self)


class AtLeast(AtMost):
    def reached(self, figures: tuple[float, ...]) -> bool:
        return all(figure >= limit for figure, limit in zip(figures, self, strict=True))

    def __str__(self) -> str:
        return super().__str__().replace("at most", "at least")


# What is measured, for a router and its floor, and what tessd is to reach.
ROWS: list[tuple[str, Row, AtMost]] = [
    ("round trip p50, 1 client, over the floor's", over_floor("one client", "p50"), AtMost([1.05])),
    ("its p99 over the floor's", over_floor("one client", "p99"), AtMost([1.2])),
    (
        "round trip with 29 idle clients on all ports over one's own with none",
        over_own("29 idle", "one client", "p50"),
        AtMost([1.1]),
    ),
    ("10 clients, 1 in flight, commands a second over the floor's", over_floor("10 clients", "rate"), AtLeast([0.95])),
    ("10 clients, 16 in flight", over_floor("16 in flight", "rate"), AtLeast([1.3])),
    ("system calls a command, 1 client", calls("calls"), AtMost([5.05])),  # each thread also wakes up once a second
    ("system calls a command, 16 in flight", calls("calls, 16 in flight"), AtMost([2])),
    (
        "router's processor time a command, 1 client, microseconds",
        lambda own, _floor: median_of(own["one client"], "processor"),
        AtMost([15.5]),
    ),
    ("idle: wake-ups a second; processor time a second with 10 idle clients, microseconds", idle, AtMost([2.05, 100])),
    ("resident; private KiB", memory, AtMost([3000, 700])),
    ("exec to first answer over the floor's", first_answer, AtMost([1.4])),
    ("stripped program; libraries it loads besides glibc's, KiB", size, AtMost([188, 2463])),
]
ABSOLUTE = [
    ("round trip p50, 1 client, microseconds", "one client", "p50"),
    ("its p99", "one client", "p99"),
    ("10 clients, 1 in flight, commands a second", "10 clients", "rate"),
    ("10 clients, 16 in flight, commands a second", "16 in flight", "rate"),
]


def floor_of(name: str, routers: dict) -> Figures:
    return routers["floor xcp" if name.endswith(" xcp") else "floor"]


def rows(routers: dict) -> dict[str, dict[str, tuple[float, ...]]]:
    """Figures by name of the row and of the router."""

    def figures(row: Row, name: str) -> tuple[float, ...]:
        value = row(routers[name], floor_of(name, routers))
        return value if isinstance(value, tuple) else (value,)

    return {title: {name: figures(row, name) for name in routers} for title, row, _goal in ROWS}


def verdict(goal: AtMost, by_router: dict[str, tuple[float, ...]]) -> str:
    """Whether tessd reaches a goal, over the one socket and over the other."""
    verdicts = ["yes" if goal.reached(by_router[name]) else "no" for name in ("tessd", "tessd xcp") if name in by_router]
    return verdicts[0] if len(set(verdicts)) == 1 else "; ".join(verdicts)


def shown(value: float | tuple[float, ...]) -> str:
    if isinstance(value, tuple):
        return "; ".join(shown(figure) for figure in value)
    return f"{value:.0f}" if value >= 100 else f"{value:.2f}" if value < 10 else f"{value:.1f}"


def table(head: list[str], lines: list[list[str]]) -> str:
    return "\n".join("| " + " | ".join(words) + " |" for words in [head, ["---"] * len(head), *lines])


def spread(routers: dict) -> str:
    """How far the rounds differ: the middle half of the ratios for the round trip."""
    parts = []
    for name, own in routers.items():
        ratios = [
            mine["p50"] / least["p50"]
            for mine, least in zip(own["one client"], floor_of(name, routers)["one client"], strict=True)
        ]
        if len(ratios) > 3 and not name.startswith("floor"):
            low, _, high = statistics.quantiles(ratios, n=4)
            parts.append(f"{name} {low:.2f} to {high:.2f}")
    return "; ".join(parts)


def growth(found: dict) -> str:
    lines = []
    names = list(dict.fromkeys(name for by_step in found.values() for by_name in by_step.values() for name in by_name))
    for row, by_step in found.items():
        for step, by_name in by_step.items():
            lines.append([row, step, *(shown(by_name[name]) if name in by_name else "" for name in names)])
    return table(["round trip p50, 1 client, microseconds, by", "", *names], lines)


def prose(text: str) -> str:
    """As the documents have it."""
    return textwrap.fill(text, 100, break_long_words=False, break_on_hyphens=False)


def origin(facts: dict) -> str:
    machine = facts["machine"]
    text = (
        f"{machine['date']}, `{facts['command'].strip()}` at {machine['commit']}: {machine['processor']}, "
        f"{machine['processors']} processors, Linux {machine['kernel']}, {machine['compiler']}. "
        f"{facts['rounds']} rounds of {facts['seconds']} s; everything on processor {machine['core']}, nice {machine['nice']}. "
        f"Load of the machine before and after: {machine['load before']:.1f}, {machine['load after']:.1f}."
    )
    return " ".join([text, *(f"{name}: {what}." for name, what in facts["versions"].items())])


def text(facts: dict) -> str:
    routers = facts["routers"]
    names = list(routers)
    figures = rows(routers)
    main_lines = [
        [title, *(shown(figures[title][name]) for name in names), str(goal), verdict(goal, figures[title])]
        for title, _row, goal in ROWS
    ]
    plain_lines = [[title, *(shown(median_of(routers[name][load], key)) for name in names)] for title, load, key in ABSOLUTE]
    parts = [prose(origin(facts)), table(["figure", *names, "goal for tessd", "reached"], main_lines)]
    if middle := spread(routers):
        parts.append(prose(f"Middle half of the rounds, for the first row: {middle}."))
    parts.append(table(["as measured", *names], plain_lines))
    if facts["growth"]:
        parts.append(growth(facts["growth"]))
    return "\n\n".join(parts)


def write(document: str, content: str) -> None:
    with open(document, encoding="utf-8") as file:
        before, begin, rest = file.read().partition(BEGIN)
    _old, end, after = rest.partition(END)
    if not begin or not end:
        raise SystemExit(f"{document} has no {BEGIN} ... {END}")
    with open(document, "w", encoding="utf-8") as file:
        file.write(f"{before}{BEGIN}\n{content}\n{END}{after}")


def main() -> int:
    if len(sys.argv) not in (2, 4) or (len(sys.argv) == 4 and sys.argv[2] != "--write"):
        print("usage: tables.py FILE [--write DOCUMENT]", file=sys.stderr)
        return 64
    with open(sys.argv[1], encoding="utf-8") as file:
        content = text(json.load(file))
    print(content)
    if len(sys.argv) == 4:
        write(sys.argv[3], content)
    return 0


if __name__ == "__main__":
    sys.exit(main())
