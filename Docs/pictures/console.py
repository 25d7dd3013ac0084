#!/usr/bin/env python3
"""Draws console.svg: commands on the virtual board and their output in a terminal.

usage: console.py DIRECTORY_OF_PROGRAMS > Docs/pictures/console.svg
"""

import html
import os
import pty
import re
import sys

COMMANDS = [
    "kivtest.exe -t read_i2c -b 4 -d 0x18 -r 0x0f",
    "kivtest.exe -t read_i2c -b 4 -d 0x55 -r 0x0f",  # no device answers
    "kivboard journal",
]
COLOURS = {"": "#d7dde3", "31": "#ff6b6b", "32": "#6fce8a", "1": "#ffffff"}
LINE, CHARACTER, MARGIN, TAB = 17, 7.25, 14, 8


def record(programs):
    """The output in a terminal, as text with escape sequences."""
    os.environ["PATH"] = os.path.abspath(programs) + os.pathsep + os.environ["PATH"]
    script = "; ".join(f"printf '\\033[1m$ %s\\033[0m\\n' '{command}'; {command}" for command in COMMANDS)
    child, terminal = pty.fork()
    if child == 0:
        os.execvp("kivboard", ["kivboard", "run", "--", "sh", "-c", script])
    pieces = [b""]
    try:
        while piece := os.read(terminal, 4096):
            pieces.append(piece)
    except OSError:  # the end of a terminal
        pass
    if status := os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]):
        sys.exit(f"the commands ended with {status}")
    return b"".join(pieces).decode().replace("\r\n", "\n").expandtabs(TAB)


def spans(line):
    """The pieces of a line, each with its colour."""
    colour = ""
    for piece in re.split(r"(\033\[\d*m)", line):
        if piece.startswith("\033"):
            colour = piece[2:-1].removeprefix("0")
        elif piece:
            yield colour, piece


def draw(lines):
    plain = [re.sub(r"\033\[\d*m", "", line) for line in lines]
    width = round(max(map(len, plain)) * CHARACTER + 2 * MARGIN)
    height = len(lines) * LINE + 2 * MARGIN
    yield (f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
           f'viewBox="0 0 {width} {height}">')
    yield ("<style>text{font:12px 'DejaVu Sans Mono',Menlo,Consolas,monospace;white-space:pre}</style>")
    yield f'<rect width="{width}" height="{height}" rx="6" fill="#1c2530"/>'
    for number, line in enumerate(lines):
        text = "".join(f'<tspan fill="{COLOURS[colour]}">{html.escape(piece)}</tspan>' for colour, piece in spans(line))
        yield f'<text x="{MARGIN}" y="{MARGIN + number * LINE + 12}" xml:space="preserve">{text}</text>'
    yield "</svg>"


print("\n".join(draw(record(sys.argv[1]).rstrip("\n").split("\n"))))
