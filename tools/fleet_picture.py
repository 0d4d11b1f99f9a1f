#!/usr/bin/python3
"""Draws the picture of docs/fleet.md: who talks to whom when many devices have a broker.

    tools/fleet_picture.py FILE
"""

from __future__ import annotations

import os
import sys

WIDTH, HEIGHT = 860, 420
INK, PAPER, BROKER, DEVICE, PROGRAM = "#1f2937", "#ffffff", "#fde68a", "#e0f2fe", "#f8fafc"


def box(x: int, y: int, width: int, height: int, fill: str, *lines: str, bold: bool = True) -> str:
    parts = [f'<rect x="{x}" y="{y}" width="{width}" height="{height}" rx="6" fill="{fill}" stroke="{INK}"/>']
    first = y + height / 2 - (len(lines) - 1) * 9 + 5
    for number, line in enumerate(lines):
        weight = ' font-weight="bold"' if bold and number == 0 else ""
        parts.append(f'<text x="{x + width / 2:g}" y="{first + 18 * number:g}" text-anchor="middle"{weight}>{line}</text>')
    return "\n".join(parts)


def arrow(x1: int, y1: int, x2: int, y2: int, both: bool = True) -> str:
    start = ' marker-start="url(#head)"' if both else ""
    return f'<line x1="{x1}" y1="{y1}" x2="{x2}" y2="{y2}" stroke="{INK}"{start} marker-end="url(#head)"/>'


def label(x: int, y: int, text: str, anchor: str = "middle") -> str:
    return f'<text x="{x}" y="{y}" text-anchor="{anchor}" font-size="12" fill="#475569">{text}</text>'


def device(x: int, name: str) -> list[str]:
    return [
        box(x, 220, 240, 180, DEVICE),
        label(x + 12, 240, f"device {name}", "start"),
        box(x + 60, 252, 120, 30, PROGRAM, "tess-mqtt"),
        arrow(x + 120, 284, x + 120, 310),
        label(x + 128, 302, "/tmp/xcp", "start"),
        box(x + 60, 312, 120, 30, PROGRAM, "tessd"),
        arrow(x + 90, 344, x + 64, 362),
        arrow(x + 150, 344, x + 176, 362),
        box(x + 20, 364, 90, 26, PROGRAM, "ENC", bold=False),
        box(x + 130, 364, 90, 26, PROGRAM, "...", bold=False),
    ]


def picture() -> str:
    marker = f'<path d="M0,0 L8,4 L0,8 z" fill="{INK}"/>'
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{HEIGHT}" viewBox="0 0 {WIDTH} {HEIGHT}">',
        "<title>Many devices at a broker</title>",
        f'<rect width="{WIDTH}" height="{HEIGHT}" fill="{PAPER}"/>',
        f'<defs><marker id="head" markerWidth="8" markerHeight="8" refX="7" refY="4" orient="auto-start-reverse">{marker}',
        "</marker></defs>",
        f'<g font-family="DejaVu Sans, Helvetica, sans-serif" font-size="14" fill="{INK}">',
        box(40, 20, 220, 44, PROGRAM, "tessctl fleet", "send, status"),
        box(320, 20, 220, 44, PROGRAM, "any client of MQTT 5", "mosquitto_rr, your own"),
        box(600, 20, 220, 44, PROGRAM, "a dashboard", "status, metrics, event"),
        arrow(150, 66, 330, 118),
        arrow(430, 66, 430, 118),
        arrow(530, 118, 710, 66, both=False),
        label(262, 84, "request, answer", "start"),
        box(280, 120, 300, 44, BROKER, "broker of MQTT 5", "mosquitto, or a cluster"),
        arrow(330, 166, 150, 250),
        arrow(430, 166, 430, 250),
        arrow(530, 166, 710, 250),
        label(438, 196, "TLS", "start"),
        label(232, 196, "TLS", "end"),
        label(628, 196, "TLS", "start"),
        *device(30, "d1"),
        *device(310, "d2"),
        *device(590, "dN"),
        "</g>",
        "</svg>",
    ]
    return "\n".join(parts) + "\n"


def main() -> int:
    if len(sys.argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    os.makedirs(os.path.dirname(sys.argv[1]) or ".", exist_ok=True)
    with open(sys.argv[1], "w", encoding="ascii") as file:
        file.write(picture())
    return 0


if __name__ == "__main__":
    sys.exit(main())
