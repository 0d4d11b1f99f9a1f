#!/usr/bin/python3
"""Wraps the prose of C++ comments and of Markdown at 100 columns, which clang-format cannot do without breaking tables.

    tools/prose.py [--check] FILE...

Only a paragraph with a line that is too long is wrapped anew. A paragraph ends where a list item, a command of the
documentation ("@return") or a "Threads:" begins; what is indented by itself, code, tables and headings stay as they are.
With --check nothing is written: names what would change and ends with status 1.
"""

from __future__ import annotations

import re
import sys
import textwrap

WIDTH = 100
ITEM = re.compile(r"[-*] |\d+\. |@return |@param \S+ +|@throws? |(?=Threads: )")
COMMENT = re.compile(r"( *)(///?)( ?)(.*)")
MARKDOWN_ASIDE = re.compile(r"[#|<]|\[[^\]]*\]: ")  # a heading, a table, HTML, a link's address


def indent_of(text: str) -> int:
    return len(text) - len(text.lstrip())


def is_continuation(text: str, item_indent: int) -> bool:
    return bool(text.strip()) and not ITEM.match(text.lstrip()) and (item_indent > 0) == (indent_of(text) > 0)


def wrapped(lines: list[str], width: int) -> list[str]:
    """The lines of one comment or of a piece of Markdown without their markers, wrapped where one is too long."""
    result: list[str] = []
    at = 0
    while at < len(lines):
        item = ITEM.match(lines[at].lstrip())
        is_text = bool(lines[at].strip()) and (item is not None or indent_of(lines[at]) == 0)
        paragraph = [lines[at]]
        at += 1
        item_indent = indent_of(paragraph[0]) + len(item[0]) if item else 0
        while is_text and at < len(lines) and is_continuation(lines[at], item_indent):
            paragraph.append(lines[at])
            at += 1
        if is_text and any(len(line) > width for line in paragraph):
            behind = indent_of(paragraph[1]) if len(paragraph) > 1 else item_indent
            start = " " * indent_of(paragraph[0])
            head = item[0] if item else ""  # keeps the blanks that align it
            body = " ".join(" ".join(line.split()) for line in [paragraph[0].lstrip()[len(head) :], *paragraph[1:]])
            paragraph = textwrap.wrap(
                body,
                width,
                initial_indent=start + head,
                subsequent_indent=" " * behind,
                break_long_words=False,
                break_on_hyphens=False,
            )
        result += paragraph
    return result


def comments(lines: list[str]) -> list[str]:
    result: list[str] = []
    at = 0
    while at < len(lines):
        first = COMMENT.fullmatch(lines[at])
        if not first:
            result.append(lines[at])
            at += 1
            continue
        marker = first[1] + first[2]
        block = []
        while at < len(lines) and (match := COMMENT.fullmatch(lines[at])) and match[1] + match[2] == marker:
            block.append(match[4])
            at += 1
        result += [f"{marker} {line}".rstrip() for line in wrapped(block, WIDTH - len(marker) - 1)]
    return result


def markdown(lines: list[str]) -> list[str]:
    result: list[str] = []
    piece: list[str] = []
    in_code = False
    for line in lines:
        fence = line.lstrip().startswith("```")
        if fence or in_code or MARKDOWN_ASIDE.match(line):
            result += [*wrapped(piece, WIDTH), line]
            piece = []
            in_code ^= fence
        else:
            piece.append(line)
    return result + wrapped(piece, WIDTH)


def main(arguments: list[str]) -> int:
    check = "--check" in arguments
    status = 0
    for name in [argument for argument in arguments if argument != "--check"]:
        with open(name, encoding="utf-8") as file:
            text = file.read()
        lines = text.split("\n")
        fresh = "\n".join(markdown(lines) if name.endswith(".md") else comments(lines))
        if fresh == text:
            continue
        if check:
            status = 1
            print(f"{name}: prose is not wrapped at {WIDTH} columns: tools/prose.py {name}")
        else:
            with open(name, "w", encoding="utf-8") as file:
                file.write(fresh)
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
