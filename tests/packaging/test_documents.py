"""The documents as they are installed."""

from __future__ import annotations

import re

import pytest
from conftest import PROJECT


@pytest.mark.parametrize("folder", ["tessd", "libtess-dev"])
def test_what_a_document_refers_to_is_there(prefix, folder):
    documents = list((prefix / "share/doc" / folder).rglob("*.md"))
    assert documents, f"no documents of {folder} are installed"
    links = [
        (document, link)
        for document in documents
        for link in re.findall(r"\]\(([^)#:]+)[^)]*\)", document.read_text(encoding="utf-8"))
    ]
    missing = [f"{document.name}: {link}" for document, link in links if not (document.parent / link).exists()]
    assert missing == []


def test_all_documents_are_installed(prefix):
    written = {path.relative_to(PROJECT / "docs") for path in (PROJECT / "docs").rglob("*") if path.suffix in (".md", ".svg")}
    installed = {path.relative_to(prefix / "share/doc/tessd") for path in (prefix / "share/doc/tessd").rglob("*")}
    assert written - installed == set()
