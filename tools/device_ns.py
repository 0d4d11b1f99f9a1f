#!/usr/bin/python3
"""Private namespaces that look like the device.

What runs inside has its own mounts, network, process numbers, System V and message-queue names, and host name: an empty
/tmp and /run, a /dev of harmless devices and its own pseudo-terminals, a loopback interface that is up, /proc for its own
processes, the host name "s3" and the queue directory /run/tess/queue. Nothing of it is seen outside, and all processes in
it end with it. Root is not needed where ordinary users may make user namespaces; the user is then root inside.

Command line:

    tools/device_ns.py [--hostname NAME] [--keep PATH]... [--cwd DIR] -- COMMAND [ARGUMENT]...

runs COMMAND inside and ends with its status; 128 + n when signal n ended it, 129 also when something inside asked the
kernel for a restart.

Python: run_in_device(), which does the same with a function; inside, bind() puts one file in the place of another, such
as a pseudo-terminal in the place of the serial line, which is missing at first.
"""

from __future__ import annotations

import argparse
import ctypes
import errno
import fcntl
import os
import shutil
import signal
import socket
import struct
import sys
import traceback
from collections.abc import Callable, Iterable

QUEUE_DIR = "/run/tess/queue"
DEVICES = ("null", "zero", "full", "random", "urandom", "tty")
PROJECT = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))

# <linux/sched.h>, <sys/mount.h>, <sys/prctl.h>, <linux/sockios.h>, <net/if.h>
CLONE_NEWNS, CLONE_NEWUTS, CLONE_NEWIPC = 0x00020000, 0x04000000, 0x08000000
CLONE_NEWUSER, CLONE_NEWPID, CLONE_NEWNET = 0x10000000, 0x20000000, 0x40000000
MS_NOSUID, MS_NODEV, MS_NOEXEC, MS_BIND, MS_REC, MS_PRIVATE = 0x2, 0x4, 0x8, 0x1000, 0x4000, 0x40000
MNT_DETACH = 0x2
PR_SET_PDEATHSIG = 1
SIOCGIFFLAGS, SIOCSIFFLAGS, IFF_UP = 0x8913, 0x8914, 0x1

_libc = ctypes.CDLL(None, use_errno=True)


class DeviceError(RuntimeError):
    """The namespaces cannot be made; the text says why, in one line."""


def run_in_device(function: Callable[[], int | None], hostname: str = "s3", keep: Iterable[str | os.PathLike] = ()) -> int:
    """Calls function() in a new process inside new namespaces and waits for its end.

    The function has the standard streams, environment and working directory of the caller, process number 2 and one
    thread. Process 1 only collects orphans. When the function returns, or the caller dies, everything inside is killed.

    The project, the working directory and this Python stay reachable at their own paths even if they lie under /tmp or
    /run; `keep` names further paths that must.

    Returns the function's result (None is 0), the code of sys.exit(), 70 after an exception (its traceback goes to
    standard error), 128 + n after signal n, 129 after reboot(). Raises DeviceError when the namespaces cannot be made.
    """
    kept = [os.fspath(path) for path in keep]
    for path in kept:
        if not os.path.exists(path) or os.path.realpath(path) in (os.path.realpath("/tmp"), os.path.realpath("/run")):
            raise DeviceError(f"cannot keep {path}: " + ("it is new inside" if os.path.exists(path) else "it does not exist"))
    sys.stdout.flush()
    sys.stderr.flush()
    read_end, write_end = os.pipe()
    caller = os.getpid()
    outer = os.fork()
    if outer == 0:
        os.close(read_end)
        _outer_process(caller, function, hostname, kept, write_end)
    os.close(write_end)
    try:
        with open(read_end, encoding="utf-8") as pipe:
            error = pipe.read()
        status = _wait_for(outer)
    except BaseException:
        os.kill(outer, signal.SIGKILL)
        os.waitpid(outer, 0)
        raise
    if error:
        raise DeviceError(error)
    return status


def bind(source: str | os.PathLike, target: str | os.PathLike) -> None:
    """Inside only: makes a file or device appear at another path too. What is there is hidden; nothing need be there in
    /tmp, /run and /dev. Raises DeviceError."""
    if not os.path.lexists(target):
        _make_file(os.fspath(target))
    _mount(os.fspath(source), os.fspath(target), None, MS_BIND)


def unbind(target: str | os.PathLike) -> None:
    """Undoes the last bind() to this path, even while somebody has it open. Raises DeviceError."""
    if _libc.umount2(os.fsencode(target), MNT_DETACH) != 0:
        raise DeviceError(f"cannot unmount {os.fspath(target)}: {os.strerror(ctypes.get_errno())}")


