"""The table of a soak, and what is wrong with it."""

from __future__ import annotations

import collections
import statistics

from harness import settings

GROWTH_KIB = 256  # of resident memory: pages that a heap touches for the first time
GROWTH_HEAP_BYTES = 16 * 1024  # buffers that grow to their size, and full queues of the dead that are remembered
HOME_BYTES = 24  # of the heap, that each look at a password keeps (deliberate)
HOME_CHUNK_BYTES = 32  # that they take up
SHORTEST_WARM_UP = 15.0  # seconds: after less a heap has not seen everything yet
LONGEST_BLAMED = 1.0  # seconds: a pass of the service loop waits for nobody


def totals(facts: dict) -> collections.Counter[str]:
    counted: collections.Counter[str] = collections.Counter()
    for actor in facts["actors"].values():
        counted.update(actor["tally"])
    return counted


def witnessed(facts: dict) -> list[list[float]]:
    """The samples of all witnesses: see well.Witness."""
    return sorted(sample for actor in facts["actors"].values() for sample in actor["samples"])


def heap_growth(facts: dict) -> int | None:
    """In bytes, without what each look at a password keeps, between the two rests; nothing where it cannot be seen."""
    first, last = facts["first rest"]["heap bytes"], facts["last rest"]["heap bytes"]
    if first is None or last is None:
        return None
    return last - first - HOME_BYTES * facts["passwords between the rests"]


def trouble(facts: dict) -> list[str]:
    """What is wrong; nothing when all is well."""
    found = [note for actor in facts["actors"].values() for note in actor["notes"]]
    counted = totals(facts)
    found += [f"{what}: {counted[what]}" for what in ("lost", "wrong", "delayed, wrong", "broken off") if counted[what]]
    if not facts["whole"]:
        return [*found, f"it did not come to its end: {facts.get('broken', 'an actor or the daemon has failed')}", *_end(facts)]
    found += [f"{what}: 0" for what in ("sent", "answered", "refused", "delayed, run") if not counted[what]]
    return found + _growth(facts) + _waits(facts) + _end(facts)


def _growth(facts: dict) -> list[str]:
    first, last = facts["first rest"], facts["last rest"]
    found = [
        f"{what}: {first[what]} at first, {last[what]} at last"
        for what in ("descriptors", "threads")
        if first[what] != last[what]
    ]
    if first["heap bytes"] is not None and facts["warm-up seconds"] >= SHORTEST_WARM_UP:
        kept = facts["passwords between the rests"] * HOME_CHUNK_BYTES // 1024
        if last["resident KiB"] - first["resident KiB"] - kept > GROWTH_KIB:
            found.append(f"resident memory: {first['resident KiB']} KiB at first, {last['resident KiB']} KiB at last")
        if heap_growth(facts) > GROWTH_HEAP_BYTES:
            found.append(f"the heap grew by {heap_growth(facts)} bytes")
    return found


def _waits(facts: dict) -> list[str]:
    worst = max((blamed for _, _, blamed, _ in witnessed(facts)), default=None)
    if worst is None:
        return ["nobody has witnessed anything"]
    return [f"somebody waited {worst:.3f} s for the daemon"] if worst > LONGEST_BLAMED * settings.SLOW else []


def _end(facts: dict) -> list[str]:
    end = facts["end"]
    found = list(end["reports"])
    if end["status"] != 0:
        found.append(f"tessd ended with {end['status']}")
    if facts["whole"] and end["places"].startswith("places:"):
        found.append(end["places"])
    return found


def rows(facts: dict) -> list[tuple[str, str]]:
    """The table."""
    counted, samples = totals(facts), witnessed(facts)
    table = [
        (
            "seconds, and seconds to warm up before",
            f"{facts['seconds'] - facts['warm-up seconds']:.0f}, {facts['warm-up seconds']:.0f}",
        ),
        ("commands sent", f"{counted['sent']:,}"),
        ("answered", f"{counted['answered']:,}"),
        ("refused", f"{counted['refused']:,}"),
        ("taken by a process that died", f"{counted['died with a process']:,}"),
        ("lost", str(counted["lost"])),
        ("wrong: answers that nobody asked for, users who must not get in", str(counted["wrong"])),
        (
            "delayed commands set, run, cleared",
            ", ".join(f"{counted['delayed, ' + what]:,}" for what in ("set", "run", "cleared")),
        ),
        ("logins, wrong passwords", f"{counted['logins']:,}, {counted['wrong passwords']:,}"),
        ("visits of well-behaved clients, acts of others", f"{counted['visits']:,}, {counted['acts']:,}"),
        ("lives of processes", f"{counted['lives']:,}"),
        ("sent away from a full port", f"{counted['sent away'] + counted['turned away']:,}"),
        ("texts written to the serial line", f"{counted['texts written']:,}"),
    ]
    return table + _wait_rows(samples) + (_size_rows(facts) if "last rest" in facts else [])


def _wait_rows(samples: list[list[float]]) -> list[tuple[str, str]]:
    if not samples:
        return []
    passed, blamed, answered = ([sample[at] for sample in samples] for at in (1, 2, 3))
    middle = [f"{1000 * statistics.median(times):.2f}" for times in (passed, answered)]
    return [
        ("median wait for the daemon, for a process, in ms", ", ".join(middle)),
        ("worst wait for the daemon, in ms", f"{1000 * max(passed):.0f}"),
        ("of that to blame on the daemon, in ms", f"{1000 * max(blamed):.0f}"),
        ("worst wait for a healthy process, in ms", f"{1000 * max(answered):.0f}"),
    ]


def _size_rows(facts: dict) -> list[tuple[str, str]]:
    first, last = facts["first rest"], facts["last rest"]
    count = [sum(rest["descriptors"].values()) for rest in (first, last)]
    table = [
        ("resident memory at first, at last, in KiB", f"{first['resident KiB']:,}, {last['resident KiB']:,}"),
        ("descriptors at first, at last", f"{count[0]}, {count[1]}"),
        ("threads at first, at last", f"{first['threads']}, {last['threads']}"),
        ("tessd's processor time, in s", f"{facts['processor seconds']:.1f}"),
        ("tessd's share of a processor", f"{100 * facts['processor seconds'] / max(facts['acted seconds'], 1):.1f} %"),
        ("processor time of everybody else, in s", f"{facts['processor seconds of the soak']:.0f}"),
        ("status of tessd's end", str(facts["end"]["status"])),
    ]
    if first["heap bytes"] is not None:
        heap = f"{first['heap bytes']:,}, {last['heap bytes']:,}"
        kept = HOME_BYTES * facts["passwords between the rests"]
        table[1:1] = [
            ("heap in use at first, at last, in bytes", heap),
            ("of its growth kept by logins (deliberate), else", f"{kept:,}, {heap_growth(facts):,}"),
        ]
    return table


def text_table(table: list[tuple[str, str]]) -> str:
    width = max(len(name) for name, _ in table)
    return "\n".join(f"{name:{width}}  {value}" for name, value in table)
