#!/usr/bin/env python3
"""Turns results of Google Benchmark into one table of ratios to peers.

usage: table.py FILE...   (JSON with aggregates; the files follow each other in the table)

A benchmark's name is its case, "/" and "ours" or the peer's name. Times are medians: of the
CPU time for one thread, of the wall time per operation of all threads for several.
"""

import json
import re
import sys

SLOWER = 1.05
# The aim for a test of a trace type that is off, on top of the loop around it.
EMPTY_LOOP = "empty loop"
MOST_NS_OVER_EMPTY_LOOP = 1.0
# Repetitions that differ as much (standard deviation by mean) say little.
NOISY = 0.10

NAME = re.compile(r"^(?P<case>.+?)/(?P<side>[^/]+)(?:/(?:threads:\d+|real_time))*$")
NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def read(files):
    """Yields (case, side, aggregate, value) in the order in which the benchmarks were made:
    medians in nanoseconds, the cv as a fraction."""
    for file in files:
        with open(file, encoding="utf-8") as stream:
            text = stream.read()
        # Nothing is written when no benchmark of a process matches the filter.
        runs = json.loads(text)["benchmarks"] if text.strip() else []
        for run in sorted(runs, key=lambda run: run["family_index"]):
            if run.get("run_type") != "aggregate":
                continue
            name = NAME.match(run["run_name"])
            time = "real_time" if "/real_time" in run["run_name"] else "cpu_time"
            if run["aggregate_name"] == "median":
                yield name["case"], name["side"], "median", run[time] * NS[run["time_unit"]]
            elif run["aggregate_name"] == "cv":
                yield name["case"], name["side"], "cv", run[time]


def mark(ours, peer, side, noisy):
    if side == EMPTY_LOOP:
        slower = ours - peer > MOST_NS_OVER_EMPTY_LOOP
    else:
        slower = ours > SLOWER * peer
    return " ".join(word for word, true in (("SLOWER", slower), ("noisy", noisy)) if true)


def rows(results):
    for case, sides in results.items():
        ours = sides.get("ours")
        for side, peer in sides.items():
            if side == "ours" or ours is None:
                continue
            noisy = max(ours.get("cv", 0), peer.get("cv", 0)) > NOISY
            yield (
                case,
                f"{ours['median']:.2f}",
                f"{peer['median']:.2f}",
                side,
                f"{ours['median'] / peer['median']:.2f}",
                mark(ours["median"], peer["median"], side, noisy),
            )


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    results = {}
    for case, side, aggregate, value in read(sys.argv[1:]):
        results.setdefault(case, {}).setdefault(side, {})[aggregate] = value
    body = list(rows(results))
    if not body:
        sys.exit("No benchmark with a peer matches.")
    table = [("case", "ours ns", "peer ns", "peer", "ratio", "")] + body
    widths = [max(len(row[column]) for row in table) for column in range(6)]
    for row in table:
        cells = (
            cell.rjust(width) if column in (1, 2, 4) else cell.ljust(width)
            for column, (cell, width) in enumerate(zip(row, widths))
        )
        print("  ".join(cells).rstrip())
    slower = sum("SLOWER" in row[5] for row in body)
    print(
        f"{len(body)} comparisons, {slower} slower than {SLOWER:.2f} times the peer (for the "
        f"empty loop: {MOST_NS_OVER_EMPTY_LOOP:.0f} ns above it); noisy: "
        f"{NOISY:.0%} deviation or more between repetitions."
    )


if __name__ == "__main__":
    main()
