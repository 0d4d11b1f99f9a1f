"""What a fault does, in a few words."""

from __future__ import annotations

import re
import signal
from collections.abc import Callable, Iterable

from effect_table import END, LEFTOVERS, NOT_REACHED, START, TRAFFIC
from fault_library import EVERY, Fault
from harness.daemon import NORMAL_EXIT, Daemon
from stage import Stage, left_files, trouble

SPINS = 1000  # calls in 0.3 s without anything to do; whoever pauses makes 500, whoever does not ten thousand and more

_VARYING = (re.compile(r"\d+(?= log lines were lost)"), re.compile(r"(?<=notify\.)\d+"))


def effect(launch: Callable[..., Daemon], phase: str, fault: Fault) -> str:
    """Runs a daemon with this fault in this phase and tells what became of it. Raises AssertionError for what must never
    come of a fault."""
    stage = Stage(launch, fault, armed=phase in (START, LEFTOVERS), leftovers=phase == LEFTOVERS)
    try:
        found = _RUNS[phase](stage, fault)
        for varies in _VARYING:
            found = varies.sub("N", found)
        return found if stage.control.fired() > 0 else NOT_REACHED
    finally:
        stage.close()


def census(launch: Callable[..., Daemon], phase: str) -> dict[str, int]:
    """How often each call is made in this phase when none fails."""
    stage = Stage(launch, None, armed=phase in (START, LEFTOVERS), leftovers=phase == LEFTOVERS)
    try:
        _RUNS[phase](stage, None)
        return stage.control.counts()
    finally:
        stage.close()


def _joined(parts: Iterable[str]) -> str:
    return "; ".join(part for part in parts if part)


def _logged(lines: list[str]) -> str:
    return f"logs {', '.join(lines)}" if lines else ""


def _ended(stage: Stage) -> str:
    status = stage.tessd.wait_end(10)
    stage.tessd.expect_no_sanitizer_report()
    what = f"ends with status {status}" if status >= 0 else f"is ended by signal {-status}"
    return _joined([what, _logged(trouble(stage.tessd))])


def _is_by_leaving(line: str, fault: Fault | None) -> bool:
    """Whether the daemon may have said so because a client has given up, or not if it was quicker."""
    if line.startswith("251526 Received connection close request"):
        return True
    return line.startswith(("6004 ", "250004 ")) and fault is not None and not fault.call.startswith("send/")


def _stop(stage: Stage, fault: Fault | None) -> None:
    """In order, once nothing fails any more. A log of which calls have failed may hold pieces of lines."""
    stage.tessd.signal(signal.SIGTERM)
    if fault is not None and fault.call.endswith("/log"):
        assert stage.tessd.wait_end() == 0, stage.tessd.log_text()
        stage.tessd.expect_no_sanitizer_report()
        return
    stage.tessd.expect_end(0)
    # Behind it may stand that a program which re-initialises has ended.
    assert NORMAL_EXIT in stage.tessd.entries()[-2:], stage.tessd.log_text()


def _at_start(stage: Stage, fault: Fault | None) -> str:
    if not stage.wait_started() or not stage.wait_settled():
        return _joined([_ended(stage), f"leaves {', '.join(left_files())}" if left_files() else ""])
    stage.control.disarm()
    missing = stage.missing_ports() if fault else []
    said = trouble(stage.tessd)
    _stop(stage, fault)
    return _joined(["serves" + (f" without {', '.join(missing)}" if missing else ""), _logged(said)])


def _in_traffic(stage: Stage, fault: Fault | None) -> str:
    assert stage.wait_started(), stage.tessd.log_text()
    stage.populate()
    before = len(stage.tessd.entries())
    stage.control.arm()
    outcomes = stage.talk(fault)
    spins = fault is not None and fault.which == EVERY and not stage.tessd.ended() and stage.calls_when_idle() > SPINS
    stage.control.disarm()
    if stage.tessd.ended():
        return _joined([_ended(stage), *(f"{name} {outcome}" for name, outcome in outcomes.items())])
    closed = stage.closed_clients()
    missing = stage.missing_ports()
    assert not missing, f"not served any more: {missing}\n{stage.tessd.log_text()}"
    assert fault is not None or not outcomes, f"nothing failed, and these got no answer: {outcomes}\n{stage.tessd.log_text()}"
    if fault is not None and fault.which != EVERY:
        assert len(outcomes) <= 1, f"one call failed, and all these got no answer: {outcomes}\n{stage.tessd.log_text()}"
    said = [line for line in trouble(stage.tessd, before) if not _is_by_leaving(line, fault)]
    _stop(stage, fault)
    return _joined(
        [
            "serves",
            "uses a processor meanwhile" if spins else "",
            *(f"{name} {outcome}" for name, outcome in outcomes.items()),
            f"closes {', '.join(closed)}" if closed else "",
            _logged(said),
        ]
    )


def _at_end(stage: Stage, fault: Fault | None) -> str:
    assert stage.wait_started(), stage.tessd.log_text()
    stage.populate()
    before = len(stage.tessd.entries())
    stage.control.arm()
    stage.tessd.signal(signal.SIGTERM)
    status = stage.tessd.wait_end(10)
    stage.control.disarm()
    stage.tessd.expect_no_sanitizer_report()
    open_still = [name for name, client in stage.clients.items() if not stage.is_closed(client)]
    left = left_files()
    said_so = NORMAL_EXIT in stage.tessd.entries()[-2:]
    how = "ends in order" if status == 0 else f"ends with status {status}"
    return _joined(
        [
            how if said_so else f"{how}, unheard",
            f"does not close {', '.join(open_still)}" if open_still else "",
            f"leaves {', '.join(left)}" if left else "",
            _logged(trouble(stage.tessd, before)),
        ]
    )


_RUNS = {START: _at_start, LEFTOVERS: _at_start, TRAFFIC: _in_traffic, END: _at_end}
