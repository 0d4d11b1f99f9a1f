#!/usr/bin/python3
"""Compares tessd with the floor and with other routers. scripts/bench builds what is needed and calls this.

    bench/compare.py --output FILE [--only NAME]... [--rounds N] [--seconds S] [--core N] [--no-growth]

Each router runs in namespaces of its own; routers, clients and processes share one processor. In each round every router is
measured once, one after the other, and is compared with the floor of the same round; the medians of the rounds are kept. All
results go to FILE, as JSON; tables.py and plots.py read it."""

from __future__ import annotations

import argparse
import datetime
import json
import os
import platform
import statistics
import subprocess
import sys

import routers
import tables
from worker import Worker

LOADS = {
    "one client": {},
    "29 idle": {"idle": 29},
    "10 clients": {"clients": 10},
    "16 in flight": {"clients": 10, "in_flight": 16},
}
IDLE = (0, 10, 29)
PROCESSES = (1, 8, 32)
DELAYS = (0, 100, 10_000)
COMMAND_TEXTS = (32, 128, 512, 1000)  # a port reads 1023 bytes at a time
ANSWER_TEXTS = (32, 128, 512, 2048, 8000)
STARTS = 10


def say(text: str) -> None:
    print(text, file=sys.stderr, flush=True)


def figures(load: dict) -> dict:
    """What is kept of one run of the client."""
    quantiles = load["quantiles"]
    return {
        "p50": quantiles[500] / 1000,
        "p99": quantiles[990] / 1000,
        "rate": 1e9 * load["commands"] / load["nanoseconds"],
        "processor": load["router_nanoseconds"] / load["commands"] / 1000,
        "quantiles": [nanoseconds / 1000 for nanoseconds in quantiles],
    }


class Comparison:
    def __init__(self, names: list[str], options: argparse.Namespace, nice: int) -> None:
        self.options = options
        self.workers = {name: Worker(name, options.core, nice) for name in names}
        self.results: dict[str, dict] = {name: {} for name in names}

    def run(self) -> dict:
        self.starts()
        for worker in self.workers.values():
            worker.call("start")
        self.rounds()
        self.counts()
        self.idle()
        growth = self.growth() if self.options.growth else {}
        for worker in self.workers.values():
            worker.call("stop")
            worker.end()
        return {"routers": self.results, "growth": growth}

    def starts(self) -> None:
        say("start")
        for _ in range(STARTS):
            for name, worker in self.workers.items():
                self.results[name].setdefault("first answer", []).append(worker.call("first_answer"))

    def rounds(self) -> None:
        for number in range(self.options.rounds):
            say(f"round {number + 1} of {self.options.rounds}")
            for load, how in LOADS.items():
                for name, worker in self.workers.items():
                    result = figures(worker.call("load", seconds=self.options.seconds, **how))
                    self.results[name].setdefault(load, []).append(result)

    def counts(self) -> None:
        say("system calls, memory and size")
        for name, worker in self.workers.items():
            kept = self.results[name]
            kept["memory"] = worker.call("memory")
            kept["size"] = worker.call("size")
            kept["calls"] = worker.call("system_calls")
            kept["calls, 16 in flight"] = worker.call("system_calls", clients=10, in_flight=16)

    def idle(self) -> None:
        """All at once: they do nothing, after all."""
        for key, clients in (("idle", 0), ("idle, 10 clients", 10)):
            say(f"{key}, {self.options.idle_seconds} s")
            for worker in self.workers.values():
                worker.begin("idle", seconds=self.options.idle_seconds, clients=clients)
            for name, worker in self.workers.items():
                self.results[name][key] = worker.result()

    def growth(self) -> dict:
        """Medians of p50 in microseconds, by what grows, how far, and for whom."""
        found: dict[str, dict] = {}
        for row, steps, names, measure in self.growing():
            say(f"growth: {row}")
            found[row] = {}
            for _ in range(self.options.growth_rounds):
                for step in steps:
                    for name in names:
                        p50 = figures(measure(self.workers[name], step))["p50"]
                        found[row].setdefault(str(step), {}).setdefault(name, []).append(p50)
        if "tessd" in self.workers:
            found["pending delays"] = self.growing_delays()
        return {
            row: {
                step: {name: statistics.median(values) for name, values in by_name.items()} for step, by_name in by_step.items()
            }
            for row, by_step in found.items()
        }

    def growing(self) -> list[tuple]:
        seconds = self.options.seconds / 2
        everyone = list(self.workers)
        mine = [name for name in everyone if name.startswith("tessd")]
        return [
            ("idle clients", IDLE, everyone, lambda worker, n: worker.call("load", seconds=seconds, idle=n)),
            ("registered processes", PROCESSES, mine, lambda worker, n: worker.call("load_beside", seconds=seconds, processes=n)),
            ("bytes of a command", COMMAND_TEXTS, everyone, lambda worker, n: worker.call("load", seconds=seconds, text=n)),
            ("bytes of an answer", ANSWER_TEXTS, everyone, lambda worker, n: worker.call("load", seconds=seconds, answer=n)),
        ]

    def growing_delays(self) -> dict:
        """They only ever become more: once through, with several looks at each step."""
        say("growth: pending delays")
        found: dict[str, dict] = {}
        pending = 0
        worker = self.workers["tessd"]
        for step in DELAYS:
            worker.call("delay_lines", count=step - pending)
            pending = step
            found[str(step)] = {
                "tessd": [
                    figures(worker.call("load", seconds=self.options.seconds / 2))["p50"]
                    for _ in range(self.options.growth_rounds)
                ]
            }
        return found


