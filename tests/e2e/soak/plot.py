"""Draws round trips, memory and descriptors over time, as SVG, of what a soak has measured.

    python3 -m soak.plot facts.json FILE.svg"""

from __future__ import annotations

import json
import statistics
import sys

import matplotlib

matplotlib.use("svg")
matplotlib.rcParams["svg.hashsalt"] = "tessd"  # the same figures give the same file
import matplotlib.pyplot as plt  # noqa: E402

from soak import report  # noqa: E402

POINTS = 120  # of a curve


def intervals(samples: list[list[float]], end: float) -> list[tuple[float, list[list[float]]]]:
    """The samples of each of so many stretches of time that have some, with the minute of its middle."""
    step = max(end / POINTS, 1.0)
    found: dict[int, list[list[float]]] = {}
    for sample in samples:
        found.setdefault(int(sample[0] / step), []).append(sample)
    return [((at + 0.5) * step / 60, found[at]) for at in sorted(found)]


def draw_waits(facts: dict, axes: plt.Axes, end: float) -> None:
    stretches = intervals(report.witnessed(facts), end)
    minutes = [minute for minute, _ in stretches]
    for label, what, at in (
        ("to a process and back, longest", max, 3),
        ("to the daemon and back, longest", max, 1),
        ("of that to blame on the daemon", max, 2),
        ("to a process and back, median", statistics.median, 3),
        ("to the daemon and back, median", statistics.median, 1),
    ):
        axes.plot(minutes, [1000 * what(sample[at] for sample in samples) for _, samples in stretches], label=label, linewidth=1)
    axes.set(yscale="log", ylabel="milliseconds")
    finish(axes)


def draw_memory(facts: dict, axes: plt.Axes, end: float) -> None:
    stretches = intervals(facts["watch"], end)
    minutes = [minute for minute, _ in stretches]
    for what, label in ((max, "resident memory, most (a check of a password takes 16 MiB)"), (min, "least")):
        axes.plot(minutes, [what(look[1] for look in looks) / 1024 for _, looks in stretches], label=label, linewidth=1)
    axes.set(ylim=(0, None), ylabel="MiB")
    finish(axes)


def draw_heap(facts: dict, axes: plt.Axes, end: float) -> None:
    """Where it can be seen; and the descriptors."""
    stretches = intervals(facts["watch"], end)
    minutes = [minute for minute, _ in stretches]
    axes.plot(minutes, [max(look[3] for look in looks) for _, looks in stretches], label="descriptors, most", linewidth=1)
    if facts["watch"][0][2] is not None:
        heap = [min(look[2] for look in looks) / 1024 / 10 for _, looks in stretches]
        axes.plot(minutes, heap, label="heap in use, least, in units of 10 KiB", linewidth=1)
    axes.set(ylim=(0, None), xlabel="minutes (dotted: nobody acts)")
    finish(axes)


def finish(axes: plt.Axes) -> None:
    axes.grid(visible=True, alpha=0.3)
    axes.legend(fontsize="small", ncols=3, loc="lower center", bbox_to_anchor=(0.5, 1.0), frameon=False)


def main() -> int:
    if len(sys.argv) != 3:
        print("usage: plot.py FACTS FILE.svg", file=sys.stderr)
        return 64
    with open(sys.argv[1], encoding="utf-8") as file:
        facts = json.load(file)
    figure, panels = plt.subplots(3, 1, figsize=(9, 9), sharex=True, layout="constrained", height_ratios=(3, 2, 2))
    figure.suptitle(f"{facts['build']}, {facts['seconds'] / 60:g} minutes")
    for draw, axes in zip((draw_waits, draw_memory, draw_heap), panels, strict=True):
        draw(facts, axes, facts["watch"][-1][0])
        for rest in ("first rest", "last rest"):
            if rest in facts:
                axes.axvline(facts[rest]["seconds"] / 60, color="grey", linestyle=":", linewidth=1)
    figure.savefig(sys.argv[2], metadata={"Date": None})
    return 0


if __name__ == "__main__":
    sys.exit(main())
