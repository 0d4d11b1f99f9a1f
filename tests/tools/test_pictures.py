"""The pictures of the README: what a terminal shows becomes an SVG, and the README has those that there are."""

import os
import re
import sys
import xml.etree.ElementTree

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
sys.path.insert(0, f"{PROJECT}/tools")

from screen import COLOURS, PLAIN, Screen  # noqa: E402

SVG = "{http://www.w3.org/2000/svg}"


def shown(written: bytes, columns: int = 10, rows: int = 3) -> list[str]:
    screen = Screen(columns, rows)
    screen.write(written)
    return screen.lines


def test_a_screen_shows_what_was_written_last():
    cases = {
        b"one\r\ntwo": ["one", "two"],
        b"one\r\ntwo\r\nthree\r\nfour": ["two", "three", "four"],
        b"0123456789ab": ["0123456789", "ab"],
        b"longer\rnew": ["newger"],
        b"longer\r\nrest\x1b[Hnew\x1b[K": ["new", "rest"],
        b"longer\r\nrest\x1b[Hnew\x1b[K\x1b[J": ["new"],
        b"\x1b[?1049h\x1b[?25l\x1b[1;31mred\x1b[0m": ["red"],
        b"\x1b[1;3r\x1b(B\x1b[m\x1b=\x0fplain": ["plain"],
        b"one\x1b[3;4Hthree\x1b[2;2Htwo": ["one", " two", "   three"],
        b"0\x1b[2d1\x1b[6Gab\x1b[Aup\x1b[B\x1b[6D-\x1b[2C+": ["0      up", " 1 - a+"],
        b"longer\x1b[1;4H\x1b[1K": ["    er"],
        b"longer\r\nrest\x1b[1;3H\x1b[2J": [],
        b"longer\x1b[1;2H\x1b[2X": ["l  ger"],
        b"longer\x1b[1;2H\x1b[2P": ["lger"],
        b"longer\x1b[1;2H\x1b[2@": ["l  onger"],
        b"ab\x1b[3b\b\bc": ["abbcb"],
    }
    assert {written: shown(written) for written in cases} == cases


def test_a_picture_has_the_texts_with_their_colours():
    screen = Screen(20, 5)
    screen.write(b"a \x1b[31mred\x1b[0m <b> & \x1b[1mc\x1b[0m\r\n\r\nlast")
    picture = xml.etree.ElementTree.fromstring(screen.svg("what & why"))
    texts = [(text.get("fill"), text.get("font-weight"), text.text) for text in picture.iter(f"{SVG}text")]
    assert texts == [
        (PLAIN, None, "a"),
        (COLOURS[31], None, "red"),
        (PLAIN, None, " <b> &"),
        (PLAIN, "bold", "c"),
        (PLAIN, None, "last"),
    ]
    assert [text.get("y") for text in picture.iter(f"{SVG}text")] == ["25"] * 4 + ["61"]
    assert picture.find(f"{SVG}title").text == "what & why"


def test_the_readme_shows_the_pictures_that_there_are():
    with open(f"{PROJECT}/README.md", encoding="utf-8") as file:
        named = re.findall(r"!\[[^\]]+\]\(docs/pictures/([^)]+)\)", file.read())
    assert sorted(named) == sorted(os.listdir(f"{PROJECT}/docs/pictures")) == ["top.svg", "watch.svg"]
    for name, word in (("top.svg", "Processes: 3"), ("watch.svg", "refuse")):
        picture = xml.etree.ElementTree.parse(f"{PROJECT}/docs/pictures/{name}")
        assert any(word in (text.text or "") for text in picture.iter(f"{SVG}text")), name