def version(command: list[str], pattern: str = "") -> str:
    try:
        result = subprocess.run(
            command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False, env=routers.environment()
        )
    except OSError:
        return "?"
    lines = [line for line in result.stdout.splitlines() if pattern in line]
    return lines[0].strip() if lines else "?"


def machine(core: int, nice: int) -> dict:
    with open("/proc/cpuinfo", encoding="ascii") as file:
        model = next((line.split(":")[1].strip() for line in file if line.startswith("model name")), platform.machine())
    return {
        "processor": model,
        "processors": os.cpu_count(),
        "core": core,
        "nice": nice,
        "kernel": platform.release(),
        "date": datetime.datetime.now(datetime.timezone.utc).date().isoformat(),
        "compiler": version(["c++", "--version"]),
        "commit": version(["git", "-C", routers.settings.PROJECT, "describe", "--always", "--dirty"]),
        "load before": os.getloadavg()[0],
    }


def versions(names: list[str]) -> dict[str, str]:
    known = {
        "dbus-broker": lambda: version([routers.program("dbus-broker"), "--version"]),
        "dbus-daemon": lambda: version([routers.program("dbus-daemon"), "--version"]),
        "mosquitto": lambda: version([routers.program("mosquitto"), "-h"], "version"),
        "redis": lambda: version([routers.program("redis-server"), "--version"]),
    }
    return {name: look() for name, look in known.items() if name in names}


def best_nice() -> int:
    """Others on this machine should not be measured too, where that may be asked for."""
    return -20 if os.geteuid() == 0 else 0


def parse() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--output", required=True, help="where the JSON goes")
    parser.add_argument(
        "--only",
        action="append",
        default=[],
        metavar="NAME",
        help="this router, and the floor; may be repeated: " + ", ".join(routers.ROUTERS),
    )
    parser.add_argument("--rounds", type=int, default=9)
    parser.add_argument("--seconds", type=float, default=0.5, help="of each load in a round")
    parser.add_argument("--idle-seconds", type=float, default=10)
    parser.add_argument("--growth-rounds", type=int, default=3)
    parser.add_argument("--core", type=int, default=max(os.sched_getaffinity(0)))
    parser.add_argument("--no-growth", dest="growth", action="store_false")
    return parser.parse_args()


def chosen(only: list[str]) -> list[str]:
    """With tessd comes its other port, and with everything the floor."""
    unknown = [name for name in only if name not in routers.ROUTERS]
    if unknown:
        raise SystemExit(f"no such router: {', '.join(unknown)}; there are: {', '.join(routers.ROUTERS)}")
    wanted = {"floor", *only} | ({"floor xcp", "tessd xcp"} if "tessd" in only else set())
    return [name for name in routers.ROUTERS if not only or name in wanted]


def main() -> int:
    options = parse()
    names = chosen(options.only)
    nice = best_nice()
    facts = {
        "command": "scripts/bench " + " ".join(f"--only {name}" for name in options.only),
        "rounds": options.rounds,
        "seconds": options.seconds,
        "machine": machine(options.core, nice),
        "versions": versions(names),
    }
    facts |= Comparison(names, options, nice).run()
    facts["machine"]["load after"] = os.getloadavg()[0]
    facts["table"] = tables.rows(facts["routers"])
    with open(options.output, "w", encoding="utf-8") as file:
        json.dump(facts, file, indent=1)
    print(tables.text(facts))
    return 0


if __name__ == "__main__":
    sys.exit(main())
