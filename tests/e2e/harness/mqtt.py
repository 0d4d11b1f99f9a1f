"""A broker of MQTT 5, the bridge to it, and a client that asks over it."""

from __future__ import annotations

import contextlib
import dataclasses
import glob
import itertools
import json
import os
import queue
import shutil
import signal
import socket
import subprocess
import threading
from collections.abc import Callable, Iterator

import pytest

from harness import proc, settings
from harness.waiting import Deadline, wait_until

try:
    from paho.mqtt import client as paho
    from paho.mqtt.packettypes import PacketTypes
    from paho.mqtt.properties import Properties
except ImportError:
    paho = None

_PROGRAM = os.path.join(settings.BIN_DIR, "tess-mqtt")
COMMAND = [*settings.WRAPPER, _PROGRAM]
BROKER = shutil.which("mosquitto", path=os.environ.get("PATH", "") + ":/usr/sbin")

needs_bridge = pytest.mark.skipif(
    not os.path.exists(_PROGRAM) or BROKER is None or paho is None,
    reason="tess-mqtt is not built, or mosquitto or python3-paho-mqtt is missing",
)
needs_tls = pytest.mark.skipif(settings.emulated(), reason="libmosquitto for the device's processor is built without TLS")

PLAIN = "listener 1883 127.0.0.1\nallow_anonymous true\n"


class Broker:
    """A mosquitto of the test's own."""

    def __init__(self, configuration: str = PLAIN, port: int = 1883) -> None:
        self.port = port
        with open(f"/tmp/broker-{port}.conf", "w", encoding="utf-8") as file:
            file.write(f"{configuration}\nuser root\nmax_queued_messages 0\n")
        self.process: subprocess.Popen | None = None
        self.start()

    def start(self) -> None:
        log = open(f"/tmp/broker-{self.port}.log", "a", encoding="utf-8")
        self.process = subprocess.Popen([BROKER, "-c", f"/tmp/broker-{self.port}.conf"], stdout=log, stderr=log)
        log.close()
        wait_until(self._listens, "the broker listens", 10)

    def _listens(self) -> bool:
        assert self.process.poll() is None, f"mosquitto ended:\n{open(f'/tmp/broker-{self.port}.log').read()}"
        with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", self.port), 1):
            return True
        return False

    def kill(self, number: int = signal.SIGKILL) -> None:
        self.process.send_signal(number)
        self.process.wait()


class FakeBroker:
    """Takes every client and its subscriptions, and then does to it what the test says.

    act      gets the socket of a client that has subscribed; the connection ends with it
    granted  what is answered to its two subscriptions"""

    def __init__(
        self, act: Callable[[socket.socket], None], listener: socket.socket | None = None, granted: bytes = b"\x01\x01"
    ) -> None:
        self._granted = granted
        self.connections = 0
        self._act = act
        self._listener = listener or socket.create_server(("127.0.0.1", 1885))
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self) -> None:
        while True:
            client, _ = self._listener.accept()
            with client, contextlib.suppress(OSError, IndexError):  # it has gone
                client.settimeout(10)
                self.read_packet(client)
                client.sendall(b"\x20\x03\x00\x00\x00")  # CONNACK: taken
                subscribe = self.read_packet(client)
                client.sendall(bytes([0x90, 3 + len(self._granted)]) + subscribe[:2] + b"\x00" + self._granted)  # SUBACK
                self.connections += 1
                self._act(client)

    @staticmethod
    def read_packet(client: socket.socket) -> bytes:
        """A packet without its first byte and its length."""
        client.recv(1)
        length = shift = 0
        while True:
            byte = client.recv(1)[0]
            length |= (byte & 127) << shift
            shift += 7
            if byte < 128:
                return client.recv(length, socket.MSG_WAITALL)


