#!/usr/bin/env -S python3 -B
"""Draws what a process used during a soak, second by second.

usage: plot.py LOOKS PICTURE   (what soak --looks has written; an SVG)

Memory above, from zero; descriptors, threads, children and zombies below. The first third is
shaded: it is the time to warm up. The same looks give the same bytes.
"""

import math
import sys
from xml.sax.saxutils import escape

COLOURS = ["#0b5fa5", "#c0392b", "#7f8c2a", "#8e5aa8", "#b9770e"]
WIDTH, HEIGHT = 840, 240  # of a panel
LEFT, RIGHT, TOP, BOTTOM = 64, 16, 44, 40  # around the lines
MOST_POINTS = 420  # of a line; more are put together, the highest of each few is drawn

PANELS = [("Memory", ["kB resident"]),
          ("What else the process has", ["descriptors", "threads", "children", "zombies"])]


def read_looks(path):
    """{column: [values]}"""
    with open(path, encoding="utf-8") as stream:
        names, *rows = [line.rstrip("\n").split("\t") for line in stream]
    return {name: [float(row[place]) for row in rows] for place, name in enumerate(names)}


def round_step(most):
    """A step of 1, 2 or 5 times a power of ten, of which about five make `most`."""
    power = 10 ** math.floor(math.log10(most / 5))
    return next(n * power for n in (1, 2, 5, 10) if n * power * 5 >= most)


def thin_out(seconds, values):
    few = math.ceil(len(values) / MOST_POINTS)
    for start in range(0, len(values), few):
        place = max(range(start, min(start + few, len(values))), key=values.__getitem__)
        yield seconds[place], values[place]


def text(x, y, content, anchor="middle", **style):
    attributes = "".join(f' {name.replace("_", "-")}="{value}"' for name, value in style.items())
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"{attributes}>{escape(content)}</text>'


def panel(looks, title, names):
    seconds = looks["seconds"]
    longest = max(seconds[-1], 1)
    highest = max(1, *(max(looks[name]) for name in names))

    def across(time):
        return LEFT + (WIDTH - LEFT - RIGHT) * time / longest

    def up(value):
        return HEIGHT - BOTTOM - (HEIGHT - TOP - BOTTOM) * value / highest

    third = seconds[len(seconds) - 2 * (len(seconds) // 3)]
    yield (f'<rect x="{LEFT}" y="{TOP}" width="{across(third) - LEFT:.1f}" '
           f'height="{HEIGHT - TOP - BOTTOM}" fill="#f4f4f4"/>')
    yield text(LEFT, 18, title, "start", font_weight="bold")
    step = round_step(highest)
    for number in range(int(highest / step) + 1):
        y = up(number * step)
        yield f'<path d="M{LEFT} {y:.1f}H{WIDTH - RIGHT}" stroke="#ddd"/>'
        yield text(LEFT - 6, y + 4, f"{number * step:,.0f}".replace(",", " "), "end")
    in_minutes = longest > 180
    unit = 60 if in_minutes else 1
    step = round_step(longest / unit)
    for number in range(int(longest / unit / step) + 1):
        yield text(across(number * step * unit), HEIGHT - BOTTOM + 16, f"{number * step:g}")
    yield text((LEFT + WIDTH - RIGHT) / 2, HEIGHT - 8, "minutes" if in_minutes else "seconds")

    x = LEFT
    for name, colour in zip(names, COLOURS):
        path = "L".join(f"{across(time):.1f} {up(value):.1f}"
                        for time, value in thin_out(seconds, looks[name]))
        yield f'<path d="M{path}" fill="none" stroke="{colour}" stroke-width="1.5"/>'
        yield text(x, 34, name, "start", fill=colour)
        x += 7 * len(name) + 12


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    looks = read_looks(sys.argv[1])
    if not looks["seconds"]:
        sys.exit("plot.py: no looks")
    svg = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {len(PANELS) * HEIGHT}" '
        'font-family="sans-serif" font-size="12" fill="#333">',
        '<rect width="100%" height="100%" fill="#fff"/>',
    ]
    for number, (title, names) in enumerate(PANELS):
        svg.append(f'<g transform="translate(0 {number * HEIGHT})">')
        svg += panel(looks, title, names)
        svg.append("</g>")
    svg.append("</svg>")
    with open(sys.argv[2], "w", encoding="utf-8") as stream:
        stream.write("\n".join(svg) + "\n")


if __name__ == "__main__":
    main()
