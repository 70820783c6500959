#!/usr/bin/env python3
"""Draws the results of benchmarks as bars with their ranges, and their goals, into an SVG.

Reads files of results as the bench scripts write them with --json: a list of objects
{"row": text, "ratio": number, "low": number, "high": number, "unit": text, "goal": number}. "ratio"
is the median, in the unit; "low" and "high" are the ends of its range; "goal" may be missing and is
then looked up in bench/goals.json. A row that comes again replaces the one before it. Usage:

plot.py results.json [more.json ...] --to bench/results.svg
"""
import argparse
import json
import math
import pathlib
import sys
from xml.sax.saxutils import escape

GOALS = pathlib.Path(__file__).with_name("goals.json")
LABELS, BARS, NUMBERS = 470, 330, 150  # widths: text, bars, figures
STEP, TOP = 26, 34                     # heights: a row, a title
STYLE = """text{font:13px sans-serif;fill:#24292f}.title{font-weight:bold}.bar{fill:#5b8fc7}
.over{fill:#c98a4b}.range{stroke:#24292f;stroke-width:1.5}.goal{stroke:#2e7d32;stroke-width:2.5}
.axis{stroke:#8c959f;stroke-width:1}"""


class Unusable(Exception):
    """What is wrong with a file of results."""


def number(result, name):
    value = result.get(name)
    if isinstance(value, bool) or not isinstance(value, (int, float)) or not math.isfinite(value) \
            or value < 0:
        raise Unusable(f"{result.get('row')!r}: {name!r} is no number from 0 on")
    return value


def checked(result, goals):
    if not isinstance(result, dict) or not isinstance(result.get("row"), str):
        raise Unusable(f"{result!r} has no \"row\"")
    known = {"row", "ratio", "low", "high", "unit", "goal"}
    if unknown := set(result) - known:
        raise Unusable(f"{result['row']!r}: unknown {', '.join(sorted(unknown))}")
    row = {name: number(result, name) for name in ("ratio", "low", "high")}
    if not row["low"] <= row["ratio"] <= row["high"]:
        raise Unusable(f"{result['row']!r}: {row['ratio']} is outside of its own range")
    if result.get("goal") is None:
        result = {**result, "goal": goals.get(result["row"])}
    row["goal"] = None if result["goal"] is None else number(result, "goal")
    return {"row": result["row"], "unit": str(result.get("unit", "ratio")), **row}


def read(files, goals):
    rows = {}
    for file in files:
        try:
            results = json.loads(pathlib.Path(file).read_text())
            if not isinstance(results, list):
                raise Unusable("no list of results")
            for result in results:
                row = checked(result, goals)
                rows[row["row"]] = row
        except (OSError, ValueError, Unusable) as error:
            raise SystemExit(f"{file}: {error}") from None
    return list(rows.values())


def figure(value):
    return f"{value:.3g}" if value < 1000 else f"{value:.0f}"


def line(name, x1, y1, x2, y2):
    return f'<line class="{name}" x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}"/>'


def text(x, y, words, more=""):
    return f'<text x="{x:.1f}" y="{y:.1f}"{more}>{escape(words)}</text>'


def bar(row, y, scale):
    """One row: label, bar, range, goal and figures. Bars over their goal have another colour."""
    middle, goal = y + STEP / 2, row["goal"]
    colour = "over" if goal is not None and row["ratio"] > goal else "bar"
    low, high = (LABELS + row[name] * scale for name in ("low", "high"))
    parts = [text(LABELS - 10, middle + 4, row["row"], ' text-anchor="end"'),
             f'<rect class="{colour}" x="{LABELS}" y="{y + 5}" height="{STEP - 10}" '
             f'width="{max(row["ratio"] * scale, 1):.1f}"/>',
             line("range", low, middle, high, middle)]
    parts += [line("range", end, middle - 4, end, middle + 4) for end in (low, high)]
    figures = f'{figure(row["ratio"])} ({figure(row["low"])} to {figure(row["high"])})'
    if goal is not None:
        parts.append(line("goal", LABELS + goal * scale, y + 2, LABELS + goal * scale, y + STEP - 2))
        figures += f', goal {figure(goal)}'
    return parts + [text(LABELS + BARS + 14, middle + 4, figures)]


def panel(unit, rows, y):
    most = max(max(row["high"], row["goal"] or 0) for row in rows) or 1
    scale = BARS / most
    bottom = y + TOP + STEP * len(rows)
    title = "Ratios (nearer to 0 is better)" if unit == "ratio" else f"In {unit} (less is better)"
    parts = [text(10, y + 22, title, ' class="title"'),
             line("axis", LABELS, y + TOP - 4, LABELS, bottom)]
    if unit == "ratio" and most > 1:
        parts.append(line("axis", LABELS + scale, y + TOP - 4, LABELS + scale, bottom))
    for place, row in enumerate(rows):
        parts += bar(row, y + TOP + STEP * place, scale)
    return parts, bottom


def svg(rows):
    units = list(dict.fromkeys(row["unit"] for row in rows))
    parts, y = [], 0
    for unit in units:
        drawn, y = panel(unit, [row for row in rows if row["unit"] == unit], y)
        parts += drawn
    parts.append(text(10, y + 26, "Bars: medians. Black: range of the rounds. Green: goal; a bar "
                      "beyond its goal is brown."))
    width, height = LABELS + BARS + NUMBERS + 90, y + 40
    return "\n".join([f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
                      f'viewBox="0 0 {width} {height}">', f"<style>{STYLE}</style>",
                      f'<rect width="{width}" height="{height}" fill="#ffffff"/>', *parts,
                      "</svg>\n"])


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("results", nargs="+", help="files that bench scripts wrote with --json")
    parser.add_argument("--to", required=True, help="the SVG")
    arguments = parser.parse_args()
    rows = read(arguments.results, json.loads(GOALS.read_text()))
    if not rows:
        raise SystemExit("there are no results")
    pathlib.Path(arguments.to).write_text(svg(rows))
    missed = [row["row"] for row in rows if row["goal"] is not None and row["ratio"] > row["goal"]]
    print(f"{len(rows)} rows, {len(missed)} beyond their goals", *missed, sep="\n  ")


if __name__ == "__main__":
    sys.exit(main())