class FullListener:
    """Has no room for a client at first, whose connection takes a second then; later it is connected to a broker."""

    def __init__(self, port: int) -> None:
        self._port = port
        self._listener = socket.create_server(("127.0.0.1", port), backlog=0)
        self._sockets = [self._listener, socket.create_connection(("127.0.0.1", port))]

    def __enter__(self) -> FullListener:
        return self

    def __exit__(self, *_: object) -> None:
        for each in self._sockets:
            with contextlib.suppress(OSError):
                each.shutdown(socket.SHUT_RDWR)
            each.close()

    def wait_for_client(self) -> None:
        wait_until(self._is_awaited, "somebody tries to connect", 10)

    def _is_awaited(self) -> bool:
        with open("/proc/net/tcp", encoding="ascii") as connections:
            return any(f":{self._port:04X} 02 " in line for line in connections)  # in the state SYN_SENT

    def let_pass(self, port: int) -> None:
        self._sockets.append(self._listener.accept()[0])  # makes room; the client tries again
        self._listener.settimeout(10 * settings.SLOW)
        client, _ = self._listener.accept()
        broker = socket.create_connection(("127.0.0.1", port))
        self._sockets += [client, broker]
        for source, to in ((client, broker), (broker, client)):
            threading.Thread(target=self._copy, args=(source, to), daemon=True).start()

    @staticmethod
    def _copy(source: socket.socket, to: socket.socket) -> None:
        with contextlib.suppress(OSError):
            while text := source.recv(65536):
                to.sendall(text)
            to.shutdown(socket.SHUT_WR)


@pytest.fixture(autouse=True)
def sound_bridges() -> Iterator[None]:
    """Also one that has ended by itself, or that the test has killed, has nothing to report of a sanitizer."""
    yield
    for path in glob.glob("/tmp/mqtt-*.log"):
        with open(path, encoding="utf-8", errors="replace") as file:
            text = file.read()
        assert "Sanitizer" not in text and "runtime error" not in text, text


class Bridge:
    """A tess-mqtt."""

    _numbers = itertools.count(1)

    def __init__(
        self,
        *lines: str,
        device: str = "d1",
        broker: str = "broker = 127.0.0.1\nplain = yes",
        environment: dict[str, str] | None = None,
    ) -> None:
        self._environment = environment or {}
        self.number = next(Bridge._numbers)
        self.settings = f"/tmp/mqtt-{self.number}.conf"
        self.log = f"/tmp/mqtt-{self.number}.log"
        self.folder = f"/tmp/mqtt-{self.number}"
        os.mkdir(self.folder)
        with open(self.settings, "w", encoding="utf-8") as file:
            file.write("\n".join([broker, f"device = {device}", *lines]) + "\n")
        self.process: subprocess.Popen | None = None
        self.start()

    def start(self) -> None:
        environment = {**os.environ, "RUNTIME_DIRECTORY": self.folder, **self._environment}
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen([*COMMAND, "--config", self.settings], stderr=log, env=environment)

    def log_text(self) -> str:
        with open(self.log, encoding="utf-8") as file:
            return file.read()

    def wait_log(self, text: str, count: int = 1, within: float = 15) -> None:
        wait_until(lambda: self.log_text().count(text) >= count, f"the bridge says {text!r} (x{count})", within)

    def wait_connected(self, count: int = 1, within: float = 15) -> Bridge:
        self.wait_log("55010", count, within)
        return self

    def kill(self) -> None:
        self.process.kill()
        self.process.wait()

    def stop(self) -> None:
        self.process.terminate()
        status = self.process.wait(10 * settings.SLOW)
        assert status == 0, f"expected status 0 of tess-mqtt, got {status}\n{self.log_text()}"

    @property
    def pid(self) -> int:
        return self.process.pid

    def cpu_seconds(self) -> float:
        return proc.cpu_nanoseconds(self.pid) / 1e9


@dataclasses.dataclass(frozen=True)
class Answer:
    text: str
    status: str
    device: str
    ms: int
    correlation: bytes | None