def _outer_process(caller: int, function: Callable[[], int | None], hostname: str, keep: list[str], errors: int) -> None:
    """Leaves the caller's namespaces, starts process 1 of the new ones and passes its status on. Does not return."""
    status = 70
    try:
        _die_with_parent(caller)
        for terminal_signal in (signal.SIGINT, signal.SIGQUIT):
            signal.signal(terminal_signal, signal.SIG_IGN)  # for what runs inside to decide
        _unshare()
        outside = os.getpid()
        init = os.fork()
        if init == 0:
            _init_process(outside, function, hostname, keep, errors)
        os.close(errors)
        status = _wait_for(init)
    except (DeviceError, OSError) as error:
        os.write(errors, str(error).encode())
    finally:
        os._exit(status)


def _init_process(outside: int, function: Callable[[], int | None], hostname: str, keep: list[str], errors: int) -> None:
    """Process 1: furnishes the namespaces, starts the function and collects orphans until it ends. Does not return."""
    status = 70
    try:
        # The parent has another process number in here: 0, as a process of no one's namespace.
        _die_with_parent(0)
        _furnish(hostname, keep)
        os.close(errors)
    except (DeviceError, OSError) as error:
        os.write(errors, str(error).encode())
        os._exit(status)
    worker = os.fork()
    if worker == 0:
        _call(function)
    while True:
        pid, result = os.wait()
        if pid == worker:
            os._exit(_shell_status(result))


def _call(function: Callable[[], int | None]) -> None:
    """Runs the function with the signals as Python has them at its start, then ends the process."""
    signal.signal(signal.SIGINT, signal.default_int_handler)
    signal.signal(signal.SIGQUIT, signal.SIG_DFL)
    status = 70
    try:
        status = function() or 0
    except SystemExit as end:
        status = end.code if isinstance(end.code, int) else 0 if end.code is None else 1
    except BaseException:
        traceback.print_exc()
    finally:
        for stream in (sys.stdout, sys.stderr):
            try:
                stream.flush()
            except (OSError, ValueError):
                pass  # closed, or nobody reads it any more
        os._exit(status & 0xFF)


def _unshare() -> None:
    spaces = CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWUTS
    uid, gid = os.geteuid(), os.getegid()
    if uid == 0 and _libc.unshare(spaces) == 0:
        return
    if _libc.unshare(spaces | CLONE_NEWUSER) != 0:
        reason = os.strerror(ctypes.get_errno())
        raise DeviceError(f"cannot make private namespaces: this needs root, or a system that allows user namespaces ({reason})")
    try:
        _write("/proc/self/setgroups", "deny")
        _write("/proc/self/uid_map", f"0 {uid} 1")
        _write("/proc/self/gid_map", f"0 {gid} 1")
    except OSError as error:
        raise DeviceError(f"cannot become root in a new user namespace: {error}") from error


