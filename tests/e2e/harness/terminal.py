"""A program on a terminal of its own, the keys typed there and what its screen shows."""

from __future__ import annotations

import terminal  # of tools/
from harness import settings


class Terminal(terminal.Terminal):
    """With the tests' deadlines."""

    def expect(self, text: bytes, within: float = 10) -> None:
        """Waits until `text` is shown, behind what was expected before."""
        try:
            self.wait_for(text, within * settings.SLOW)
        except terminal.TerminalError as error:
            raise AssertionError(str(error)) from None

    def expect_end(self, within: float = 10) -> int:
        """Waits for the program's end and returns its status."""
        try:
            return self.wait_end(within * settings.SLOW)
        except terminal.TerminalError as error:
            raise AssertionError(str(error)) from None