class Requester:
    """A client that asks, and hears the answers on a topic of its own."""

    _numbers = itertools.count(1)

    def __init__(self, port: int = 1883, name: str = "", session: int = 0, **tls: object) -> None:
        self.name = name or f"asker{next(Requester._numbers)}"
        self.topic = f"tess/answer/{self.name}"
        self.answers: queue.Queue[Answer] = queue.Queue()
        self.others: queue.Queue[tuple[str, str]] = queue.Queue()
        self._subscribed = threading.Event()
        self._client = paho.Client(self.name, protocol=paho.MQTTv5)
        self._client.on_connect = lambda client, *_: client.subscribe(self.topic, 1)
        self._client.on_subscribe = lambda *_: self._subscribed.set()
        self._client.on_message = self._take
        self._client.reconnect_delay_set(1, 1)
        if tls:
            self._client.tls_set(**tls)
        connect = Properties(PacketTypes.CONNECT)
        connect.SessionExpiryInterval = session
        self._client.connect("127.0.0.1", port, clean_start=session == 0, properties=connect)
        self._client.loop_start()
        assert self._subscribed.wait(10 * settings.SLOW), "not subscribed"

    def close(self) -> None:
        self._client.disconnect()
        self._client.loop_stop()

    def _take(self, _client: object, _data: object, message: object) -> None:
        if message.topic != self.topic:
            self.others.put((message.topic, message.payload.decode(errors="replace")))
            return
        user = dict(getattr(message.properties, "UserProperty", []))
        correlation = getattr(message.properties, "CorrelationData", None)
        text = message.payload.decode(errors="backslashreplace")
        self.answers.put(Answer(text, user["status"], user["device"], int(user["ms"]), correlation))

    def subscribe(self, topic: str) -> None:
        self._subscribed.clear()
        self._client.subscribe(topic, 1)
        assert self._subscribed.wait(10 * settings.SLOW), f"not subscribed to {topic}"

    def wait_for(self, topic: str, wanted: str, within: float = 10) -> str:
        """The next payload of this topic with this in it."""
        deadline = Deadline(within)
        seen = []
        while True:
            try:
                got = self.others.get(timeout=max(deadline.left(), 0.001))
            except queue.Empty:
                raise AssertionError(f"nothing with {wanted!r} came to {topic}, only {seen}") from None
            if got[0] == topic and wanted in got[1]:
                return got[1]
            seen.append(got)

    def publish(
        self, topic: str, payload: str | bytes, retain: bool = False, qos: int = 1, **properties: object
    ) -> paho.MQTTMessageInfo:
        what = Properties(PacketTypes.PUBLISH)
        for name, value in properties.items():
            setattr(what, name, value)
        return self._client.publish(topic, payload, qos, retain, what)

    def send(
        self,
        line: str | bytes,
        correlation: bytes | None = None,
        device: str = "d1",
        expiry: int | None = None,
        topic: str = "",
    ) -> paho.MQTTMessageInfo:
        properties: dict[str, object] = {"ResponseTopic": self.topic}
        if correlation is not None:
            properties["CorrelationData"] = correlation
        if expiry is not None:
            properties["MessageExpiryInterval"] = expiry
        return self.publish(topic or f"tess/{device}/command", line, **properties)

    def receive(self, within: float = 10) -> Answer:
        deadline = Deadline(within)
        try:
            return self.answers.get(timeout=deadline.seconds)
        except queue.Empty:
            raise AssertionError(f"no answer within {deadline.seconds:g} s") from None

    def ask(self, line: str | bytes, correlation: bytes | None = None, within: float = 10, **options: object) -> Answer:
        self.send(line, correlation, **options)
        answer = self.receive(within)
        assert answer.correlation == correlation, f"expected the correlation data {correlation!r}, got {answer}"
        return answer

    def expect(self, line: str | bytes, status: str, text: str, **options: object) -> Answer:
        answer = self.ask(line, **options)
        assert (answer.status, answer.text) == (status, text), f"expected {status} {text!r}, got {answer}"
        return answer

    def expect_nothing_more(self, device: str = "d1") -> None:
        """Everything that was asked before this has been answered."""
        self.expect("*", "answered", "0", device=device, correlation=b"nothing more")


@contextlib.contextmanager
def asker(*arguments: object, **options: object) -> Iterator[Requester]:
    requester = Requester(*arguments, **options)
    try:
        yield requester
    finally:
        requester.close()


def status_of(text: str) -> dict:
    return json.loads(text)


def make_certificates(folder: str) -> None:
    """An authority, a server's certificate for 127.0.0.1, a client's, and an authority that nobody knows."""
    os.makedirs(folder, exist_ok=True)

    def openssl(*arguments: str) -> None:
        subprocess.run(["openssl", *arguments], check=True, capture_output=True, cwd=folder)

    curve = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2")
    for name in ("ca", "stranger"):
        openssl("req", "-x509", *curve, "-subj", f"/CN={name}", "-keyout", f"{name}.key", "-out", f"{name}.crt")
    for name in ("server", "client"):
        openssl("req", *curve, "-subj", f"/CN={name}", "-keyout", f"{name}.key", "-out", f"{name}.csr")
        with open(f"{folder}/{name}.ext", "w", encoding="ascii") as file:
            file.write("subjectAltName=IP:127.0.0.1\n")
        signed = ("-CA", "ca.crt", "-CAkey", "ca.key", "-CAcreateserial", "-days", "2", "-extfile", f"{name}.ext")
        openssl("x509", "-req", "-in", f"{name}.csr", *signed, "-out", f"{name}.crt")
