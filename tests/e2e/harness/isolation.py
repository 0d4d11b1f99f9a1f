"""Runs each test in namespaces of its own, so that /tmp/socket, the queue directory and the host name are real inside
and nobody is disturbed, and ends a test that hangs."""

from __future__ import annotations

import faulthandler
import json
import os
import select
import shutil
import signal
import sys
import tempfile
import time
import traceback

import pytest
from _pytest.runner import runtestprotocol

from harness import settings
from harness.daemon import Daemon

sys.path.insert(0, os.path.join(settings.PROJECT, "tools"))
import device_ns  # noqa: E402

DEADLINE_SECONDS = 60.0
_MOST_LOG = 20000  # characters of one log that a failure shows


def run_isolated(item: pytest.Item, host_name: str) -> list[pytest.TestReport]:
    """Runs set-up, test and clean-up in a child and returns their reports, with the daemon's logs where one failed."""
    marker = item.get_closest_marker("deadline")
    seconds = (marker.args[0] if marker else DEADLINE_SECONDS) * settings.SLOW
    folder = tempfile.mkdtemp(prefix="tessd-e2e-", dir=settings.MEMORY_FOLDER)
    try:
        started = time.monotonic()
        reports, end = _run_child(item, host_name, folder, seconds)
        failure = None
        if end is None:
            failure = f"the test did not end within {seconds:g} s and was killed"
        elif not reports or reports[-1].when != "teardown":
            failure = f"the test's process ended with {end} before the test was over"
        if failure:
            reports.append(_failed_report(item, failure, time.monotonic() - started))
        logs = _logs(folder)
        for report in reports:
            if report.failed:
                report.sections.extend(logs)
        return reports
    finally:
        shutil.rmtree(folder, ignore_errors=True)


def _run_child(item: pytest.Item, host_name: str, folder: str, seconds: float) -> tuple[list, int | None]:
    """The reports that came, and the child's wait status, None when it had to be killed."""
    read_end, write_end = os.pipe()
    sys.stdout.flush()
    sys.stderr.flush()
    child = os.fork()
    if child == 0:
        os.close(read_end)
        _child(item, host_name, folder, write_end, seconds)
    os.close(write_end)
    pidfd = os.pidfd_open(child)
    end = time.monotonic() + seconds
    data = bytearray()
    status = None
    ended = False
    waiting = {read_end, pidfd}
    while waiting and (left := end - time.monotonic()) > 0:
        for ready in select.select(list(waiting), [], [], left)[0]:
            if ready == pidfd:
                waiting = {read_end} & waiting
                ended = True
            else:
                piece = os.read(read_end, 1 << 16)
                data += piece
                if not piece:
                    waiting.discard(read_end)
    if not ended:
        os.kill(child, signal.SIGKILL)  # and with it goes everything inside
    raw = os.waitpid(child, 0)[1]
    if ended:
        status = os.waitstatus_to_exitcode(raw)
    os.close(read_end)
    os.close(pidfd)
    reports = [
        item.config.hook.pytest_report_from_serializable(config=item.config, data=json.loads(line))
        for line in data.split(b"\n")[:-1]
    ]
    return reports, status


def _child(item: pytest.Item, host_name: str, folder: str, pipe: int, seconds: float) -> None:
    """Enters the namespaces and runs the test there. Does not return."""
    status = 70
    try:
        Daemon.artefacts = os.open(folder, os.O_DIRECTORY | os.O_PATH | os.O_CLOEXEC)
        trace = os.open(os.path.join(folder, "test.trace"), os.O_WRONLY | os.O_CREAT | os.O_CLOEXEC, 0o600)

        def inside() -> int:
            faulthandler.dump_traceback_later(max(seconds - 2, seconds / 2), file=trace)
            with open(pipe, "wb", buffering=0) as out:
                for report in runtestprotocol(item, nextitem=None, log=False):
                    data = item.config.hook.pytest_report_to_serializable(config=item.config, report=report)
                    out.write(json.dumps(data).encode() + b"\n")
            return 0

        status = device_ns.run_in_device(inside, hostname=host_name, keep=[settings.BIN_DIR])
    except BaseException:
        with open(os.path.join(folder, "test.error"), "w", encoding="utf-8") as file:
            traceback.print_exc(file=file)
    finally:
        os._exit(status)


def _failed_report(item: pytest.Item, text: str, duration: float) -> pytest.TestReport:
    return pytest.TestReport(
        nodeid=item.nodeid,
        location=item.location,
        keywords={name: 1 for name in item.keywords},
        outcome="failed",
        longrepr=text,
        when="call",
        sections=[],
        duration=duration,
    )


def _logs(folder: str) -> list[tuple[str, str]]:
    logs = []
    for name in sorted(os.listdir(folder)):
        with open(os.path.join(folder, name), encoding="utf-8", errors="replace") as file:
            text = file.read()
        if len(text) > _MOST_LOG:
            text = f"[{len(text) - _MOST_LOG} characters left out]\n" + text[-_MOST_LOG:]
        if text:
            logs.append((name, text))
    return logs
