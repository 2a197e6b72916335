#!/usr/bin/env python3
"""Draws the columns of a CSV file over one of them, one panel for each column, as an SVG file.

usage: scripts/plot.py [--by COLUMN] [--x COLUMN] [--title TEXT] [--points N] INPUT.csv OUTPUT.svg

  --by COLUMN   one line for each value of this column, and not one for all rows
  --x COLUMN    the horizontal axis (default: the first column that is not --by)
  --points N    at most so many points a line, each the median of its neighbours (default: 150)
"""
import argparse
import csv
import statistics
import sys
from xml.sax.saxutils import escape

WIDTH, PANEL, LEFT, RIGHT, TOP, GAP = 900, 190, 80, 20, 40, 40
COLOURS = ["#1b6ca8", "#c0392b", "#27864a", "#8e44ad", "#d17a00", "#0f8b8d", "#7f5539", "#5c6b73", "#b5179e", "#3a5a00"]


def read(path, by, x):
    with open(path, newline="", encoding="utf-8") as file:
        rows = list(csv.DictReader(file))
    if not rows:
        sys.exit(f"plot.py: {path} has no rows")
    columns = [name for name in rows[0] if name != by]
    x = x or columns[0]
    series = {}
    for row in rows:
        series.setdefault(row[by] if by else "", []).append(row)
    return x, [name for name in columns if name != x], series


def round_up(value):
    """The next 1, 2 or 5 times a power of ten."""
    step = 1.0
    while step < value:
        for factor in (2, 2.5, 2):
            if step >= value:
                break
            step *= factor
    return step


def thin(points, most):
    size = -(-len(points) // most)
    pieces = [points[i : i + size] for i in range(0, len(points), size)]
    return [(piece[len(piece) // 2][0], statistics.median(p[1] for p in piece)) for piece in pieces]


def panel(out, top, name, x, series, most):
    points = {key: thin([(float(row[x]), float(row[name])) for row in rows], most) for key, rows in series.items()}
    every = [point for line in points.values() for point in line]
    low_x, high_x = min(p[0] for p in every), max(p[0] for p in every)
    high_y = round_up(max(p[1] for p in every))
    scale_x = (WIDTH - LEFT - RIGHT) / ((high_x - low_x) or 1)
    scale_y = PANEL / (high_y or 1)
    out.append(f'<text x="{LEFT}" y="{top - 8}" font-weight="bold">{escape(name)}</text>')
    for i in range(5):
        y = top + PANEL - PANEL * i / 4
        out.append(f'<line x1="{LEFT}" x2="{WIDTH - RIGHT}" y1="{y:.1f}" y2="{y:.1f}" stroke="#ddd"/>')
        out.append(f'<text x="{LEFT - 6}" y="{y + 4:.1f}" text-anchor="end">{high_y * i / 4:g}</text>')
    for i in range(6):
        value = low_x + (high_x - low_x) * i / 5
        place = LEFT + (value - low_x) * scale_x
        out.append(f'<text x="{place:.1f}" y="{top + PANEL + 14}" text-anchor="middle">{value:.0f}</text>')
    for number, line in enumerate(points.values()):
        path = " ".join(f"{LEFT + (a - low_x) * scale_x:.1f},{top + PANEL - b * scale_y:.1f}" for a, b in line)
        out.append(f'<polyline points="{path}" fill="none" stroke="{COLOURS[number % len(COLOURS)]}" stroke-width="1.2"/>')


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--by")
    parser.add_argument("--x")
    parser.add_argument("--title", default="")
    parser.add_argument("--points", type=int, default=150)
    parser.add_argument("input")
    parser.add_argument("output")
    options = parser.parse_args()
    x, names, series = read(options.input, options.by, options.x)
    legend = [key for key in series if key]
    top = TOP + 18 * len(legend) + 20
    height = top + len(names) * (PANEL + GAP) + 20
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" font-family="sans-serif" '
           f'font-size="11"><rect width="100%" height="100%" fill="white"/>',
           f'<text x="{LEFT}" y="22" font-size="15">{escape(options.title)} (by {escape(x)})</text>']
    for number, key in enumerate(legend):
        y = TOP + 18 * number
        out.append(f'<rect x="{LEFT}" y="{y}" width="12" height="4" fill="{COLOURS[number % len(COLOURS)]}"/>')
        out.append(f'<text x="{LEFT + 18}" y="{y + 6}">{escape(key)}</text>')
    for number, name in enumerate(names):
        panel(out, top + number * (PANEL + GAP), name, x, series, options.points)
    out.append("</svg>")
    with open(options.output, "w", encoding="utf-8") as file:
        file.write("\n".join(out) + "\n")


if __name__ == "__main__":
    main()
