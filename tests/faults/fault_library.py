"""The preloaded library that has calls of the daemon fail: tests/faults/library."""

from __future__ import annotations

import dataclasses
import errno
import mmap
import os
import struct

from harness import preload, settings

LIBRARY = os.path.join(settings.BIN_DIR, "libtess_faults.so")
FIRST, SECOND, EVERY = "first", "second", "every"
WHICH = {FIRST: "1", SECOND: "2", EVERY: "1+"}
SHORT = "short"

_MOST_CALLS, _NAME_BYTES = 120, 28  # FaultControl in fault_plan.h
_head = struct.Struct("=III")
_row = struct.Struct(f"={_NAME_BYTES}sI")


@dataclasses.dataclass(frozen=True)
class Fault:
    call: str  # with its kind, as the library counts it
    error: str  # as errno(3) names it, or SHORT
    which: str  # of WHICH, or a number, which is that one

    def rule(self) -> str:
        effect = SHORT if self.error == SHORT else str(getattr(errno, self.error))
        return f"{self.call}={effect}@{WHICH.get(self.which, self.which)}"

    def __str__(self) -> str:
        return f"{self.which} {self.call}: {self.error}"


class FaultControl:
    """Give `environment` to one daemon. Nothing fails and nothing is counted until arm()."""

    def __init__(self, fault: Fault | None, armed: bool = False) -> None:
        path = "/run/fault_control"
        with open(path, "wb") as file:
            file.write(bytes(_head.size + _MOST_CALLS * _row.size))
        with open(path, "r+b") as file:
            self._map = mmap.mmap(file.fileno(), 0)
        assert os.path.exists(LIBRARY), f"{LIBRARY} is missing: build the target tess_faults"
        rule = {"TESS_FAULTS": fault.rule()} if fault else {}
        self.environment = preload.environment(LIBRARY, TESS_FAULTS_CONTROL=path, **rule)
        if fault and fault.call == "new":  # a sanitizer's own operator would not ask this library
            words = self.environment["LD_PRELOAD"].split()
            self.environment["LD_PRELOAD"] = " ".join(sorted(words, key=lambda word: word != LIBRARY))
            options = os.environ.get("ASAN_OPTIONS", "")
            self.environment["ASAN_OPTIONS"] = f"{options}:verify_asan_link_order=0".lstrip(":")
        if armed:
            self.arm()

    def arm(self) -> None:
        self._map[:4] = (1).to_bytes(4, "little")

    def disarm(self) -> None:
        self._map[:4] = bytes(4)

    def fired(self) -> int:
        """How many calls have failed."""
        return _head.unpack_from(self._map)[1]

    def counts(self) -> dict[str, int]:
        """How often each call was made while armed."""
        rows = min(_head.unpack_from(self._map)[2], _MOST_CALLS)
        found: dict[str, int] = {}
        for row in range(rows):
            name, calls = _row.unpack_from(self._map, _head.size + row * _row.size)
            call = name.rstrip(b"\0").decode()
            found[call] = found.get(call, 0) + calls
        return found
