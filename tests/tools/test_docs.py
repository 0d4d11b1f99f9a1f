"""What the documents name exists."""

import glob
import os
import re

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))


def read(*path: str) -> str:
    with open(os.path.join(PROJECT, *path), encoding="utf-8") as file:
        return file.read()


def behaviour_rows() -> list[tuple[str, str]]:
    rows = re.findall(r"^\| (.+?) \| ([^|]+) \|$", read("docs", "behaviour.md"), re.MULTILINE)
    return [(behaviour, test.strip("`")) for behaviour, test in rows if behaviour not in ("Behaviour", "---")]


def end_to_end_tests() -> set[str]:
    names = set()
    for path in glob.glob(f"{PROJECT}/tests/e2e/test_*.py"):
        stem = os.path.basename(path)[: -len(".py")]
        names |= {f"{stem}::{name}" for name in re.findall(r"^def (test_\w+)", read(path), re.MULTILINE)}
    return names


def unit_tests() -> set[str]:
    names = set()
    for path in glob.glob(f"{PROJECT}/tests/*/*_test.cpp"):
        names |= {f"{suite}.{name}" for suite, name in re.findall(r"^TEST(?:_F|_P)?\((\w+),\s*(\w+)\)", read(path), re.MULTILINE)}
    return names


def test_every_oddity_names_a_test_that_exists():
    rows = behaviour_rows()
    assert len(rows) > 40, f"only {len(rows)} rows were read"
    known = end_to_end_tests() | unit_tests()
    unknown = [f"{behaviour}: {test}" for behaviour, test in rows if test not in known]
    assert not unknown, "\n".join(["no such test:", *unknown])


def test_only_its_own_tests_know_the_inside_of_the_bundled_framework():
    found = [
        os.path.relpath(name, PROJECT)
        for room in ("common", "connections", "ports", "commands", "daemon", "examples", "tools")
        for name in glob.glob(os.path.join(PROJECT, room, "**", "*.*"), recursive=True)
        if name.endswith((".h", ".cpp")) and "framework/bundled/" in read(name)
    ]
    assert not found, found


def test_links_lead_to_files():
    for document in ["README.md", *(f"docs/{name}" for name in os.listdir(os.path.join(PROJECT, "docs")) if name.endswith(".md"))]:
        folder = os.path.dirname(os.path.join(PROJECT, document))
        for link in re.findall(r"\]\(([^)#]+)\)", read(document)):
            assert os.path.exists(os.path.join(folder, link)), f"{document}: {link}"


def test_the_house_has_the_files_that_are_named():
    named = set()
    for document in ("README.md", "docs/architecture.md", "docs/processes.md"):
        named |= set(re.findall(r"`((?:framework|connections|ports|commands|daemon|examples|scripts|tests|tools)/[\w./]*)`", read(document)))
    assert len(named) > 20, named
    missing = sorted(path for path in named if not os.path.exists(os.path.join(PROJECT, path)))
    assert not missing, missing
