"""What a program has written to a terminal, as it stands there: rows of characters with their colours; and as an SVG.

Knows what tessctl writes to the terminals xterm and vt100: the cursor's ways, clearing, inserting and deleting characters,
colours and bold. Any other sequence is passed over."""

from __future__ import annotations

import dataclasses
import itertools
import re
from xml.sax.saxutils import escape

COLOURS = {
    31: "#f7768e",
    32: "#9ece6a",
    33: "#e0af68",
    34: "#7aa2f7",
    35: "#bb9af7",
    36: "#7dcfff",
}
PLAIN, BACKGROUND = "#c0caf5", "#1a1b26"
CELL_WIDTH, CELL_HEIGHT, MARGIN = 8, 18, 12

_PIECE = re.compile(r"\x1b\[(\?)?([0-9;]*)([A-Za-z@])|\x1b[()].|\x1b[=>78]|.", re.DOTALL)


@dataclasses.dataclass(frozen=True)
class Look:
    colour: str = PLAIN
    bold: bool = False


class Screen:
    def __init__(self, columns: int, rows: int) -> None:
        self._columns = columns
        self._cells = [self._blank() for _ in range(rows)]
        self._row = self._column = 0
        self._look = Look()
        self._last = " "  # character written

    def _blank(self) -> list[tuple[str, Look]]:
        return [(" ", Look())] * self._columns

    def write(self, shown: bytes) -> None:
        for match in _PIECE.finditer(shown.decode()):
            if match[3]:
                if not match[1]:
                    self._obey(match[3], [int(number or 0) for number in match[2].split(";")])
            elif match[0] == "\r":
                self._column = 0
            elif match[0] == "\n":
                self._next_row()
            elif match[0] == "\b":
                self._column = max(self._column - 1, 0)
            elif match[0].isprintable():
                self._put(match[0])

    def _put(self, character: str) -> None:
        if self._column == self._columns:
            self._next_row()
            self._column = 0
        self._cells[self._row][self._column] = (character, self._look)
        self._column += 1
        self._last = character

    def _next_row(self) -> None:
        self._row += 1
        if self._row == len(self._cells):
            self._cells = [*self._cells[1:], self._blank()]
            self._row -= 1

    def _obey(self, letter: str, numbers: list[int]) -> None:
        first = max(numbers[0], 1)
        if letter == "m":
            self._paint(numbers)
        elif letter == "H":
            self._go(first - 1, max(numbers[-1], 1) - 1 if len(numbers) > 1 else 0)
        elif letter in "AB":
            self._go(self._row + (first if letter == "B" else -first), self._column)
        elif letter in "CD":
            self._go(self._row, self._column + (first if letter == "C" else -first))
        elif letter == "G":
            self._go(self._row, first - 1)
        elif letter == "d":
            self._go(first - 1, self._column)
        elif letter == "b":
            for _ in range(first):
                self._put(self._last)
        else:
            self._change(letter, numbers[0])

    def _go(self, row: int, column: int) -> None:
        self._row = min(max(row, 0), len(self._cells) - 1)
        self._column = min(max(column, 0), self._columns - 1)

    def _change(self, letter: str, number: int) -> None:
        row, here, count = self._cells[self._row], min(self._column, self._columns - 1), max(number, 1)
        blanks = [(" ", Look())] * self._columns
        if letter == "J":
            for each in range(0 if number == 2 else self._row + 1, len(self._cells)):
                self._cells[each] = self._blank()
        if letter == "J" and number == 2:
            row = self._blank()
        elif letter in "KJ":
            row = blanks[: here + 1] + row[here + 1 :] if number == 1 else row[:here] + blanks
        elif letter == "X":
            row = row[:here] + blanks[:count] + row[here + count :]
        elif letter == "P":
            row = row[:here] + row[here + count :] + blanks
        elif letter == "@":
            row = row[:here] + blanks[:count] + row[here:]
        self._cells[self._row] = row[: self._columns]

    def _paint(self, numbers: list[int]) -> None:
        for number in numbers:
            if number == 0:
                self._look = Look()
            elif number == 1:
                self._look = dataclasses.replace(self._look, bold=True)
            elif number in COLOURS:
                self._look = dataclasses.replace(self._look, colour=COLOURS[number])

    @property
    def lines(self) -> list[str]:
        """Without colours, and without the blank rows at the end."""
        lines = ["".join(character for character, _ in row).rstrip() for row in self._cells]
        while lines and not lines[-1]:
            lines.pop()
        return lines

    def svg(self, title: str) -> str:
        rows = len(self.lines)
        width, height = self._columns * CELL_WIDTH + 2 * MARGIN, rows * CELL_HEIGHT + 2 * MARGIN
        texts = [line for number in range(rows) for line in self._runs(number)]
        return "\n".join(
            [
                f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" viewBox="0 0 {width} {height}">',
                f"<title>{escape(title)}</title>",
                f'<rect width="{width}" height="{height}" rx="6" fill="{BACKGROUND}"/>',
                '<g font-family="DejaVu Sans Mono, Menlo, Consolas, monospace" font-size="13" xml:space="preserve">',
                *texts,
                "</g>",
                "</svg>\n",
            ]
        )

    def _runs(self, row: int) -> list[str]:
        """Characters of one look that stand together, as texts."""
        texts, column = [], 0
        for look, cells in itertools.groupby(self._cells[row], key=lambda cell: cell[1]):
            text = "".join(character for character, _ in cells)
            x, y = MARGIN + column * CELL_WIDTH, MARGIN + row * CELL_HEIGHT + 13
            column += len(text)
            bold = ' font-weight="bold"' if look.bold else ""
            length = len(text.rstrip()) * CELL_WIDTH
            if length:
                texts.append(
                    f'<text x="{x}" y="{y}" fill="{look.colour}"{bold} textLength="{length}"'
                    f' lengthAdjust="spacingAndGlyphs">{escape(text.rstrip())}</text>'
                )
        return texts
