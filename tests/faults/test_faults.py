"""Each call of the daemon made to fail in turn, at its first, second and every time, at the start, in the middle of traffic
and at the end. What becomes of that is compared with the table in effects.md."""

from __future__ import annotations

import json
import os
import subprocess

import pytest

import effect_table
import effects
import errors
from fault_library import SECOND, Fault
from harness import settings

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


# Imported by the daemon, and asking the system for nothing that may fail, or not while it serves.
ASKS_NOTHING = set(
    """__cxa_atexit __cxa_finalize __libc_start_main __register_atfork _exit abort cfsetispeed cfsetospeed exit explicit_bzero
    free getenv getopt_long getpid inet_ntop memchr memcmp memcpy memmove memset nanosleep posix_spawnattr_destroy
    posix_spawnattr_init posix_spawnattr_setflags posix_spawnattr_setsigdefault posix_spawnattr_setsigmask pthread_join
    pthread_mutex_lock pthread_mutex_trylock pthread_mutex_unlock pthread_self pthread_sigmask reboot sigaction
    sigaddset sigdelset sigemptyset sigfillset sigismember sigpending sigtimedwait sleep strcmp strerror strlen
    strncasecmp strnlen strrchr sync malloc realloc __errno_location __environ environ __progname
    program_invocation_short_name __gmon_start__ fprintf snprintf""".split()
)
# By the name that the program imports.
OTHER_NAMES = {"syscall": "dup3", "pwritev64v2": "pwritev2"}


@pytest.mark.skipif(settings.sanitized(), reason="a sanitizer imports much of its own")
def test_no_call_of_the_daemon_is_forgotten(launch):
    listing = subprocess.run(["nm", "-D", "--undefined-only", settings.TESSD], check=True, capture_output=True, text=True)
    imported = {line.split()[-1].partition("@")[0] for line in listing.stdout.splitlines() if line.split()[0] == "U"}
    calls = {name for name in imported if not name.startswith(("_Z", "__cxa", "_Unwind", "__gxx"))} - ASKS_NOTHING
    unknown = sorted(name for name in calls if OTHER_NAMES.get(name, name.removesuffix("64")) not in errors.ERRORS)
    assert not unknown, f"tests/faults/library stands in front of none of {unknown}, and errors.py has no errors for them"


@pytest.mark.deadline(120)
@pytest.mark.parametrize("phase", effect_table.PHASES)
def test_the_table_has_each_call_that_is_made(launch, phase):
    counted = effects.census(launch, phase)
    unknown = [call for call in counted if call.partition("/")[0] not in errors.ERRORS]
    assert not unknown, f"no errors are listed for {unknown}"
    if WRITE:
        _write(census=(phase, list(counted)))
        return
    if settings.sanitized():  # which makes calls of its own
        counted = {call: count for call, count in counted.items() if not call.endswith("/other")}
    missing = sorted(errors.cases(phase, counted) - set(effect_table.read_table()))
    assert not missing, f"calls without a row in effects.md, scripts/faults --write adds them: {missing}"


def _expected(call: str, which: str, cell: str) -> set[str]:
    """How often a call is made depends on who was quicker: the second time may not come. A sanitizer makes some by itself."""
    by_itself = settings.sanitized() and call == "strdup"
    return {*cell.split(" / "), *([effect_table.NOT_REACHED] if which == SECOND or by_itself else [])}


@pytest.mark.deadline(600)
@pytest.mark.parametrize("phase, call, error", _rows(), ids=lambda value: value)
def test_effect(launch, phase, call, error):
    expected = {} if WRITE else effect_table.read_table()[phase, call, error]
    wrong = []
    for which in effect_table.OCCURRENCES:
        got = _effect(launch, phase, Fault(call, error, which))
        if WRITE:
            _write(row=(phase, call, error), which=which, effect=got)
        elif got not in _expected(call, which, expected[which]):
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
