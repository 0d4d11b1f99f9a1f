"""What is done as root before each start of the daemon."""

from __future__ import annotations

import grp
import os
import pathlib
import re
import subprocess

import pytest
from conftest import PROJECT

import device_ns  # of tools/

PROGRAM = PROJECT / "packaging/prepare-device"
WANTED = 6291456
WAITS = "settle --timeout=10\n"


def prepare(tmp_path: pathlib.Path, limit: int | None, group: str | None) -> tuple[str, str]:
    """The limit afterwards, and how udevadm was called; `group` is that of the serial line, where there is one."""
    after, calls = tmp_path / "limit", tmp_path / "calls"
    after.write_text("")
    calls.write_text("")
    udevadm = tmp_path / "udevadm"
    udevadm.write_text(f'#!/bin/sh\necho "$@" >>{calls}\n')
    udevadm.chmod(0o755)

    def inside() -> int:
        os.mkdir("/tmp/core")
        file = pathlib.Path("/tmp/core/wmem_max")
        if limit is not None:
            file.write_text(f"{limit}\n")
        device_ns.bind("/tmp/core", "/proc/sys/net/core")
        if group is not None:
            line = pathlib.Path("/tmp/line")
            line.touch()
            os.chown(line, 0, grp.getgrnam(group).gr_gid)
            os.symlink(line, "/dev/ttyS1")
        path = f"{tmp_path}:{os.environ['PATH']}"
        done = subprocess.run([PROGRAM], env={"PATH": path}, text=True, capture_output=True, check=False)
        assert (done.returncode, done.stdout, done.stderr) == (0, "", ""), done
        if limit is not None:
            after.write_text(file.read_text())
        return 0

    assert device_ns.run_in_device(inside, keep=[tmp_path, PROJECT]) == 0
    return after.read_text(), calls.read_text()


@pytest.mark.parametrize(
    ("before", "after"), [(212992, WANTED), (WANTED, WANTED), (WANTED + 1, WANTED + 1), (2**31 - 1, 2**31 - 1)]
)
def test_the_limit_of_send_buffers_is_raised_and_never_lowered(tmp_path, before, after):
    assert prepare(tmp_path, before, None)[0] == f"{after}\n"


def test_a_kernel_that_has_no_such_limit_is_no_reason_to_complain(tmp_path):
    assert prepare(tmp_path, None, None) == ("", "")


@pytest.mark.skipif(os.geteuid() != 0, reason="needs root, to give a file to a group")
@pytest.mark.parametrize(("group", "calls"), [(None, ""), ("root", WAITS), ("dialout", "")])
def test_a_serial_line_that_udev_has_not_seen_yet_is_waited_for(tmp_path, group, calls):
    assert prepare(tmp_path, WANTED, group)[1] == calls


def test_the_unit_runs_it_with_all_rights_and_nothing_else_sets_the_limit(prefix):
    unit = next(prefix.rglob("tessd.service")).read_text()
    (program,) = re.findall(r"^ExecStartPre=-\+(.*/prepare-device)$", unit, re.MULTILINE)
    assert (prefix / "libexec/tess" / os.path.basename(program)).stat().st_mode & 0o111 == 0o111
    assert not list(prefix.rglob("sysctl.d"))
