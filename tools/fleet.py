#!/usr/bin/python3
"""Devices with bridges and a broker, on one machine: each in namespaces of its own, over a network of theirs, with TLS.

    tools/fleet.py BIN-FOLDER N            shows what many devices have of a broker; at a terminal it ends in a shell
    tools/fleet.py BIN-FOLDER N --test     measures, breaks what can break, and says whether all that was promised was kept
    tools/fleet.py ... --json FILE         writes what was measured

Ends with status 0 when everything went as it should.
"""

from __future__ import annotations

import argparse
import contextlib
import itertools
import json
import os
import random
import re
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import threading
import time
from collections.abc import Callable

import device_ns

sys.path.insert(0, os.path.join(device_ns.PROJECT, "python"))

FOLDER = "/tmp/fleet"
NETWORK = "10.77"
BROKER = f"{NETWORK}.0.1"
PORT = 8883
PATIENCE = 60.0
ONLINE_WITHIN = 10.0

BROKER_CONF = f"""\
listener {PORT} {BROKER}
cafile {FOLDER}/ca.crt
certfile {FOLDER}/broker.crt
keyfile {FOLDER}/broker.key
require_certificate true
use_identity_as_username true
acl_file {FOLDER}/acl
user root
persistence false
set_tcp_nodelay true
"""

# A device may hear what is for it, and speak for itself; an operator may do both for all.
ACL = """\
user operator
topic readwrite tess/#

pattern read tess/%u/command
pattern read tess/all/command
pattern read tess/group/+/command
pattern read tess/%u/watch
pattern write tess/%u/status
pattern write tess/%u/metrics
pattern write tess/%u/event
pattern write tess/answer/#
"""

TRIES = [
    ("tessctl fleet status", "which devices there are"),
    ("tessctl fleet send 's3.ENC SETX 5' --all", "a command to all of them"),
    ("tessctl fleet send 's3.ENC GETX' d1 --json", "to one"),
    ("mosquitto_sub $TLS -t 'tess/#' -v", "everything that passes the broker"),
    (f"{FOLDER}/rr tess/d1/command 's3.ENC GETX'", "mosquitto_rr with all that it wants"),
    (f"less {FOLDER}/d1.conf {FOLDER}/acl", "how a bridge and the broker are configured"),
]


class FleetError(RuntimeError):
    """Something did not go as it should; the text says what."""


