"""All of it together, inside namespaces that look like the device."""

from __future__ import annotations

import contextlib
import resource
from collections.abc import Callable

from harness import accounts, com2, proc
from harness.clients import Client, IpcClient, XcpClient
from harness.com2 import SerialLine
from harness.daemon import Daemon
from harness.queue_process import AnsweringProcess
from harness.telnet import LIMIT_REACHED, TelnetClient
from soak import rude, well
from soak.delays import Delays
from soak.mortal import mortals
from soak.serial import Terminal
from soak.speech import PATIENCE, answer_to, arrive, ipc, linemode_telnet, plain_telnet, xcp
from soak.stage import Crew, Stage
from soak.watch import Watch, heap_counter

LONGEST_WARM_UP = 60.0  # seconds


def _talkers(tessd: Daemon) -> dict[str, list]:
    """The crews of those who keep to the rules."""

    def maker(kind: type, name: str, *how: object) -> Callable[[Stage], well.Actor]:
        return lambda stage: kind(stage, name, *how)

    return {
        "witnesses": [
            maker(well.Witness, "witness-ipc", ipc, tessd),
            maker(well.Witness, "witness-xcp", xcp, tessd),
            maker(well.Witness, "witness-telnet", plain_telnet, tessd),
        ],
        "talkers": [
            maker(well.Talker, "ipc", ipc),
            maker(well.Talker, "xcp", xcp),
            maker(well.Talker, "telnet", plain_telnet),
            maker(well.Talker, "linemode", linemode_telnet),
            maker(well.AsksForNobody, "nobody-xcp", xcp),
            maker(well.Caller, "caller-ipc", ipc),
        ],
        "visitors": [
            maker(well.Visitor, "ipc-visitor", ipc),
            maker(well.Visitor, "xcp-visitor", xcp),
            maker(well.Visitor, "telnet-visitor", plain_telnet),
            maker(well.Visitor, "telnet-linemode-visitor", linemode_telnet),
        ],
    }


def soak(launch: Callable[..., Daemon], seconds: float, seed: int) -> dict:
    """Everybody acts for so long. Returns the facts; report.trouble() judges them.

    launch  starts a daemon as Daemon() does"""
    accounts.install()
    heap = heap_counter()
    with contextlib.ExitStack() as stack:
        line = stack.enter_context(SerialLine())
        tessd = launch(environment=heap.environment if heap else {}).wait_running()
        tessd.wait_log(*com2.opened(1))
        stack.enter_context(AnsweringProcess(2001, well.HEALTHY, lambda command: answer_to(command) + b"\r\n"))
        stage = Stage(seed)
        makers = _talkers(tessd) | {
            "mortals": mortals(),
            "delays": [Delays],
            "serial": [lambda stage: Terminal(stage, line)],
            "rude": rude.rude_ones(),
        }
        crews = [Crew(stage, name, members) for name, members in makers.items()]
        facts = _direct(tessd, stage, crews, Watch(tessd, stage, heap), seconds)
        facts |= {"seed": seed, "actors": _told(crews)}
        facts["processor seconds of the soak"] = round(_own_processor_seconds(), 1)
        facts["end"] = _end(tessd)
    return facts


def _direct(tessd: Daemon, stage: Stage, crews: list[Crew], watch: Watch, seconds: float) -> dict:
    """Has everybody act to warm up, rest, act, rest and end."""
    everybody = sum(crew.size for crew in crews)
    warm_up = min(LONGEST_WARM_UP, seconds / 4)
    facts: dict = {"seconds": seconds, "warm-up seconds": warm_up}
    try:
        stage.rest(everybody)
        stage.act()
        whole = watch.look_for(warm_up)
        stage.rest(everybody)
        first, passwords = watch.at_rest(), stage.passwords
        used = proc.cpu_seconds(tessd.pid)
        began = stage.seconds()
        stage.act()
        whole = whole and watch.look_for(seconds - warm_up)
        facts["processor seconds"] = round(proc.cpu_seconds(tessd.pid) - used, 2)
        facts["acted seconds"] = round(stage.seconds() - began, 1)
        stage.rest(everybody)
        facts |= {"first rest": first, "last rest": watch.at_rest(), "whole": whole}
        facts["passwords between the rests"] = stage.passwords - passwords
    except (AssertionError, OSError) as error:
        facts |= {"whole": False, "broken": repr(error)}
    stage.end()
    return facts | {"watch": watch.samples}


def _told(crews: list[Crew]) -> dict[str, dict]:
    told: dict[str, dict] = {}
    for crew in crews:
        told |= crew.join()
    return told


def _own_processor_seconds() -> float:
    used = [resource.getrusage(who) for who in (resource.RUSAGE_SELF, resource.RUSAGE_CHILDREN)]
    return sum(usage.ru_utime + usage.ru_stime for usage in used)


def _end(tessd: Daemon) -> dict:
    """Whether ten clients fit each port, and no eleventh; and how the daemon ends with all of them there."""
    with contextlib.ExitStack() as stack:
        try:
            for kind in (IpcClient, XcpClient, TelnetClient):
                _fill(stack, kind)
            places = "ten clients fit each port, and no eleventh"
        except (AssertionError, OSError) as error:
            places = f"places: {error!r}"
        return {"places": places, "status": _status(tessd), "reports": _reports(tessd), "log lines": len(tessd.entries())}


def _fill(stack: contextlib.ExitStack, kind: type[Client]) -> None:
    clients = [stack.enter_context(arrive(kind)) for _ in range(rude.PLACES)]
    for client in clients:
        if isinstance(client, TelnetClient):
            client.log_in(within=PATIENCE)
        client.expect_nothing_more()
    one_more = stack.enter_context(arrive(kind))
    if kind is TelnetClient:
        one_more.expect(LIMIT_REACHED)
    one_more.expect_close()


def _status(tessd: Daemon) -> int | str:
    try:
        if not tessd.ended():
            tessd.signal(15)
        return tessd.wait_end(30)
    except AssertionError as error:
        return str(error)


def _reports(tessd: Daemon) -> list[str]:
    """What a sanitizer, or anybody else but the log, has written."""
    try:
        tessd.expect_no_trouble()
        return []
    except AssertionError as error:
        return str(error).splitlines()[:200]
