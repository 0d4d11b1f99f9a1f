#!/usr/bin/python3
"""Runs clang-tidy over the sources of a build folder, as many at a time as there are processors.

    tools/tidy.py BUILD-FOLDER [all]

Without "all" the tests are left out, and the static analyzer's checks: both take most of the time and find little.
What passed is remembered in BUILD-FOLDER/tidy by the content of the file and of everything of the project that it includes,
so that a second run looks only at what changed. Ends with status 1 when something is wrong.
"""

from __future__ import annotations

import glob
import hashlib
import json
import os
import re
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

TIDY = ["clang-tidy", "--quiet", "--extra-arg=-Wno-unknown-warning-option"]  # the options are those of g++
PROJECT = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))


def output_of(command: list[str], directory: str) -> str:
    return subprocess.run(command, cwd=directory, check=True, stdout=subprocess.PIPE, text=True).stdout


def included(entry: dict[str, str]) -> list[str]:
    """The file and what it includes, without the system's headers."""
    words = shlex.split(entry["command"])
    del words[words.index("-o") : words.index("-o") + 2]
    rule = output_of([*words, "-MM", "-MF", "-"], entry["directory"])
    names = rule.partition(":")[2].replace("\\\n", " ").split()
    return [os.path.join(entry["directory"], name) for name in names]


def without_precompiled(entry: dict[str, str]) -> dict[str, str]:
    """clang reads no precompiled header of g++."""
    return {**entry, "command": re.sub(r" -Winvalid-pch -include \S+", "", entry["command"])}


def key(entry: dict[str, str], common: bytes) -> str:
    digest = hashlib.sha256(common + entry["command"].encode())
    for name in included(entry):
        with open(name, "rb") as file:
            digest.update(hashlib.sha256(file.read()).digest())
    return digest.hexdigest()


def passes(entry: dict[str, str], build: str, common: bytes, checks: list[str]) -> bool:
    try:
        mark = os.path.join(build, "tidy", key(entry, common))
    except subprocess.CalledProcessError:
        return False  # does not compile; the compiler has said why
    if os.path.exists(mark):
        return True
    result = subprocess.run(
        [*TIDY, *checks, "-p", f"{build}/tidy", entry["file"]],
        check=False,
        text=True,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
    )
    if result.returncode == 0:
        open(mark, "w", encoding="ascii").close()
        return True
    print(result.stdout or result.stderr, flush=True)
    return False


def main(build: str, everything: bool) -> int:
    build = os.path.realpath(build)
    checks = [] if everything else ["--checks=-clang-analyzer-*"]
    os.makedirs(os.path.join(build, "tidy"), exist_ok=True)
    common = " ".join(checks).encode() + output_of(["clang-tidy", "--version"], build).encode()
    for name in sorted([*glob.glob(f"{PROJECT}/.clang-tidy"), *glob.glob(f"{PROJECT}/*/.clang-tidy")]):
        with open(name, "rb") as file:
            common += file.read()
    with open(os.path.join(build, "compile_commands.json"), encoding="utf-8") as file:
        entries = [without_precompiled(entry) for entry in json.load(file) if not entry["file"].startswith(f"{build}/")]
    with open(f"{build}/tidy/compile_commands.json", "w", encoding="utf-8") as file:
        json.dump(entries, file)
    entries = [entry for entry in entries if everything or not entry["file"].startswith(f"{PROJECT}/tests/")]
    if not entries:
        print(f"{build}: no sources", file=sys.stderr)
        return 1
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        # Backwards: the client's sources, which take longest, stand last, and one processor would be left alone with them.
        results = list(pool.map(lambda entry: passes(entry, build, common, checks), reversed(entries)))
    print(f"{results.count(True)} passed, {results.count(False)} failed")
    return 0 if all(results) else 1


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3) or sys.argv[2:] not in ([], ["all"]):
        sys.exit("usage: tidy.py BUILD-FOLDER [all]")
    sys.exit(main(sys.argv[1], sys.argv[2:] == ["all"]))
