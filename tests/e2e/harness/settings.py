"""What the caller chose through the environment, read once."""

from __future__ import annotations

import os
import shlex
import sys

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__)))))

# Where the programs are, for example build/asan/bin.
BIN_DIR = os.path.abspath(os.environ.get("TESSD_BIN_DIR") or os.path.join(PROJECT, "build/release/bin"))
TESSD = os.path.join(BIN_DIR, "tessd")
# Where logs are written while a daemon runs: a disk that others keep busy halts whoever writes to it. None: nowhere else.
MEMORY_FOLDER = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None

# Put in front of the program, for example "qemu-ppc -L /usr/powerpc-linux-gnu".
WRAPPER = shlex.split(os.environ.get("TESSD_WRAPPER", ""))

# Libraries that are loaded into every daemon before its own, separated by blanks, for example one that makes pauses. Those
# that the daemon is linked against must not be named.
PRELOAD = os.environ.get("TESSD_PRELOAD", "").split()

# Byte order of the daemon's words: little, big, or this machine's own.
BYTEORDER = os.environ.get("TESSD_BYTEORDER") or sys.byteorder
if BYTEORDER not in ("little", "big"):
    raise ValueError(f"TESSD_BYTEORDER is {BYTEORDER!r}; it may be little or big")

# How many times slower than a release build on an idle machine things may be: every deadline is multiplied by it.
SLOW = float(os.environ.get("TESSD_SLOW_FACTOR") or 1)

QUEUE_DIR = "/run/tess/queue"
IPC_PATH = "/tmp/socket"
XCP_PATH = "/tmp/xcp"
TELNET_ADDRESS = ("127.0.0.1", 23)
SERIAL_LINE = "/dev/ttyS1"
HIGHEST_QUEUE_ADDRESS = 2147483647
HOSTNAME = "s3"


def emulated() -> bool:
    return bool(WRAPPER)


def sanitized() -> bool:
    """Whether the daemon is a sanitizer build."""
    return _has(b"__asan_init") or thread_sanitized()


def thread_sanitized() -> bool:
    return _has(b"__tsan_init")


def _has(name: bytes) -> bool:
    with open(TESSD, "rb") as program:
        return name in program.read()