def run(*command: str, **options: object) -> str:
    done = subprocess.run(command, text=True, capture_output=True, check=False, **options)
    if done.returncode != 0:
        raise FleetError(f"{' '.join(command)}: status {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


def wait_until(fact: Callable[[], object], what: str, within: float = PATIENCE) -> float:
    """Returns how long it took."""
    start = time.monotonic()
    while not fact():
        if time.monotonic() - start > within:
            raise FleetError(f"not within {within:g} s: {what}")
        time.sleep(0.02)
    return time.monotonic() - start


# Certificates


def make_certificates(names: list[str]) -> None:
    """An authority of the fleet's own, and a certificate for the broker, an operator and each device."""
    curve = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes")
    ca = ("-subj", "/CN=fleet", "-keyout", "ca.key", "-out", "ca.crt", "-days", "2")
    run("openssl", "req", "-x509", *curve, *ca, cwd=FOLDER)
    with open(f"{FOLDER}/broker.ext", "w", encoding="ascii") as file:
        file.write(f"subjectAltName=IP:{BROKER}\n")
    for name in ["broker", "operator", *names]:
        run("openssl", "req", *curve, "-subj", f"/CN={name}", "-keyout", f"{name}.key", "-out", f"{name}.csr", cwd=FOLDER)
        extension = ("-extfile", "broker.ext") if name == "broker" else ()
        signed = ("-CA", "ca.crt", "-CAkey", "ca.key", "-CAcreateserial", "-days", "2", *extension)
        run("openssl", "x509", "-req", "-in", f"{name}.csr", *signed, "-out", f"{name}.crt", cwd=FOLDER)


def reach(name: str) -> str:
    """How one of them reaches the broker, as a bridge or tessctl is told it."""
    certificate = f"ca = {FOLDER}/ca.crt\ncertificate = {FOLDER}/{name}.crt\nkey = {FOLDER}/{name}.key\n"
    return f"broker = {BROKER}:{PORT}\n{certificate}"


TLS_OPTIONS = [
    *("-h", BROKER, "-p", str(PORT), "-V", "5"),
    *("--cafile", f"{FOLDER}/ca.crt", "--cert", f"{FOLDER}/operator.crt", "--key", f"{FOLDER}/operator.key"),
]


# A device


class Count:
    """A process of the device that notes each command that it carries out."""

    def __init__(self, file: str) -> None:
        self._file = os.open(file, os.O_WRONLY | os.O_APPEND | os.O_CREAT)

    def answer(self, command: str) -> str:
        os.write(self._file, command.encode() + b"\n")
        return f"done {command}"


def count_process(file: str) -> None:
    """Does not return."""
    import tess

    os.environ.pop("NOTIFY_SOCKET", None)
    os._exit(tess.Process("COUNT", Count(file).answer).run())


def inside_device(number: int, bin_folder: str, channel: socket.socket, folder: str, counts: bool) -> int:
    """Runs in the device's namespaces: gets its network, starts everything, and does what it is told."""
    socket.send_fds(channel, [b"net"], [os.open("/proc/self/ns/net", os.O_RDONLY)])
    channel.recv(16)  # the cable is there
    address = f"{NETWORK}.{number // 250 + 1}.{number % 250 + 1}/16"
    run("ip", "address", "add", address, "dev", "eth0")
    run("ip", "link", "set", "eth0", "up")
    os.makedirs("/run/mqtt")
    programs: dict[str, subprocess.Popen] = {}
    commands = {
        "tessd": ["tessd", "--nocom2", "--notelnet"],
        "encoder": ["encoder"],
        "bridge": ["tess-mqtt", "--config", f"{folder}/d{number}.conf"],
    }

    def start(name: str) -> None:
        with open(f"{folder}/d{number}-{name}.log", "ab") as log:
            words = [os.path.join(bin_folder, commands[name][0]), *commands[name][1:]]
            environment = os.environ | {"RUNTIME_DIRECTORY": "/run/mqtt"}
            programs[name] = subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=log, stderr=log, env=environment)

    def memory(name: str) -> dict[str, int]:
        wanted = {"Rss": 0, "Pss": 0, "Private_Dirty": 0}
        with open(f"/proc/{programs[name].pid}/smaps_rollup", encoding="ascii") as file:
            for line in file:
                key = line.partition(":")[0]
                if key in wanted:
                    wanted[key] = int(line.split()[1])
        return wanted

    def processor(name: str) -> float:
        with open(f"/proc/{programs[name].pid}/schedstat", encoding="ascii") as file:
            return int(file.read().split()[0]) / 1e9

    start("tessd")
    deadline = time.monotonic() + PATIENCE
    while not os.path.exists("/tmp/xcp") and time.monotonic() < deadline:
        time.sleep(0.02)
    start("encoder")
    if counts and os.fork() == 0:
        count_process(f"{folder}/d{number}-executed")
    start("bridge")
    channel.send(b"ready")
    while words := channel.recv(4096).decode().split("\0"):
        if words[0] == "kill":
            programs[words[1]].kill()
            programs[words[1]].wait()
            channel.send(b"done")
        elif words[0] == "start":
            start(words[1])
            channel.send(b"done")
        elif words[0] == "memory":
            channel.send(json.dumps({name: memory(name) for name in programs}).encode())
        elif words[0] == "processor":
            channel.send(json.dumps({name: processor(name) for name in programs}).encode())
        elif words[0] == "run":
            done = subprocess.run(words[1:], text=True, capture_output=True, check=False)
            channel.send(json.dumps([done.returncode, done.stdout, done.stderr]).encode())
        else:
            return 0
    return 0


