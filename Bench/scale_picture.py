#!/usr/bin/env python3
"""Draws the rows "scale, OPERATION, OBJECTS: COUNT  NS" of the benchmarks' table, from standard input, as an SVG picture.

Each line is an operation: the number of objects to the right, its cost to that with the fewest objects upwards.
"""

import html
import math
import re
import sys

WIDTH, HEIGHT = 640, 330
LEFT, RIGHT, TOP, BOTTOM = 56, 620, 40, 200
MOST_OBJECTS, MOST_COST = 10_000, 2
COLOURS = ["#1f6fb2", "#b2541f", "#2d8a4e", "#7a3fa0"]
ROW = re.compile(r"scale, (?P<operation>.*): (?P<count>\d+) +(?P<ns>[\d.]+)")


def read_lines():
    """The measured points of each operation."""
    lines = {}
    for row in filter(None, map(ROW.match, sys.stdin)):
        lines.setdefault(row["operation"], []).append((int(row["count"]), float(row["ns"])))
    return lines


def x(count):
    return LEFT + (RIGHT - LEFT) * math.log10(count) / math.log10(MOST_OBJECTS)


def y(cost):
    return BOTTOM - (BOTTOM - TOP) * min(cost, MOST_COST) / MOST_COST


def text(at_x, at_y, content, anchor="start"):
    return f'<text x="{at_x:.1f}" y="{at_y:.1f}" text-anchor="{anchor}">{html.escape(content)}</text>'


def axes():
    for cost in (0, 0.5, 1, 1.5, 2):
        yield f'<path d="M{LEFT} {y(cost):.1f}H{RIGHT}" stroke="#d8dde2"/>'
        yield text(LEFT - 8, y(cost) + 4, f"{cost:g}", "end")
    for power in range(5):
        yield text(x(10**power), BOTTOM + 18, f"{10**power:,}", "middle")
    yield text(LEFT, TOP - 16, "cost of an operation, relative to the fewest objects")
    yield text((LEFT + RIGHT) / 2, BOTTOM + 36, "number of objects", "middle")


def curve(number, operation, points):
    colour = COLOURS[number % len(COLOURS)]
    places = [(x(count), y(ns / points[0][1])) for count, ns in points]
    path = "L".join(f"{at_x:.1f} {at_y:.1f}" for at_x, at_y in places)
    yield f'<path d="M{path}" fill="none" stroke="{colour}" stroke-width="1.6"/>'
    for at_x, at_y in places:
        yield f'<circle cx="{at_x:.1f}" cy="{at_y:.1f}" r="2.6" fill="{colour}"/>'
    row = BOTTOM + 62 + 18 * number
    yield f'<path d="M{LEFT} {row - 4}h24" stroke="{colour}" stroke-width="3"/>'
    first, last = points[0], points[-1]
    yield text(LEFT + 32, row, f"{operation}: {first[1]:,.0f} ns with {first[0]}, {last[1]:,.0f} ns with {last[0]:,}")


def main():
    lines = read_lines()
    if not lines:
        sys.exit("scale_picture: there is no row of a scale in the table")
    parts = list(axes())
    for number, (operation, points) in enumerate(lines.items()):
        parts += curve(number, operation, points)
    print(f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{HEIGHT}" '
          f'viewBox="0 0 {WIDTH} {HEIGHT}">\n'
          "<style>text{font:12px 'DejaVu Sans Mono',Menlo,Consolas,monospace;fill:#22303c}</style>\n"
          '<rect width="100%" height="100%" fill="white"/>\n' + "\n".join(parts) + "\n</svg>")


if __name__ == "__main__":
    main()
