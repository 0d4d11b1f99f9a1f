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


def without_code(text: str) -> str:
    return re.sub(r"^```.*?^```$", "", text, flags=re.DOTALL | re.MULTILINE)


def test_links_lead_to_files():
    for document in [
        "README.md",
        *(f"docs/{name}" for name in os.listdir(os.path.join(PROJECT, "docs")) if name.endswith(".md")),
    ]:
        folder = os.path.dirname(os.path.join(PROJECT, document))
        for link in re.findall(r"\]\(([^)#]+)\)", without_code(read(document))):
            assert os.path.exists(os.path.join(folder, link)), f"{document}: {link}"


def test_the_layout_has_the_files_that_are_named():
    named = set()
    for document in ("README.md", "docs/architecture.md", "docs/processes.md"):
        named |= set(
            re.findall(
                r"`((?:framework|connections|ports|commands|daemon|examples|scripts|tests|tools)/[\w./]*)`", read(document)
            )
        )
    assert len(named) > 20, named
    missing = sorted(path for path in named if not os.path.exists(os.path.join(PROJECT, path)))
    assert not missing, missing


MOST_COLUMNS = 100


def prose_lines(document: str) -> list[tuple[int, str]]:
    """Number and text of each line that is neither code nor part of a table."""
    lines, code = [], False
    for number, line in enumerate(read(document).splitlines(), 1):
        code = code != line.startswith("```")
        if not code and not line.startswith(("```", "|", "    ")):
            lines.append((number, line))
    return lines


def test_no_line_of_prose_is_wider_than_a_window():
    documents = ["README.md", *(f"docs/{name}" for name in os.listdir(os.path.join(PROJECT, "docs")) if name.endswith(".md"))]
    assert len(documents) > 5, documents
    wide = [
        f"{document}:{number}: {len(line)} columns"
        for document in sorted(documents)
        for number, line in prose_lines(document)
        if len(line) > MOST_COLUMNS
    ]
    assert not wide, "\n".join([f"above {MOST_COLUMNS}:", *wide])


def test_no_line_of_a_manual_page_is_wider_than_a_window():
    pages = glob.glob(f"{PROJECT}/docs/man/*.[1-8]")
    assert len(pages) >= 3, pages
    wide = [
        f"{page}:{number}" for page in pages for number, line in enumerate(read(page).splitlines(), 1) if len(line) > MOST_COLUMNS
    ]
    assert not wide, wide