class Device:
    def __init__(self, number: int, bin_folder: str, groups: str, counts: bool) -> None:
        self.number, self.name = number, f"d{number}"
        with open(f"{FOLDER}/{self.name}.conf", "w", encoding="ascii") as file:
            file.write(f"{reach(self.name)}device = {self.name}\ngroups = {groups}\n")
        self._channel, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.pid = os.fork()
        if self.pid == 0:
            self._channel.close()
            status = device_ns.run_in_device(
                lambda: inside_device(number, bin_folder, theirs, FOLDER, counts), hostname=self.name, keep=[bin_folder, FOLDER]
            )
            os._exit(status)
        theirs.close()
        self._connect()

    def _connect(self) -> None:
        """Lays a cable from the device to the broker's network."""
        _, (net,), _, _ = socket.recv_fds(self._channel, 16, 1)
        near = f"v{self.number}"
        run("ip", "link", "add", near, "type", "veth", "peer", "name", "eth0", "netns", f"/proc/{os.getpid()}/fd/{net}")
        run("ip", "link", "set", near, "master", "br0", "up")
        os.close(net)
        self._channel.send(b"cable")

    def wait_ready(self) -> None:
        self._channel.settimeout(PATIENCE)
        if self._channel.recv(16) != b"ready":
            raise FleetError(f"{self.name} did not start")

    def _tell(self, *words: str) -> bytes:
        self._channel.send("\0".join(words).encode())
        return self._channel.recv(65536)

    def kill(self, program: str) -> None:
        self._tell("kill", program)

    def start(self, program: str) -> None:
        self._tell("start", program)

    def memory(self) -> dict:
        return json.loads(self._tell("memory"))

    def processor(self) -> dict:
        return json.loads(self._tell("processor"))

    def run(self, *command: str) -> str:
        self._channel.settimeout(200)
        status, output, errors = json.loads(self._tell("run", *command))
        if status != 0:
            raise FleetError(f"{self.name}: {' '.join(command)}: {output}{errors}")
        return output

    def cut(self) -> None:
        run("ip", "link", "set", f"v{self.number}", "down")

    def mend(self) -> None:
        run("ip", "link", "set", f"v{self.number}", "up")

    def network_bytes(self) -> int:
        """That have passed its cable, both ways."""
        with open("/proc/net/dev", encoding="ascii") as file:
            words = next(line.split() for line in file if line.strip().startswith(f"v{self.number}:"))
        return int(words[1]) + int(words[9])

    def executed(self) -> list[str]:
        with contextlib.suppress(FileNotFoundError), open(f"{FOLDER}/{self.name}-executed", encoding="ascii") as file:
            return file.read().split("\n")[:-1]
        return []

    def stop(self) -> None:
        with contextlib.suppress(OSError):
            self._channel.send(b"end")
        os.waitpid(self.pid, 0)


# The broker, and who asks


class Broker:
    def __init__(self, program: str) -> None:
        self._program = program
        for name, text in (("broker.conf", BROKER_CONF), ("acl", ACL)):
            with open(f"{FOLDER}/{name}", "w", encoding="ascii") as file:
                file.write(text)
            os.chmod(f"{FOLDER}/{name}", 0o600)
        self.process: subprocess.Popen
        self.start()

    def start(self) -> None:
        with open(f"{FOLDER}/broker.log", "ab") as log:
            self.process = subprocess.Popen([self._program, "-c", f"{FOLDER}/broker.conf"], stdout=log, stderr=log)
        wait_until(self._listens, f"the broker listens: {FOLDER}/broker.log")

    def _listens(self) -> bool:
        if self.process.poll() is not None:
            with open(f"{FOLDER}/broker.log", encoding="utf-8", errors="replace") as file:
                raise FleetError(f"mosquitto ended:\n{file.read()}")
        with contextlib.suppress(OSError), socket.create_connection((BROKER, PORT), 1):
            return True
        return False

    def kill(self) -> None:
        self.process.kill()
        self.process.wait()


