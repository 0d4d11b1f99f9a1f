"""What clients and processes say in made-up rows of steps: mostly what means something, and what nearly does."""

from __future__ import annotations

import promises
from harness import telnet, wire
from hypothesis import strategies as st
from promises import MILLISECOND, SECOND

ALL_PORTS = (wire.COM2, wire.TELNET, wire.XCP, wire.IPC)
ADDRESSES = range(2001, 2005)

NAMES = [b"ENC", b"enc", b"MOTOR", b"GPSD", b"gpsd", b"", b"*", b"A.B", b"s3", b"x" * 300]
UNITS = [b"s3", b"S3", b"*", b"t1", b"", b"s33", b"**"]
SPACES = [b" ", b"  ", b"\t", b"", b"\v \f"]
BODIES = [b"X", b"SETX 5", b"GETX", b"a.b c", b"*", b"$", b"SET $5", b"$GPRMC,1,A", b"\xe9\x80", b"", b"y * z"]
STARS_AND_DOTS = rb"*;* X;*X Y;*.;*.* X;.;. X;.ENC X;s3 $X;s3.ENC *;s3.ENC.A X;a *b;a.b *"
SENTENCES = rb"$GPRMC,123519,A,4807.038,N;$GPRMC;$GPRMCX,1;$gprmc,1,A;$GPGGA,1;SET $5;*$GPRMC,1;s3$;s3.$"
BUILT_IN = rb"quit;QUIT;quitting; quit;RESET A;reset x y;RESET REINIT s2;ReSeTting a b c;X RESET"
LONG_ADDRESSES = [b"z" * 255 + b".E X", b"s3." + b"x" * 300 + b" LONG", b"s3.ENC " + b"L" * 300]
ODD_TOKENS = [*STARS_AND_DOTS.split(b";"), *SENTENCES.split(b";"), *BUILT_IN.split(b";"), *LONG_ADDRESSES]
GOOD_DELAYS = rb"500;1.0;2.5;0:3.0;1:30.0;0:0:5.0;1:0:0:0;999;1000;1999.0;10 0; 4 . 0 ;999999;1.1000"
OVERFLOWING_DELAYS = rb"597:0:0.0;2147484.0;2147483647;35792:0.0;59999:0.0"
NO_DELAYS = rb"0;0.0;x;;1.2.3.4.5;-1;1e3;1000:0:0.0;60000:0.0;3000000.0;2147483648;D 5;CLEA"
CLEARING = rb"CLEAR;clear; ClearAll"
DELAYS = b";".join([GOOD_DELAYS, GOOD_DELAYS, OVERFLOWING_DELAYS, NO_DELAYS, CLEARING]).split(b";")
LINE_ENDS = [b"\n", b"\r\n", b"\r", b"\n\n", b" \n"]

SHORT_TEXT = st.binary(max_size=3) | st.text("aAxX5s3.*$|, \t", max_size=10).map(str.encode)


@st.composite
def addressed(draw: st.DrawFn) -> bytes:
    name = draw(st.sampled_from([*NAMES, b"NONE"]))
    return draw(st.sampled_from(UNITS)) + b"." + name + draw(st.sampled_from(SPACES)) + draw(st.sampled_from(BODIES))


TOKENS = st.one_of(addressed(), st.sampled_from(BODIES), st.sampled_from(ODD_TOKENS), SHORT_TEXT)
JOINS = st.sampled_from([b"|", b"|", b" | ", b"||"])


@st.composite
def delay(draw: st.DrawFn) -> bytes:
    """Setting, clearing, listing or a mistake."""
    word = draw(st.sampled_from([b"DELAY", b"delay", b" Delay", b"DELAYED"]))
    time_text = draw(st.sampled_from(DELAYS))
    return word + draw(st.sampled_from([b" ", b"\t", b""])) + time_text


@st.composite
def plain_line(draw: st.DrawFn) -> bytes:
    return draw(JOINS).join(draw(st.lists(TOKENS, min_size=1, max_size=3)))


@st.composite
def delay_line(draw: st.DrawFn) -> bytes:
    """A command that is set to run later, which may set another."""
    levels = [draw(delay()) for _ in range(draw(st.integers(1, 3)))]
    return draw(JOINS).join([*draw(st.lists(TOKENS, max_size=1)), *levels, *draw(st.lists(TOKENS, max_size=2))])


