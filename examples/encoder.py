#!/usr/bin/env python3
"""A process of the device in small, over the module tess: an encoder that takes commands under the name ENC.

    SETX 5          sets the position; "0"
    GETX            the position, here "5"
    anything else   "?"

usage: encoder.py [QUEUE-ADDRESS]
"""

import logging
import re
import sys

import tess

DEFAULT_ADDRESS = 1500
MAX_ADDRESS = 2147483647


class Encoder:
    def __init__(self) -> None:
        self.position = 0

    def answer(self, command: str) -> str:
        match command.split():
            case ["GETX"]:
                return str(self.position)
            case ["SETX", number] if is_number(number):
                self.position = int(number)
                return "0"
        return "?"


def is_number(word: str) -> bool:
    return re.fullmatch("-?0*[0-9]{1,10}", word, re.ASCII) is not None and -(2**31) <= int(word) < 2**31


def read_address(arguments: list[str]) -> int | None:
    """The queue address, None when the arguments make no sense."""
    if len(arguments) > 1:
        return None
    word = arguments[0] if arguments else str(DEFAULT_ADDRESS)
    return int(word) if re.fullmatch("[0-9]{1,10}", word, re.ASCII) and 1 <= int(word) <= MAX_ADDRESS else None


def main() -> int:
    address = read_address(sys.argv[1:])
    if address is None:
        print("usage: encoder.py [QUEUE-ADDRESS]", file=sys.stderr)
        return 2
    logging.basicConfig(level=logging.INFO, format="%(asctime)s [ENC] %(message)s")
    try:
        process = tess.Process("ENC", Encoder().answer, address=address)
    except OSError as error:
        logging.error("%s", error)
        return 1
    return process.run()


if __name__ == "__main__":
    sys.exit(main())