class Operator:
    """Asks, notes the answers, and looks who is online."""

    def __init__(self) -> None:
        from paho.mqtt import client as paho
        from paho.mqtt.packettypes import PacketTypes
        from paho.mqtt.properties import Properties

        self._properties = lambda: Properties(PacketTypes.PUBLISH)
        self.answers: dict[str, list[tuple[str, str, str]]] = {}
        self.online: dict[str, bool] = {}
        self.since: dict[str, float] = {}
        self.connected = threading.Event()
        self._client = paho.Client("operator", protocol=paho.MQTTv5)
        self._client.tls_set(f"{FOLDER}/ca.crt", f"{FOLDER}/operator.crt", f"{FOLDER}/operator.key")
        self._client.reconnect_delay_set(1, 1)
        self._client.on_connect = lambda client, *_: client.subscribe([("tess/answer/operator", 1), ("tess/+/status", 1)])
        self._client.on_subscribe = lambda *_: self.connected.set()
        self._client.on_disconnect = lambda *_: self.connected.clear()
        self._client.on_message = self._take
        self._client.connect(BROKER, PORT)
        self._client.loop_start()
        if not self.connected.wait(PATIENCE):
            raise FleetError("the operator cannot reach the broker")

    def _take(self, _client: object, _data: object, message: object) -> None:
        if message.topic.endswith("/status"):
            device = message.topic.split("/")[1]
            self.online[device] = json.loads(message.payload)["status"] == "online"
            self.since[device] = time.monotonic()
            return
        user = dict(message.properties.UserProperty)
        name = message.properties.CorrelationData.decode()
        self.answers.setdefault(name, []).append((user["device"], user["status"], message.payload.decode()))

    def send(self, topic: str, line: str, name: str, expiry: int = 20) -> None:
        properties = self._properties()
        properties.ResponseTopic = "tess/answer/operator"
        properties.CorrelationData = name.encode()
        properties.MessageExpiryInterval = expiry
        self._client.publish(topic, line, 1, False, properties)

    def close(self) -> None:
        self._client.disconnect()
        self._client.loop_stop()


class Fleet:
    def __init__(self, count: int, bin_folder: str, counts: bool) -> None:
        os.makedirs(FOLDER)
        os.chmod(FOLDER, 0o755)
        self.bin_folder = bin_folder
        run("ip", "link", "add", "br0", "type", "bridge")
        run("ip", "address", "add", f"{BROKER}/16", "dev", "br0")
        run("ip", "link", "set", "br0", "up")
        make_certificates([f"d{number}" for number in range(1, count + 1)])
        program = shutil.which("mosquitto", path=os.environ["PATH"] + ":/usr/sbin")
        if program is None:
            raise FleetError("there is no mosquitto")
        with open(f"{FOLDER}/operator.conf", "w", encoding="ascii") as file:
            file.write(reach("operator"))
        self.broker = Broker(program)
        self.devices = [Device(number, bin_folder, f"g{number % 2}", counts) for number in range(1, count + 1)]
        for device in self.devices:
            device.wait_ready()

    def stop(self) -> None:
        for device in self.devices:
            device.stop()
        self.broker.kill()

    def load(self, *words: str) -> dict:
        return json.loads(run(os.path.join(self.bin_folder, "mqtt-load"), *words))


# Showing


def shown(words: list[str]) -> str:
    """As one would type it, in several lines where it is long."""
    line = " ".join(f"'{word}'" if set(word) & set(" *|$") else word for word in words)
    return line if len(line) < 90 else re.sub(r" (?=(--cafile|-e|-t) )", " \\\n      ", line)


def show(title: str, *command: str) -> None:
    print(f"\n{title}\n  $ {shown([*command])}", flush=True)
    done = subprocess.run([*command], text=True, capture_output=True, check=False)
    print("".join(f"  {line}\n" for line in (done.stdout + done.stderr).splitlines()), end="", flush=True)
    if done.returncode != 0:
        raise FleetError(f"status {done.returncode}")


def make_rr() -> str:
    """mosquitto_rr, with other correlation data each time."""
    rr = f"{FOLDER}/rr"
    with open(rr, "w", encoding="ascii") as file:
        answer = "-e tess/answer/$$ -D publish correlation-data $$-$(date +%N) -F '%P | %p' -W 10"
        file.write(f'#!/bin/sh\nexec mosquitto_rr {" ".join(TLS_OPTIONS)} {answer} -t "$1" -m "$2"\n')
    os.chmod(rr, 0o755)
    return rr


