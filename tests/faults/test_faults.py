"""Each call of the daemon made to fail in turn, at its first, second and every time, at the start, in the middle of traffic
and at the end. What becomes of that is compared with the table in effects.md."""

from __future__ import annotations

import json
import os

import pytest

import effect_table
import effects
import errors
from fault_library import Fault

WRITE = os.environ.get("TESSD_FAULTS_WRITE")


def _rows() -> list[effect_table.Row]:
    """Those of the table; where it is written, those of the census that was written before."""
    if not WRITE or not os.path.exists(WRITE):
        rows = sorted(effect_table.read_table())
    else:
        with open(WRITE, encoding="utf-8") as file:
            counted = [json.loads(line)["census"] for line in file if '"census"' in line]
        rows = sorted({case for phase, calls in counted for case in errors.cases(phase, calls)})
    number, _, of = os.environ.get("TESSD_FAULTS_PART", "0/1").partition("/")
    return rows[int(number) :: int(of)]


def _write(**what: object) -> None:
    with open(WRITE, "a", encoding="utf-8") as file:
        file.write(json.dumps(what) + "\n")


def _effect(launch, phase: str, fault: Fault) -> str:
    try:
        return effects.effect(launch, phase, fault)
    except AssertionError as error:
        if not WRITE:
            raise
        return "FAILS: " + str(error).partition("\n")[0]


@pytest.mark.deadline(120)
@pytest.mark.parametrize("phase", effect_table.PHASES)
def test_the_table_has_each_call_that_is_made(launch, phase):
    counted = effects.census(launch, phase)
    unknown = [call for call in counted if call.partition("/")[0] not in errors.ERRORS]
    assert not unknown, f"no errors are listed for {unknown}"
    if WRITE:
        _write(census=(phase, list(counted)))
        return
    missing = sorted(errors.cases(phase, counted) - set(effect_table.read_table()))
    assert not missing, f"calls without a row in effects.md, scripts/faults --write adds them: {missing}"


@pytest.mark.deadline(150)
@pytest.mark.parametrize("phase, call, error", _rows(), ids=lambda value: value)
def test_effect(launch, phase, call, error):
    expected = {} if WRITE else effect_table.read_table()[phase, call, error]
    wrong = []
    for which in effect_table.OCCURRENCES:
        got = _effect(launch, phase, Fault(call, error, which))
        if WRITE:
            _write(row=(phase, call, error), which=which, effect=got)
        elif got not in expected[which].split(" / "):
            wrong.append(f"{which}: expected {expected[which]!r}, got {got!r}")
    assert not wrong, "\n".join(wrong)


@pytest.mark.deadline(200)
@pytest.mark.parametrize("part", range(4))
@pytest.mark.parametrize("phase", (effect_table.START, effect_table.TRAFFIC, effect_table.END))
def test_no_memory_for_each_allocation_in_turn(launch, phase, part):
    """A start ends with status 1 or goes on without what there was no memory for; nothing else may end the daemon."""
    allocations = effects.census(launch, phase).get("new", 0)
    for number in range(1 + part, allocations + 1, 4):
        got = effects.effect(launch, phase, Fault("new", "ENOMEM", str(number)))
        wanted = {effect_table.START: ("serves", "ends with status 1"), effect_table.END: ("ends in order",)}
        assert got == effect_table.NOT_REACHED or got.startswith(wanted.get(phase, ("serves",))), f"allocation {number}: {got}"
