#!/usr/bin/env -S python3 -B
"""Draws how the rows of a stored run scale.

usage: plot.py TABLE PICTURE   (what table.py has stored; an SVG)

Each panel has steps from left to right and nanoseconds, as powers of ten, upwards. A step without
a row is left out. The same table gives the same bytes.
"""

import math
import re
import sys
from xml.sax.saxutils import escape

from table import read_stored

IDLE = "second thread idle"
BUILD = r"EncodedString: build and destroy 20 bytes, (second thread idle|\d+)(?: threads)?"
CROWD = r"(\d+) more threads"
START = r"process: start until it runs, (\d+) MB resident"
WALK = r"process table: all with arguments, (\d+) more processes"

# Title, what the steps are, and the lines: a name, the row's case with its step, the side.
PANELS = [
    ("A string of 20 bytes built and destroyed", "threads at work on {cores}", [
        ("ours", BUILD, "ours"),
        ("std::string, glibc", BUILD, "std::string"),
        ("std::string, jemalloc", BUILD, "std::string, jemalloc"),
        ("std::string, mimalloc", BUILD, "std::string, mimalloc"),
        ("std::string, tcmalloc", BUILD, "std::string, tcmalloc"),
    ]),
    ("What each thread does all the time", "threads asleep", [
        ("trace line", r"trace: one line to a file, " + CROWD, "ours"),
        ("trace line, spdlog", r"trace: one line to a file, " + CROWD, "spdlog"),
        ("BlockTermination", r"BlockTermination: the main thread, " + CROWD, "ours"),
        ("currentThread()", r"current thread: the main one, " + CROWD, "ours"),
    ]),
    ("A process started, until it runs", "MB resident", [
        ("ours", START, "ours"),
        ("posix_spawn", START, "posix_spawn"),
        ("fork", START, "fork"),
    ]),
    ("Walk of the process table", "more processes", [
        ("ours", WALK, "ours"),
        ("one pass over /proc", WALK, "opendir + read"),
    ]),
]

COLOURS = ["#0b5fa5", "#c0392b", "#7f8c2a", "#8e5aa8", "#b9770e"]
WIDTH, HEIGHT = 420, 270  # of a panel
LEFT, RIGHT, TOP, BOTTOM = 58, 16, 58, 44  # around the lines


def points(times, pattern, side):
    """{step: nanoseconds} of one line."""
    found = {}
    for (case, peer), (ours, peers) in times.items():
        match = re.fullmatch(pattern, case)
        if match and side in ("ours", peer):
            step = 1 if match[1] == IDLE else int(match[1])
            found[step] = ours if side == "ours" else peers
    return found


def text(x, y, content, anchor="middle", **style):
    attributes = "".join(f' {name.replace("_", "-")}="{value}"' for name, value in style.items())
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"{attributes}>{escape(content)}</text>'


def time_name(power):
    unit, zeros = divmod(power, 3)
    return f"{10 ** zeros} {('ns', 'µs', 'ms', 's')[unit]}" if power >= 0 else f"{10.0 ** power} ns"


def panel(times, title, steps_name, lines):
    lines = [(name, points(times, pattern, side)) for name, pattern, side in lines]
    steps = sorted({step for _, line in lines for step in line})
    yield text(LEFT, 18, title, "start", font_weight="bold")
    if not steps:
        return
    values = [value for _, line in lines for value in line.values()]
    low, high = math.floor(math.log10(min(values))), math.ceil(math.log10(max(values)))
    high = max(high, low + 1)

    def across(step):
        room = WIDTH - LEFT - RIGHT
        return LEFT + room * (steps.index(step) + 0.5) / len(steps)

    def up(value):
        room = HEIGHT - TOP - BOTTOM
        return HEIGHT - BOTTOM - room * (math.log10(value) - low) / (high - low)

    for power in range(low, high + 1):
        y = up(10.0**power)
        yield f'<path d="M{LEFT} {y:.1f}H{WIDTH - RIGHT}" stroke="#ddd"/>'
        yield text(LEFT - 6, y + 4, time_name(power), "end")
    for step in steps:
        yield text(across(step), HEIGHT - BOTTOM + 18, f"{step:,}".replace(",", " "))
    yield text((LEFT + WIDTH - RIGHT) / 2, HEIGHT - 8, steps_name)

    x, y = LEFT, 34
    for (name, line), colour in zip(lines, COLOURS):
        if not line:
            continue
        places = [(across(step), up(line[step])) for step in sorted(line)]
        path = "L".join(f"{at:.1f} {height:.1f}" for at, height in places)
        width = 2.5 if colour == COLOURS[0] else 1.5
        yield f'<path d="M{path}" fill="none" stroke="{colour}" stroke-width="{width}"/>'
        for at, height in places:
            yield f'<circle cx="{at:.1f}" cy="{height:.1f}" r="3" fill="{colour}"/>'
        if x + 7 * len(name) > WIDTH - RIGHT:
            x, y = LEFT, y + 14
        yield text(x, y, name, "start", fill=colour)
        x += 7 * len(name) + 8


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    machine, _, times = read_stored(sys.argv[1])
    cores = machine.split(", ")[-1]
    columns = 2
    rows = math.ceil(len(PANELS) / columns)
    svg = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {columns * WIDTH} {rows * HEIGHT}" '
        'font-family="sans-serif" font-size="12" fill="#333">',
        '<rect width="100%" height="100%" fill="#fff"/>',
    ]
    for number, (title, steps_name, lines) in enumerate(PANELS):
        row, column = divmod(number, columns)
        svg.append(f'<g transform="translate({column * WIDTH} {row * HEIGHT})">')
        svg += panel(times, title, steps_name.format(cores=cores), lines)
        svg.append("</g>")
    svg.append("</svg>")
    with open(sys.argv[2], "w", encoding="utf-8") as stream:
        stream.write("\n".join(svg) + "\n")


if __name__ == "__main__":
    main()