def demo(fleet: Fleet) -> None:
    os.environ["TESS_FLEET"] = f"{FOLDER}/operator.conf"
    os.environ["PATH"] = f"{fleet.bin_folder}:{os.environ['PATH']}"
    rr = make_rr()
    count = len(fleet.devices)
    wait_until(lambda: run_status() == count, "all devices are online")
    print(f"{count} devices are online at a mosquitto with TLS, each in namespaces of its own.")
    show(
        "A command over the broker, by mosquitto_rr, which knows nothing of us:",
        *("mosquitto_rr", *TLS_OPTIONS, "-e", "tess/answer/me", "-D", "publish", "correlation-data", "1", "-F", "%P | %p"),
        *("-W", "10", "-t", "tess/d1/command", "-m", "s3.ENC SETX 5"),
    )
    print(f"\n{rr} is that, with other correlation data each time; what comes back is status, time, device | answer.")
    show("What the command has set:", rr, "tess/d1/command", "s3.ENC GETX")
    show("Somebody who is not there:", rr, "tess/d1/command", "s3.NOBODY GETX")
    show("Who is there:", "tessctl", "fleet", "status")
    show("A command to all of them:", "tessctl", "fleet", "send", "s3.ENC GETX", "--all")
    print("\nTry more, in the shell that scripts/fleet opens when it has a terminal:")
    for command, why in TRIES:
        print(f"    {command:44} {why}", flush=True)
    if os.isatty(0):
        os.environ["TLS"] = " ".join(TLS_OPTIONS)
        with open(f"{FOLDER}/bashrc", "w", encoding="ascii") as file:
            file.write("PS1='fleet$ '\n")
        subprocess.run(["bash", "--rcfile", f"{FOLDER}/bashrc", "-i"], check=False)


def run_status() -> int:
    done = subprocess.run(["tessctl", "fleet", "status", "--json"], text=True, capture_output=True, check=False)
    with contextlib.suppress(json.JSONDecodeError):
        return sum(state["status"] == "online" and "ENC" in state["names"] for state in json.loads(done.stdout))
    return 0


# Measuring


def measure(fleet: Fleet, results: dict) -> None:
    conf = f"{FOLDER}/operator.conf"
    first = fleet.devices[0]
    load = os.path.join(fleet.bin_folder, "mqtt-load")
    echo = subprocess.Popen([load, "echo", conf, "tess/echo"], stdout=subprocess.PIPE, text=True)
    echo.stdout.readline()
    for window in (1, 16):
        times = 2000 if window == 1 else 10000
        direct = json.loads(first.run(load, "xcp", "s3.ENC GETX", str(times), str(min(window, 8))))
        before = first.network_bytes()
        bridge = fleet.load("ask", conf, "tess/d1/command", "s3.ENC GETX", str(times), str(window), "1")
        bridge["network_bytes"] = (first.network_bytes() - before) / times
        plain = fleet.load("ask", conf, "tess/echo", "s3.ENC GETX", str(times), str(window), "1")
        results[f"window_{window}"] = {"tessd": direct, "bridge": bridge, "echo": plain}
        for name, got in (("tessd alone", direct), ("through the bridge", bridge), ("plain MQTT echo", plain)):
            print(
                f"  {name:20} {window:2} at a time: {got['per_second']:8.0f} a second, median {got['median_ms']:.2f} ms,"
                f" 99 % within {got['p99_ms']:.1f} ms",
                flush=True,
            )
    print(f"  a request and its answer: {results['window_1']['bridge']['network_bytes']:.0f} bytes on the device's cable")
    echo.kill()
    echo.wait()
    count = len(fleet.devices)
    before = broker_seconds(fleet)
    several = [fleet.load("ask", conf, "tess/all/command", "s3.ENC GETX", "1", "1", str(count)) for _ in range(10)]
    each_us = (broker_seconds(fleet) - before) / len(several) / count * 1e6
    took = [each["median_ms"] for each in several]
    results["all"] = {"devices": count, "median_ms": statistics.median(took), "most_ms": max(took), "broker_us_a_device": each_us}
    print(
        f"  one publish to all {count}: all answered after {statistics.median(took):.0f} ms (10 times, most {max(took):.0f} ms)"
    )


