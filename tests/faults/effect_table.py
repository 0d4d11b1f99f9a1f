"""The table of effects in effects.md."""

from __future__ import annotations

import os

TABLE = os.path.join(os.path.dirname(os.path.realpath(__file__)), "effects.md")
START, LEFTOVERS, TRAFFIC, END = "start", "start over what a killed daemon has left", "traffic", "end"
PHASES = (START, LEFTOVERS, TRAFFIC, END)
OCCURRENCES = ("first", "second", "every")
NOT_REACHED = ""

_HEAD = "| Call | Error | first | second | every |\n|---|---|---|---|---|\n"

Row = tuple[str, str, str]  # phase, call with its kind, error


def read_table() -> dict[Row, dict[str, str]]:
    """What each occurrence does; several effects that take turns are joined by " / "."""
    rows: dict[Row, dict[str, str]] = {}
    phase = ""
    with open(TABLE, encoding="utf-8") as file:
        for line in file:
            if line.startswith("## "):
                phase = line[3:].strip().lower()
            elif line.startswith("| `"):
                call, error, *cells = (cell.strip() for cell in line.strip().strip("|").split("|"))
                rows[phase, call.strip("`"), error] = dict(zip(OCCURRENCES, cells, strict=True))
    return rows


def table_text(rows: dict[Row, dict[str, str]]) -> str:
    with open(TABLE, encoding="utf-8") as file:
        head = file.read().partition("\n## ")[0]
    parts = [head.rstrip() + "\n"]
    for phase in PHASES:
        parts.append(f"\n## {phase.capitalize()}\n\n{_HEAD}")
        for row in sorted(row for row in rows if row[0] == phase):
            cells = " | ".join(rows[row].get(which, NOT_REACHED) for which in OCCURRENCES)
            parts.append(f"| `{row[1]}` | {row[2]} | {cells} |\n".replace("|  |", "| |").replace("|  |", "| |"))
    return "".join(parts)
