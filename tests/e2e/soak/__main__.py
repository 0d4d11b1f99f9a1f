"""Runs the soak in private namespaces, and says what came of it. scripts/soak builds what it needs before."""

from __future__ import annotations

import argparse
import json
import os
import shutil
import sys
import tempfile
import time

from harness import settings

sys.path.insert(0, os.path.join(settings.PROJECT, "tools"))
import device_ns  # noqa: E402
from harness.daemon import Daemon  # noqa: E402
from soak import report  # noqa: E402
from soak.run import soak  # noqa: E402

FACTS = "facts.json"


def main() -> int:
    parser = argparse.ArgumentParser(prog="soak", description=__doc__)
    parser.add_argument("minutes", type=float, help="for how long everybody acts, warm-up included")
    parser.add_argument("--seed", type=int, default=time.time_ns() % 1_000_000, help="of all that is random")
    parser.add_argument("--build", default="release", help="what the build is called in the table and the plot")
    parser.add_argument("--output", required=True, metavar="FOLDER", help="where facts.json and the logs go")
    options = parser.parse_args()
    os.makedirs(options.output, exist_ok=True)
    print(f"seed {options.seed}, build {options.build}, {options.minutes:g} minutes", flush=True)
    with tempfile.TemporaryDirectory(prefix="tessd-soak-", dir=settings.MEMORY_FOLDER) as logs:
        Daemon.artefacts = os.open(logs, os.O_DIRECTORY | os.O_PATH | os.O_CLOEXEC)
        status = device_ns.run_in_device(lambda: _inside(options), settings.HOSTNAME, [settings.BIN_DIR])
        for name in os.listdir(logs):
            shutil.copy(os.path.join(logs, name), options.output)
    if status not in (0, 1):
        print(f"the soak itself ended with {status}", file=sys.stderr)
        return 70
    with open(os.path.join(options.output, FACTS), encoding="utf-8") as file:
        return _tell(json.load(file))


def _inside(options: argparse.Namespace) -> int:
    facts = soak(Daemon, 60 * options.minutes, options.seed) | {"build": options.build, "machine": _machine()}
    handle, name = tempfile.mkstemp(dir=options.output)
    with open(handle, "w", encoding="utf-8") as file:
        json.dump(facts, file)
    os.replace(name, os.path.join(options.output, FACTS))
    return 0


def _machine() -> dict:
    with open("/proc/cpuinfo", encoding="ascii", errors="replace") as file:
        models = [line.partition(":")[2].strip() for line in file if line.startswith("model name")]
    return {"processors": os.cpu_count(), "model": models[0] if models else "unknown", "slow factor": settings.SLOW}


def _tell(facts: dict) -> int:
    print(report.text_table(report.rows(facts)))
    found = report.trouble(facts)
    for line in found:
        print(f"TROUBLE: {line}")
    print("Nothing was lost, and nothing grew." if not found else f"{len(found)} troubles, seed {facts['seed']}")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
