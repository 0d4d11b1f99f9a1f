#!/usr/bin/python3
"""Draws, as SVG, what compare.py has measured.

    bench/plots.py FILE FOLDER

Makes latency-idle-clients.svg, throughput.svg and latency-distribution.svg in the folder."""

from __future__ import annotations

import json
import os
import statistics
import sys

import matplotlib

matplotlib.use("svg")
matplotlib.rcParams["svg.hashsalt"] = "tessd"  # the same figures give the same file
import matplotlib.pyplot as plt  # noqa: E402

from tables import median_of  # noqa: E402

MICROSECONDS = "microseconds from command to answer"


def against_idle_clients(facts: dict, axes: plt.Axes) -> None:
    by_step = facts["growth"]["idle clients"]
    steps = [int(step) for step in by_step]
    for name in facts["routers"]:
        axes.plot(steps, [by_step[str(step)][name] for step in steps], marker="o", label=name)
    axes.set(xlabel="idle clients", ylabel=f"{MICROSECONDS}, median", ylim=(0, None))
    axes.legend()


def throughput(facts: dict, axes: plt.Axes) -> None:
    names = list(facts["routers"])
    for offset, load, label in ((-0.2, "10 clients", "1 in flight"), (0.2, "16 in flight", "16 in flight")):
        rates = [median_of(facts["routers"][name][load], "rate") for name in names]
        bars = axes.bar([at + offset for at in range(len(names))], rates, width=0.4, label=label)
        axes.bar_label(bars, [f"{rate / 1000:.0f}k" for rate in rates], fontsize="small")
    axes.set_xticks(range(len(names)), names, rotation=20)
    axes.set(ylabel="commands a second, 10 clients")
    axes.legend()


def distribution(facts: dict, axes: plt.Axes) -> None:
    slowest = 0.0
    for name, figures in facts["routers"].items():
        rounds = [result["quantiles"] for result in figures["one client"]]
        times = [statistics.median(at) for at in zip(*rounds, strict=True)]
        axes.plot(times, [permille / 10 for permille in range(len(times))], label=name)
        slowest = max(slowest, times[990])
    axes.set(xlim=(0, slowest), xlabel=f"{MICROSECONDS}, 1 client", ylabel="percent answered")
    axes.grid(visible=True, alpha=0.3)
    axes.legend()


PLOTS = {
    "latency-idle-clients.svg": against_idle_clients,
    "throughput.svg": throughput,
    "latency-distribution.svg": distribution,
}


def main() -> int:
    if len(sys.argv) != 3:
        print("usage: plots.py FILE FOLDER", file=sys.stderr)
        return 64
    with open(sys.argv[1], encoding="utf-8") as file:
        facts = json.load(file)
    os.makedirs(sys.argv[2], exist_ok=True)
    for name, draw in PLOTS.items():
        if draw is against_idle_clients and not facts["growth"]:
            continue
        figure, axes = plt.subplots(figsize=(8, 5), layout="constrained")
        draw(facts, axes)
        figure.savefig(os.path.join(sys.argv[2], name), metadata={"Date": None})
        plt.close(figure)
    return 0


if __name__ == "__main__":
    sys.exit(main())
