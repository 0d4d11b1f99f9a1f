#!/usr/bin/python3
"""Makes the table of effects.md from what test_faults.py has written (TESSD_FAULTS_WRITE). scripts/faults --write runs it.

    tests/faults/assemble.py FILE

Effects that took turns, because FILE holds several runs, are joined by " / "."""

from __future__ import annotations

import json
import sys

import effect_table


def main() -> int:
    rows: dict[effect_table.Row, dict[str, str]] = {}
    with open(sys.argv[1], encoding="utf-8") as file:
        for line in file:
            entry = json.loads(line)
            if "row" not in entry:
                continue
            cells = rows.setdefault(tuple(entry["row"]), {})
            known = cells.get(entry["which"], entry["effect"]).split(" / ")
            cells[entry["which"]] = " / ".join(sorted({*known, entry["effect"]}))
    reached = {row: cells for row, cells in rows.items() if any(cells.values())}
    with open(effect_table.TABLE, "r+", encoding="utf-8") as file:
        text = effect_table.table_text(reached)
        file.seek(0)
        file.write(text)
        file.truncate()
    print(f"{len(reached)} rows in {effect_table.TABLE}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
