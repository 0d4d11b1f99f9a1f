"""Runs dbus-broker by itself. Its usual launcher wants a service manager, a journal and a bus; all that the broker needs is
somebody who hands it a listening socket and a policy, over a D-Bus connection of their own."""

from __future__ import annotations

import array
import os
import socket
import struct
import subprocess

_BATCH = "bta(btbs)a(btssssuutt)a(btssssuutt)"
_POLICY = f"(a(u({_BATCH}))a(buu({_BATCH}))a(ss)bs)"


class _Body:
    """Marshals as D-Bus does, little endian."""

    def __init__(self) -> None:
        self.data = bytearray()

    def align(self, to: int) -> _Body:
        self.data += bytes(-len(self.data) % to)
        return self

    def word(self, *values: int) -> _Body:
        for value in values:
            self.align(4).data.extend(struct.pack("<I", value))
        return self

    def long(self, *values: int) -> _Body:
        for value in values:
            self.align(8).data.extend(struct.pack("<Q", value))
        return self

    def text(self, *values: str) -> _Body:
        for value in values:
            self.word(len(value)).data.extend(value.encode() + b"\0")
        return self

    def signature(self, value: str) -> _Body:
        self.data += bytes([len(value)]) + value.encode() + b"\0"
        return self

    def begin_array(self) -> tuple[int, int]:
        """Of structures, as all arrays here are."""
        self.word(0)
        at = len(self.data)
        return at, len(self.align(8).data)

    def end_array(self, began: tuple[int, int]) -> _Body:
        at, start = began
        struct.pack_into("<I", self.data, at - 4, len(self.data) - start)
        return self


def _everything_allowed(body: _Body) -> None:
    """One batch, for every user: all may connect, own names, send and receive."""
    users = body.begin_array()
    body.word(0xFFFFFFFF).align(8).word(1).long(1)
    names = body.begin_array()
    body.align(8).word(1).long(1).word(1).text("")
    body.end_array(names)
    for _direction in ("send", "receive"):
        rules = body.begin_array()
        body.align(8).word(1).long(1).text("", "", "", "").word(0, 0).long(0, 0xFFFFFFFFFFFFFFFF)
        body.end_array(rules)
    body.end_array(users)
    for _nothing in ("groups", "SELinux"):
        body.end_array(body.begin_array())
    body.word(0).text("bench")


def _add_listener() -> bytes:
    body = _Body().text("/org/bus1/DBus/Listener/0").word(0).signature(_POLICY).align(8)
    _everything_allowed(body)
    head = _Body()
    head.data += b"l\1\0\1"
    head.word(len(body.data), 1)
    fields = head.begin_array()
    for field, kind, value in ((1, "o", "/org/bus1/DBus/Broker"), (2, "s", "org.bus1.DBus.Broker"), (3, "s", "AddListener")):
        head.align(8).data.append(field)
        head.signature(kind).text(value)
    head.align(8).data.append(8)
    head.signature("g").signature("ohv")
    head.align(8).data.append(9)
    head.signature("u").word(1)
    head.end_array(fields).align(8)
    return bytes(head.data + body.data)


def _expect(controller: socket.socket, what: bytes) -> None:
    reply = controller.recv(4096)
    if not reply.startswith(what):
        raise RuntimeError(f"dbus-broker: expected {what!r}, got {reply!r}")


def start(program: str, path: str, environment: dict[str, str]) -> tuple[subprocess.Popen, socket.socket]:
    """A broker that listens at `path`. It lives as long as the socket stays open."""
    ours, theirs = socket.socketpair()
    listener = socket.socket(socket.AF_UNIX)
    listener.bind(path)
    listener.listen(64)
    os.set_blocking(listener.fileno(), False)
    process = subprocess.Popen(
        [program, "--controller", str(theirs.fileno()), "--machine-id", "0" * 31 + "1"],
        pass_fds=[theirs.fileno()],
        env=environment,
        stdin=subprocess.DEVNULL,
    )
    theirs.close()
    ours.settimeout(5)
    ours.sendall(b"\0AUTH EXTERNAL %s\r\n" % str(os.geteuid()).encode().hex().encode())
    _expect(ours, b"OK")
    ours.sendall(b"NEGOTIATE_UNIX_FD\r\n")
    _expect(ours, b"AGREE_UNIX_FD")
    ours.sendall(b"BEGIN\r\n")
    ours.sendmsg([_add_listener()], [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", [listener.fileno()]))])
    _expect(ours, b"l\2")
    listener.close()
    return process, ours


def say_hello(path: str) -> None:
    """Connects as a client does, and waits for the bus's first answer."""
    head = _Body()
    head.data += b"l\1\0\1"
    head.word(0, 1)
    fields = head.begin_array()
    bus = "org.freedesktop.DBus"
    for field, kind, value in ((1, "o", "/"), (6, "s", bus), (2, "s", bus), (3, "s", "Hello")):
        head.align(8).data.append(field)
        head.signature(kind).text(value)
    head.end_array(fields).align(8)
    with socket.socket(socket.AF_UNIX) as client:
        client.settimeout(5)
        client.connect(path)
        client.sendall(b"\0AUTH EXTERNAL %s\r\n" % str(os.geteuid()).encode().hex().encode())
        _expect(client, b"OK")
        client.sendall(b"BEGIN\r\n" + head.data)
        _expect(client, b"l\2")
