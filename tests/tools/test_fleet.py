"""docs/fleet.md: its tests exist, it has every line of the bridge's log, and its picture is the one that is drawn."""

import os
import re
import subprocess
import sys

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
sys.path.insert(0, os.path.dirname(os.path.realpath(__file__)))

from log_calls import VARIES, Reader  # noqa: E402


def read(path: str) -> str:
    with open(f"{PROJECT}/{path}", encoding="utf-8") as file:
        return file.read()


def test_every_outcome_names_a_test_that_exists():
    named = re.findall(r"`(test_\w+)::(test_\w+)`", read("docs/fleet.md"))
    assert len(named) > 15, named
    missing = [name for file, name in named if f"def {name}(" not in read(f"tests/e2e/{file}.py")]
    assert not missing, missing


def test_every_line_of_the_bridges_log_is_explained():
    rows = re.findall(r"^\| (55\d+) \| `([^`\n]+)` \|", read("docs/fleet.md"), re.MULTILINE)
    listed = {(int(number), re.sub(r"<[a-z ]+>", VARIES, text)) for number, text in rows}
    logged = {line for line in Reader(["framework", "tools/tess-mqtt"]).lines() if 55000 <= line[0] < 56000}
    assert len(logged) > 10, logged
    assert listed == logged, listed ^ logged


def test_the_picture_is_the_one_that_is_drawn(tmp_path):
    subprocess.run([f"{PROJECT}/tools/fleet_picture.py", tmp_path / "fleet.svg"], check=True)
    assert (tmp_path / "fleet.svg").read_text(encoding="ascii") == read("docs/fleet/fleet.svg")


def test_the_page_shows_the_rights_that_are_tried():
    acl = re.search(r'ACL = """\\\n(.*?)"""', read("tools/fleet.py"), re.DOTALL)[1]
    page = read("docs/fleet.md")
    assert all(f"      {line}\n" in page for line in acl.splitlines() if line), acl
