"""Which errors each call may give, by its page of the manual, as far as the daemon's use of it can meet them."""

from __future__ import annotations

from collections.abc import Iterable

from fault_library import SHORT

_NO_DESCRIPTOR = ("EMFILE", "ENFILE")
_RECEIVE = ("EAGAIN", "EINTR", "ENOMEM", "ECONNRESET")
_SEND = ("EAGAIN", "EINTR", "ENOBUFS", "ENOMEM", "ECONNRESET", "EPIPE")
_PATH = ("EACCES", "EIO", "ENOMEM", "EROFS")

ERRORS: dict[str, tuple[str, ...]] = {
    "socket": (*_NO_DESCRIPTOR, "ENOBUFS", "ENOMEM"),
    "bind": ("EADDRINUSE", "EACCES", "ENOMEM", "EROFS"),
    "listen": ("EADDRINUSE",),
    "accept4": ("EAGAIN", "EINTR", "ECONNABORTED", *_NO_DESCRIPTOR, "ENOBUFS", "ENOMEM"),
    "connect": ("ECONNREFUSED", "EINTR", "EAGAIN"),
    "shutdown": ("ENOTCONN",),
    "setsockopt": ("ENOPROTOOPT", "ENOMEM"),
    "getsockopt": ("ENOBUFS",),
    "getpeername": ("ENOBUFS", "ENOTCONN"),
    "eventfd": (*_NO_DESCRIPTOR, "ENOMEM"),
    "open": (*_NO_DESCRIPTOR, "ENOMEM", "EINTR", "EIO", "ENXIO"),
    "close": ("EINTR", "EIO"),
    "fcntl": (),  # as the daemon uses it, it only tells whether a descriptor is open, and how
    "dup3": ("EBUSY", "EINTR", "EMFILE"),
    "select": ("EINTR", "ENOMEM"),
    "poll": ("EINTR", "ENOMEM"),
    "recv": (*_RECEIVE, SHORT),
    "recv-peek": (*_RECEIVE, SHORT),
    "recvmsg": ("EAGAIN", "EINTR", "ENOMEM"),
    "recvmmsg": ("EAGAIN", "EINTR", "ENOMEM"),
    "read": ("EAGAIN", "EINTR", "EIO", SHORT),
    "send": (*_SEND, SHORT),
    "sendmsg": (*_SEND, SHORT),
    "sendto": (*_SEND, "ECONNREFUSED"),
    "write": ("EAGAIN", "EINTR", "EIO", "ENOSPC", SHORT),
    "pwritev2": ("EAGAIN", "EINTR", "EIO", "ENOSPC", SHORT),
    "tcgetattr": ("EIO",),
    "tcsetattr": ("EINTR", "EIO"),
    "tcflush": ("EIO",),
    "remove": _PATH,
    "unlink": _PATH,
    "chmod": _PATH,
    "fchmod": ("EIO", "EPERM"),
    "fchmodat": _PATH,
    "mkdir": ("EACCES", "ENOSPC", "EDQUOT", "ENOMEM"),
    "stat": ("EACCES", "ENOMEM"),
    "lstat": ("EACCES", "ENOMEM"),
    "fstat": ("ENOMEM",),
    "flock": ("EINTR", "ENOLCK"),
    "fork": ("EAGAIN", "ENOMEM"),
    "posix_spawn": ("EAGAIN", "ENOMEM"),
    "waitpid": ("EINTR", "ECHILD"),
    "pthread_create": ("EAGAIN",),
    "clock_gettime": ("EINVAL",),
    "gethostname": ("EINVAL",),
    "getpwnam_r": ("EINTR", "EIO", *_NO_DESCRIPTOR, "ENOMEM", "ERANGE"),
    "crypt_r": ("EINVAL", "ENOMEM"),
    "strdup": ("ENOMEM",),
    "new": ("ENOMEM",),
}

# What is about the event descriptor only fails in one way (eventfd(2)).
_OF_WAKE = ("EAGAIN",)

# Calls that the stage makes only while they fail.
PROVOKED = {("traffic", "fork")}

# Of a start, what comes behind the line that tells of its end. It is made in traffic too.
_BEHIND_THE_START = ("read/com2", "recvmmsg/queue", "recvmsg/queue", "select/look", "select/wait")

# Over what a killed daemon has left, these only: the others are made at every start.
_OVER_LEFTOVERS = ("connect/queue", "lstat", "unlink/queue")


def cases(phase: str, made: Iterable[str]) -> set[tuple[str, str, str]]:
    """Phase, call and error of what is to be tried in a phase, in which these calls are made."""
    return {
        (phase, call, error)
        for call in {*made, *(call for where, call in PROVOKED if where == phase)}
        if ("killed" not in phase or call in _OVER_LEFTOVERS) and (phase != "start" or call not in _BEHIND_THE_START)
        for error in (_OF_WAKE if call.endswith("/wake") else ERRORS[call.partition("/")[0]])
    }
