#!/usr/bin/python3
"""Draws the columns of a CSV file over one of them, one panel for each column, as an SVG file."""
import argparse
import csv
import statistics
import sys

import matplotlib

matplotlib.use("Agg")
# pylint: disable=wrong-import-position
from matplotlib import pyplot

matplotlib.rcParams.update({"svg.hashsalt": "tarvo", "svg.fonttype": "none", "font.size": 8, "axes.grid": True,
                            "grid.alpha": 0.3, "axes.spines.top": False, "axes.spines.right": False,
                            "legend.frameon": False})


def arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--by", help="one line for each value of this column, and not one for all rows")
    parser.add_argument("--x", help="the horizontal axis (default: the first column that is not --by)")
    parser.add_argument("--title", default="")
    parser.add_argument("--points", type=int, default=150, help="at most so many points a line, each the median of its "
                        "neighbours (default: 150)")
    parser.add_argument("input", help="CSV")
    parser.add_argument("output", help="SVG")
    return parser.parse_args()


def thin(values, most):
    size = -(-len(values) // most)
    return [statistics.median(values[i:i + size]) for i in range(0, len(values), size)]


def main():
    options = arguments()
    with open(options.input, newline="", encoding="utf-8") as file:
        rows = list(csv.DictReader(file))
    if not rows:
        sys.exit(f"plot.py: {options.input} has no rows")
    columns = [name for name in rows[0] if name != options.by]
    x = options.x or columns[0]
    columns.remove(x)
    lines = dict.fromkeys(row.get(options.by, "") for row in rows)
    figure, panels = pyplot.subplots(len(columns), 1, sharex=True, squeeze=False, figsize=(9, 2.3 * len(columns)))
    for axes, column in zip(panels[:, 0], columns):
        for line in lines:
            points = [(float(row[x]), float(row[column])) for row in rows if row.get(options.by, "") == line]
            axes.plot(*(thin(values, options.points) for values in zip(*points)), label=line, linewidth=1)
        axes.set(title=column, ylim=(0, None))
    panels[-1, 0].set_xlabel(x)
    figure.suptitle(options.title)
    below = 0.0
    if options.by:
        figure.legend(*panels[0, 0].get_legend_handles_labels(), loc="lower center", ncol=3)
        below = (0.1 + 0.17 * -(-len(lines) // 3)) / figure.get_figheight()
    figure.tight_layout(rect=(0, below, 1, 1))
    figure.savefig(options.output, metadata={"Date": None})


if __name__ == "__main__":
    main()