def _furnish(hostname: str, keep: list[str]) -> None:
    """Makes the new, still borrowed, surroundings look like the device."""
    here = _working_directory()
    _mount(None, "/", None, MS_REC | MS_PRIVATE)
    held = _hold([PROJECT, here, sys.prefix, sys.base_prefix, sys.executable, *keep])
    _mount("tmpfs", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777")
    _mount("tmpfs", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=755")
    for path, what in held.items():
        _put_back(path, what)
    _furnish_dev()
    _mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC)
    socket.sethostname(hostname)
    _loopback_up()
    os.makedirs(QUEUE_DIR)
    os.chmod(QUEUE_DIR, 0o770)
    os.chdir(here)  # by name: the old place may now be under a tmpfs


def _furnish_dev() -> None:
    """A /dev that needs no right to make devices: the harmless ones are those of the system."""
    held = {f"/dev/{name}": os.open(f"/dev/{name}", os.O_PATH | os.O_CLOEXEC) for name in DEVICES}
    _mount("tmpfs", "/dev", "tmpfs", MS_NOSUID | MS_NOEXEC, "mode=755")
    for path, what in held.items():
        _put_back(path, what)
    os.mkdir("/dev/pts")
    _mount("devpts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC, "newinstance,ptmxmode=0666,mode=620")
    os.mkdir("/dev/shm")
    os.chmod("/dev/shm", 0o1777)
    for name, what in (
        ("ptmx", "pts/ptmx"),
        ("fd", "/proc/self/fd"),
        ("stdin", "/proc/self/fd/0"),
        ("stdout", "/proc/self/fd/1"),
        ("stderr", "/proc/self/fd/2"),
    ):
        os.symlink(what, f"/dev/{name}")


def _working_directory() -> str:
    try:
        return os.getcwd()
    except FileNotFoundError:
        return "/"


def _covered(path: str) -> bool:
    return any(path.startswith(os.path.realpath(top) + "/") for top in ("/tmp", "/run"))


def _hold(paths: Iterable[str]) -> dict[str, int | str]:
    """What the new /tmp and /run will hide of the paths: by name, a descriptor of it or a symbolic link's target."""
    held: dict[str, int | str] = {}
    for path in sorted({os.path.abspath(path) for path in paths}, key=len):
        real = os.path.realpath(path)
        if not any((real + "/").startswith(outer + "/") for outer in held) and _covered(real):
            held[real] = os.open(real, os.O_PATH | os.O_CLOEXEC)
        if path != real and _covered(path):
            held[path] = real
    return held


def _put_back(path: str, held: int | str) -> None:
    """Makes what _hold() took visible again at its path."""
    os.makedirs(os.path.dirname(path), exist_ok=True)
    if isinstance(held, str):
        if not os.path.lexists(path):  # it is there already when it lies inside something else that was kept
            os.symlink(held, path)
        return
    if os.path.isdir(f"/proc/self/fd/{held}"):
        os.mkdir(path)
    else:
        _make_file(path)
    _mount(f"/proc/self/fd/{held}", path, None, MS_BIND | MS_REC)
    os.close(held)


def _make_file(path: str) -> None:
    """An empty one, for something to be mounted on."""
    os.close(os.open(path, os.O_CREAT | os.O_WRONLY | os.O_CLOEXEC, 0o600))


def _mount(source: str | None, target: str, kind: str | None, flags: int, data: str | None = None) -> None:
    arguments = [None if word is None else os.fsencode(word) for word in (source, target, kind)]
    if _libc.mount(*arguments, ctypes.c_ulong(flags), None if data is None else data.encode()) != 0:
        number = ctypes.get_errno()
        raise DeviceError(f"cannot mount {kind or source or 'privately'} on {target}: {os.strerror(number)}")


def _loopback_up() -> None:
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        request = struct.pack("16sH14x", b"lo", 0)
        flags = struct.unpack("16xH14x", fcntl.ioctl(any_socket, SIOCGIFFLAGS, request))[0]
        fcntl.ioctl(any_socket, SIOCSIFFLAGS, struct.pack("16sH14x", b"lo", flags | IFF_UP))


def _die_with_parent(parent: int) -> None:
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)
    if os.getppid() != parent:
        os._exit(70)  # it died before the call above


def _write(path: str, text: str) -> None:
    with open(path, "w", encoding="ascii") as file:
        file.write(text)


def _wait_for(pid: int) -> int:
    return _shell_status(os.waitpid(pid, 0)[1])


def _shell_status(wait_status: int) -> int:
    code = os.waitstatus_to_exitcode(wait_status)
    return code if code >= 0 else 128 - code


def _run_command(command: list[str], directory: str | None) -> int:
    """In the place of the function: becomes the command."""
    for number in (signal.SIGINT, signal.SIGPIPE, signal.SIGTTOU):
        signal.signal(number, signal.SIG_DFL)
    try:
        if directory is not None:
            os.chdir(directory)
        os.execvp(command[0], command)
    except OSError as error:
        print(f"device_ns: {error.filename or command[0]}: {error.strerror}", file=sys.stderr)
        return 127 if error.errno == errno.ENOENT else 126


def main() -> int:
    parser = argparse.ArgumentParser(description="Runs a command in private namespaces that look like the device.")
    parser.add_argument("--hostname", default="s3", help="host name inside (default: %(default)s)")
    parser.add_argument(
        "--keep",
        action="append",
        default=[],
        metavar="PATH",
        help="a path under /tmp or /run that must stay reachable; may be repeated",
    )
    parser.add_argument("--cwd", metavar="DIR", help="working directory inside (default: the present one)")
    parser.add_argument("command", nargs="+", metavar="COMMAND", help="what to run, with its arguments, after --")
    options = parser.parse_args()
    program = shutil.which(options.command[0])
    keep = options.keep + ([program] if program else [])
    for terminal_signal in (signal.SIGINT, signal.SIGQUIT):
        signal.signal(terminal_signal, signal.SIG_IGN)  # the command decides; its status says what became of it
    signal.signal(signal.SIGTTOU, signal.SIG_IGN)  # or taking the terminal back would stop this process
    foreground = os.isatty(0) and os.tcgetpgrp(0) == os.getpgrp()
    try:
        return run_in_device(lambda: _run_command(options.command, options.cwd), options.hostname, keep)
    except DeviceError as error:
        print(f"device_ns: {error}", file=sys.stderr)
        return 1
    finally:
        if foreground:
            # A shell inside gives the terminal to its own jobs; it cannot give it back to a group it does not see.
            os.tcsetpgrp(0, os.getpgrp())


if __name__ == "__main__":
    sys.exit(main())