def could_reset(data: bytes) -> bool:
    """A line, or a token that runs later, whose one word begins with RESET would restart the device."""
    for end in (b"\r", b"\0", b"|"):
        data = data.replace(end, b"\n")
    lines = [line.strip(promises.WHITE) for line in data.split(b"\n")]
    return any(line[:5].upper() == b"RESET" and b" " not in line for line in lines)


def harmless(line: bytes) -> bool:
    return not could_reset(line)


PLAIN_LINES = plain_line().filter(harmless)
DELAY_LINES = delay_line().filter(harmless)
LINES = st.one_of(PLAIN_LINES, PLAIN_LINES, DELAY_LINES)


@st.composite
def several_lines(draw: st.DrawFn) -> bytes:
    parts = [line + draw(st.sampled_from(LINE_ENDS)) for line in draw(st.lists(LINES, min_size=1, max_size=3))]
    parts.append(draw(st.one_of(st.just(b""), st.just(b""), SHORT_TEXT)))  # the beginning of another
    return b"".join(parts)


LONG = st.builds(
    lambda start, length, end: (start + b"q" * length)[:length] + end,
    st.sampled_from([b"", b"s3.ENC ", b"*\n"]),
    st.sampled_from([250, 256, 257, 1000, 1007, 1008, 1022, 1023, 1024, 1025, 2100]),
    st.sampled_from(LINE_ENDS + [b""]),
)

SEVERAL_LINES = several_lines()
DATA = st.one_of(SEVERAL_LINES, SEVERAL_LINES, SEVERAL_LINES, LONG)
TAGS = st.sampled_from([0, 7, 0xFFFF, 0x00050007, 0xBB010001, 0xFFFFFFFF])
WORDS = st.sampled_from([0, 1, 0x41414141, 0xFFFFFFFF])
LENGTH_ERRORS = st.sampled_from([0, 0, 0, 0, 0, 1, 5, 100, -1, -3, -2000, 2000])
MASKS = st.sampled_from([15, 15, 1, 2, 4, 8, 10, 5, 0, 16, 0xFFFFFFFF, 0x80000000])
AMOUNTS = st.sampled_from(
    [1, 500, MILLISECOND, 99 * MILLISECOND, 101 * MILLISECOND, SECOND // 2, SECOND - 1, SECOND, SECOND + 1]
    + [2 * SECOND, 3 * SECOND, 10 * SECOND, 61 * SECOND, 100 * SECOND, 421 * SECOND, 4000 * SECOND, 3_000_000 * SECOND]
)
STARTS = st.sampled_from([10_000 * SECOND, 86_400 * SECOND + 999_999_500, 500_000 * SECOND + 123_456_789, 77_777 * SECOND + 1])
TEXTS = st.one_of(
    st.sampled_from([b"", b"5\r\n\r\n", b"a\0b", b"%s%n", b"\xff\xf0", b"*\n", b"r" * 1000, b"R" * 8176]), st.binary(max_size=5)
)
OPTIONS = [
    telnet.WILL_LINEMODE,
    telnet.SLC_LIST,
    telnet.MODE_ACK,
    telnet.SLC_ACK,
    telnet.DO_ECHO,
    telnet.DONT_ECHO,
    telnet.IAC + telnet.WILL + telnet.SUPPRESS_GO_AHEAD,
    telnet.IAC + telnet.WILL + telnet.TERMINAL_TYPE,
    telnet.IAC + telnet.WONT + telnet.LINEMODE,
    telnet.IAC + telnet.DO + telnet.NAWS,
    telnet.IAC + telnet.SB + telnet.NAWS + b"\0\x50\0\x18" + telnet.IAC + telnet.SE,
    telnet.IAC,
    telnet.IAC + telnet.SB,
]
TELNET_PIECES = [*OPTIONS, b"alice\r\n", b"secret\r\n", b"al", b"\r\n", b"s3.ENC X\r\n"]
LINE_MODE = [  # what a client says that edits lines itself, from the connection to the end of its login
    telnet.WILL_LINEMODE,
    telnet.SLC_LIST,
    telnet.MODE_ACK + telnet.SLC_ACK,
    b"alice\r\n",
    telnet.DO_ECHO,
    b"secret\r\n",
    telnet.DONT_ECHO,
]
WHO = st.integers(0, 30)
TYPED = st.lists(st.one_of(st.sampled_from([b"\x08", b"\x17", b"\x04", b"\r", b"\n"]), SHORT_TEXT, LINES), max_size=6).map(
    b"".join
)