def measure_cost(fleet: Fleet, results: dict) -> None:
    """What a device costs that nobody asks."""
    seconds = 60.0  # so that each has published its metrics once
    devices = fleet.devices[:10]
    bytes_before = [device.network_bytes() for device in devices]
    before = [device.processor() for device in devices]
    broker_before = broker_seconds(fleet)
    time.sleep(seconds)
    after = [device.processor() for device in devices]
    passed = statistics.median(device.network_bytes() - before for device, before in zip(devices, bytes_before)) / seconds
    used = statistics.median((b["bridge"] - a["bridge"]) / seconds for a, b in zip(before, after))
    broker_used = (broker_seconds(fleet) - broker_before) / seconds / len(fleet.devices)
    memory = [device.memory()["bridge"] for device in devices]
    cost = {key: statistics.median(each[key] for each in memory) for key in memory[0]}
    with open(f"/proc/{fleet.broker.process.pid}/smaps_rollup", encoding="ascii") as file:
        broker_kib = next(int(line.split()[1]) for line in file if line.startswith("Pss:"))
    results["cost"] = {
        "bridge_processor": used,
        "broker_processor": broker_used,
        "network_bytes": passed,
        "bridge_kib": cost,
        "broker_kib": broker_kib / len(fleet.devices),
    }
    print(
        f"  an idle bridge: {used * 1e6:.0f} us of processor time a second, {cost['Rss']} KiB resident,"
        f" {cost['Private_Dirty']} KiB of its own, {passed:.0f} bytes a second on its cable"
    )
    print(f"  the broker, for each idle device: {broker_used * 1e6:.0f} us a second, {broker_kib / len(fleet.devices):.0f} KiB")


def broker_seconds(fleet: Fleet) -> float:
    with open(f"/proc/{fleet.broker.process.pid}/schedstat", encoding="ascii") as file:
        return int(file.read().split()[0]) / 1e9


# Breaking


class Asking:
    """Asks devices at random, on and on."""

    def __init__(self, fleet: Fleet, operator: Operator, seed: int) -> None:
        self.sent: dict[str, str] = {}
        self._fleet, self._operator = fleet, operator
        self._dice = random.Random(seed)
        self._end = threading.Event()
        self._thread = threading.Thread(target=self._run)
        self._thread.start()

    def _run(self) -> None:
        while not self._end.wait(0.02):
            device = self._dice.choice(self._fleet.devices)
            name = f"n{len(self.sent)}"
            self.sent[name] = device.name
            for _ in range(self._dice.choice([1, 1, 1, 2])):  # some twice, with the same data
                self._operator.send(f"tess/{device.name}/command", f"s3.COUNT {name}", name)

    def stop(self) -> None:
        self._end.set()
        self._thread.join()


def answering(operator: Operator, devices: list[Device], what: str) -> list[Device]:
    """Those of them that answer now; all are asked at once."""
    names = {device: f"look-{what}-{device.name}" for device in devices}
    for device, name in names.items():
        operator.send(f"tess/{device.name}/command", "*", name, 2)

    def answered(device: Device) -> bool:
        return any(status == "answered" for _, status, _ in operator.answers.get(names[device], []))

    end = time.monotonic() + 0.5
    while time.monotonic() < end and not all(map(answered, devices)):
        time.sleep(0.01)
    return [device for device in devices if answered(device)]


def time_until_online(operator: Operator, devices: list[Device], what: str) -> float:
    """From now until each of them has answered."""
    start = time.monotonic()
    left = list(devices)
    for attempt in itertools.count():
        there = answering(operator, left, f"{what}{attempt}")
        left = [device for device in left if device not in there]
        if not left:
            return time.monotonic() - start
        if time.monotonic() - start > PATIENCE:
            raise FleetError(f"after it was {what}: {[device.name for device in left]} do not answer")


