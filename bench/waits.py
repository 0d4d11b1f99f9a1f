#!/usr/bin/python3
"""How long the others wait while one client, process or device makes the daemon wait.

    /usr/bin/python3 bench/waits.py [ROW...]

Each row is a daemon of its own, in private namespaces, with one thing going on (tests/e2e/harness/nuisances.py). A client on
another port asks `*` every 20 ms, a hundred times and more; then the daemon gets SIGTERM. Printed are the times to the answers,
by the clock on the wall, the daemon's processor time for each second meanwhile, and the time from SIGTERM to its end. Rows are
named in the table; all of them without any. TESSD_BIN_DIR says where the daemon is, build/release/bin without it."""

from __future__ import annotations

import statistics
import sys

import device  # of this folder
from harness.answers import ask
from harness.daemon import Daemon
from harness.endings import end_by_signal
from harness.nuisances import ROWS, AllAtOnce, Nuisance, Scene

SECONDS = 2.5


class Nothing(Nuisance):
    """To compare with."""

    def begin(self) -> None:
        pass


TABLE: dict[str, type[Nuisance]] = {"nothing": Nothing, **ROWS, "all at once": AllAtOnce}
HEAD = f"{'':30}{'p50 ms':>9}{'p99 ms':>9}{'max ms':>9}{'cpu ms/s':>10}{'end ms':>9}"


def measure(name: str) -> None:
    """Prints one row. Inside the namespaces."""
    row = TABLE[name]
    scene = Scene(Daemon, with_log_pipe=row.needs_log_pipe)
    try:
        with row.asks() as client:
            client.expect_nothing_more()
            with row(scene):
                answers = ask(scene.tessd, [client], SECONDS)
                ended = end_by_signal(scene.tessd)
        print(row_text(name, [1000 * seconds for seconds in sorted(answers.passed)], answers.processor_share, ended))
    except AssertionError as error:
        print(f"{name:30}   {str(error).splitlines()[0][:90]}")
    finally:
        if not scene.tessd.end_seen:
            scene.tessd.kill()


def row_text(name: str, times: list[float], share: float, ended: float) -> str:
    at_99 = times[max(0, -(-len(times) * 99 // 100) - 1)]
    return f"{name:30}{statistics.median(times):9.2f}{at_99:9.2f}{times[-1]:9.2f}{1000 * share:10.1f}{1000 * ended:9.0f}"


def main() -> int:
    names = sys.argv[1:] or list(TABLE)
    unknown = [name for name in names if name not in TABLE]
    if unknown:
        print(f"no such row: {', '.join(unknown)}; there are: {', '.join(TABLE)}", file=sys.stderr)
        return 64
    print(HEAD, flush=True)
    for name in names:
        device.run(lambda row=name: measure(row))
    return 0


if __name__ == "__main__":
    sys.exit(main())
