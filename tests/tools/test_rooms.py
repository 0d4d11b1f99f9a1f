"""The rooms of the tree stand on each other one way only, and no two files of a room need each other."""

import glob
import graphlib
import os
import re

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
ROOMS = ["framework", "common", "connections", "ports", "commands", "daemon"]
STANDS_ON = {room: ROOMS[: number + 1] for number, room in enumerate(ROOMS)}
# Commands know connections and not the ports; the client knows the wire and the text helpers, nothing of the daemon.
STANDS_ON["commands"].remove("ports")
STANDS_ON["tools"] = ["framework", "common", "tools"]
STANDS_ON["examples"] = ["framework", "examples"]


def includes() -> dict[str, list[str]]:
    """What each file of the rooms includes of the project."""
    result = {}
    for room in STANDS_ON:
        for name in glob.glob(f"{room}/**/*.h", root_dir=PROJECT, recursive=True) + glob.glob(
            f"{room}/**/*.cpp", root_dir=PROJECT, recursive=True
        ):
            with open(os.path.join(PROJECT, name), encoding="utf-8") as file:
                headers = re.findall(r'^#include "([^"]+)"', file.read(), re.MULTILINE)
            beside = os.path.dirname(name)  # an example knows no path: it may be copied anywhere
            result[name] = [header if "/" in header else f"{beside}/{header}" for header in headers]
    assert len(result) > 200, f"only {len(result)} files were found"
    return result


def room_of(name: str) -> str:
    return name.split("/", 1)[0]


def test_a_room_uses_only_those_that_it_stands_on():
    wrong = [
        f"{name} includes {header}"
        for name, headers in includes().items()
        for header in headers
        if room_of(header) not in STANDS_ON[room_of(name)]
    ]
    assert not wrong, "\n".join(wrong)


def test_no_two_files_include_each_other_by_whatever_way():
    """A header and its source count as one."""
    graph: dict[str, set[str]] = {}
    for name, headers in includes().items():
        unit = os.path.splitext(name)[0]
        graph.setdefault(unit, set()).update(os.path.splitext(header)[0] for header in headers)
        graph[unit].discard(unit)
    try:
        assert list(graphlib.TopologicalSorter(graph).static_order())
    except graphlib.CycleError as error:
        raise AssertionError(f"a circle: {' -> '.join(error.args[1])}") from None