def break_things(fleet: Fleet, results: dict, dice: random.Random) -> list[str]:
    operator = Operator()
    count = len(fleet.devices)
    wait_until(lambda: sum(operator.online.values()) == count, "all devices are online")
    asking = Asking(fleet, operator, 4711)
    took: dict[str, float] = {}

    time.sleep(3)
    fleet.broker.kill()
    time.sleep(3)
    operator.online.clear()
    fleet.broker.start()
    took["broker killed"] = wait_until(lambda: sum(operator.online.values()) == count, "all are online again")
    results["broker_ms_a_connection"] = broker_seconds(fleet) / count * 1e3

    time.sleep(2)
    some = dice.sample(fleet.devices, max(1, count // 5))
    for device in some:
        device.kill("bridge")
    wait_until(lambda: not any(operator.online[device.name] for device in some), "the will of killed bridges is published")
    for device in some:
        device.start("bridge")
    took["bridges killed"] = wait_until(lambda: all(operator.online[each.name] for each in some), "they are online again")

    time.sleep(2)
    some = dice.sample(fleet.devices, max(1, count // 5))
    for device in some:
        device.cut()
    time.sleep(20)
    for device in some:
        device.mend()
    took["network cut"] = time_until_online(operator, some, "cut")

    some = dice.sample(fleet.devices, max(1, count // 5))
    for device in some:
        device.kill("tessd")
    time.sleep(1)
    for device in some:
        device.start("tessd")
    took["tessd killed"] = time_until_online(operator, some, "killed")

    asking.stop()
    time.sleep(8)  # what is under way has its answer, or none
    operator.close()
    results["online_again_s"] = took
    print(f"  each connection costs the broker {results['broker_ms_a_connection']:.1f} ms of processor time")
    for what, seconds in took.items():
        print(f"  {what:15} all online again after {seconds:.1f} s")
    return judge(fleet, operator, asking, took, results)


def judge(fleet: Fleet, operator: Operator, asking: Asking, took: dict[str, float], results: dict) -> list[str]:
    """What was promised and not kept."""
    wrong = [f"{what}: {seconds:.1f} s" for what, seconds in took.items() if seconds > ONLINE_WITHIN]
    executed: dict[str, int] = {}
    for device in fleet.devices:
        for name in device.executed():
            executed[name] = executed.get(name, 0) + 1
            if asking.sent.get(name) != device.name:
                wrong.append(f"{name} was carried out by {device.name}, and was for {asking.sent.get(name)}")
    wrong += [f"{name} was carried out {times} times" for name, times in executed.items() if times > 1]
    statuses: dict[str, int] = {}
    for name in asking.sent:
        got = {(status, text) for _, status, text in operator.answers.get(name, [])}
        for status in {status for status, _ in got} or {"none"}:
            statuses[status] = statuses.get(status, 0) + 1
        if any(status == "answered" for status, _ in got):
            if ("answered", f"done {name}") not in got or name not in executed:
                wrong.append(f"{name} was reported answered, and was not: {got}")
        if any(status == "busy" for status, _ in got) and name in executed and len(got) == 1:
            wrong.append(f"{name} was reported busy, and was carried out")
    results["requests"] = {"sent": len(asking.sent), "executed": len(executed), "answers": statuses}
    print(f"  {len(asking.sent)} requests, {len(executed)} carried out, none twice: {statuses}" if not wrong else "  WRONG")
    return wrong


def test(fleet: Fleet, results: dict) -> None:
    operator = Operator()
    took = wait_until(lambda: sum(operator.online.values()) == len(fleet.devices), "all devices are online")
    operator.close()
    print(f"{len(fleet.devices)} devices are online ({took:.1f} s after the last was started).\n\nMeasured:", flush=True)
    time.sleep(15)  # the early looks at tessd's state are over
    measure(fleet, results)
    measure_cost(fleet, results)
    print("\nBroken, while 50 requests a second go to devices at random:", flush=True)
    wrong = break_things(fleet, results, random.Random(1))
    if wrong:
        raise FleetError("\n".join(wrong[:20]))


def inside(options: argparse.Namespace) -> int:
    fleet = None
    results: dict = {"devices": options.count}
    try:
        print(f"Starting a broker with TLS, and {options.count} devices ...", flush=True)
        fleet = Fleet(options.count, os.path.abspath(options.bin_folder), options.test)
        if options.test:
            test(fleet, results)
        else:
            demo(fleet)
        return 0
    except FleetError as error:
        print(f"fleet: {error}", file=sys.stderr)
        return 1
    finally:
        if options.json:
            with open(options.json, "w", encoding="ascii") as file:
                json.dump(results, file, indent=2)
        if fleet is not None:
            fleet.stop()


def main() -> int:
    parser = argparse.ArgumentParser(description="Devices with bridges and a broker, on one machine.")
    parser.add_argument("bin_folder", metavar="BIN-FOLDER")
    parser.add_argument("count", type=int, metavar="N", help="how many devices, 1 to 1000")
    parser.add_argument("--test", action="store_true", help="measure, break, and judge")
    parser.add_argument("--json", metavar="FILE", help="write what was measured")
    options = parser.parse_args()
    if not 1 <= options.count <= 1000:
        parser.error("N is 1 to 1000")
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # what runs inside decides
    try:
        return device_ns.run_in_device(lambda: inside(options), hostname="broker", keep=[os.path.abspath(options.bin_folder)])
    except device_ns.DeviceError as error:
        print(f"fleet: {error}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
