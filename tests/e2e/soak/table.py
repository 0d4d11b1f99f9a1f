"""Prints the last soak of each build side by side, as a Markdown table.

    python3 -m soak.table build/soak"""

from __future__ import annotations

import json
import os
import sys

from soak import report

BUILDS = ("release", "asan", "tsan")


def markdown(runs: list[dict]) -> str:
    """One column for each."""
    columns = [dict(report.rows(facts)) for facts in runs]
    names = list(dict.fromkeys(name for column in columns for name in column))
    lines = ["| | " + " | ".join(facts["build"] for facts in runs) + " |", "|---|" + "---:|" * len(runs)]
    lines += [f"| {name} | " + " | ".join(column.get(name, "") for column in columns) + " |" for name in names]
    return "\n".join(lines)


def main() -> int:
    if len(sys.argv) != 2:
        print("usage: table.py FOLDER", file=sys.stderr)
        return 64
    files = [os.path.join(sys.argv[1], build, "facts.json") for build in BUILDS]
    runs = []
    for name in filter(os.path.exists, files):
        with open(name, encoding="utf-8") as file:
            runs.append(json.load(file))
    if not runs:
        print("there is no run yet", file=sys.stderr)
        return 1
    print(markdown(runs))
    return 0


if __name__ == "__main__":
    sys.exit(main())
