#!/usr/bin/env python3
"""Turns results of Google Benchmark into one table of ratios to peers, beside a stored one.

usage: table.py [--stored FILE] [--store] [--machine KIND] RESULT...
  RESULT     JSON with aggregates; the files follow each other in the table, except that a peer
             comes to its case
  --stored   the table of an earlier run, with which this one is compared
  --store    this run becomes the stored one
  --machine  in place of this machine's kind: model of the processor and number of cores

A benchmark's name is its case, "/" and "ours", "bound" or the peer's name. Times are medians: of
the CPU time for one thread, of the wall time per operation of all threads for several.

A row is worse than the stored one when its ratio to the peer has grown by more than a tenth: the
peer tells how fast the machine is today. Runs of two kinds of machine are not compared.
"""

import argparse
import datetime
import json
import os
import re
import sys

SLOWER = 1.05
# The ratio to the peer, by the stored ratio.
WORSE = 1.10
# The aim for a test of a trace type that is off, on top of the loop around it.
EMPTY_LOOP = "empty loop"
MOST_NS_OVER_EMPTY_LOOP = 1.0
# Repetitions that differ as much (standard deviation by mean) say little.
NOISY = 0.10

NAME = re.compile(r"^(?P<case>.+?)/(?P<side>[^/]+)(?:/(?:[a-z_]+:[\d.]+|real_time))*$")
# A row of a stored table: the case, our time, the peer's, the peer, the ratio, and more.
ROW = re.compile(r"(\S.*?)  +([\d.]+)  +([\d.]+)  +(\S.*?)  +[\d.]+(?: .*)?")
NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
NUMBERS = ("ours ns", "peer ns", "ratio", "bound", "stored")


def machine_kind():
    with open("/proc/cpuinfo", encoding="utf-8") as stream:
        model = re.search(r"^model name\s*:\s*(.*)$", stream.read(), re.MULTILINE)
    return f"{model[1] if model else 'unknown processor'}, {os.cpu_count()} cores"


def read_results(files):
    """{case: {side: {"median": nanoseconds, "cv": fraction, "memory": bytes}}} in the order of the
    benchmarks; the memory only where a benchmark counts it.
    """
    results = {}
    for file in files:
        with open(file, encoding="utf-8") as stream:
            text = stream.read()
        # Nothing is written when no benchmark of a process matches the filter.
        runs = json.loads(text)["benchmarks"] if text.strip() else []
        for run in sorted(runs, key=lambda run: run["family_index"]):
            if run.get("run_type") != "aggregate":
                continue
            name = NAME.match(run["run_name"])
            side = results.setdefault(name["case"], {}).setdefault(name["side"], {})
            time = "real_time" if "/real_time" in run["run_name"] else "cpu_time"
            if run["aggregate_name"] == "median":
                side["median"] = run[time] * NS[run["time_unit"]]
                if "memory" in run:
                    side["memory"] = run["memory"]
            elif run["aggregate_name"] == "cv":
                side["cv"] = run[time]
    return results


def is_slower(ours, peer, side, bound):
    if side == EMPTY_LOOP:
        return ours - peer > MOST_NS_OVER_EMPTY_LOOP
    return ours > SLOWER * max(peer, bound)


def make_rows(results, stored):
    """Rows of the table; `stored` has ratios by case and peer."""
    rows = []
    for case, sides in results.items():
        ours = sides.get("ours", {})
        bound = sides.get("bound", {})
        for side, peer in sides.items():
            if side in ("ours", "bound") or "median" not in ours or "median" not in peer:
                continue
            ratio = ours["median"] / peer["median"]
            before = stored.get((case, side))
            marks = {
                "SLOWER": is_slower(ours["median"], peer["median"], side, bound.get("median", 0)),
                "WORSE": before is not None and ratio > WORSE * before,
                "noisy": max(times.get("cv", 0) for times in (ours, peer, bound)) > NOISY,
            }
            rows.append({
                "case": case,
                "ours ns": f"{ours['median']:.2f}",
                "peer ns": f"{peer['median']:.2f}",
                "peer": side,
                "ratio": f"{ratio:.2f}",
                "bound": f"{bound['median'] / peer['median']:.2f}" if bound else "",
                "stored": f"{before:.2f}" if before is not None else "",
                "": " ".join(word for word, is_true in marks.items() if is_true),
            })
    return rows


def table(rows, columns):
    """The lines of a table. Two spaces and more are between columns, and nowhere else."""
    lines = [dict(zip(columns, columns))] + rows
    widths = {column: max(len(line[column]) for line in lines) for column in columns}
    for line in lines:
        yield "  ".join(
            line[column].rjust(widths[column])
            if column in NUMBERS
            else line[column].ljust(widths[column])
            for column in columns
        ).rstrip()


def count_line(rows):
    slower = sum("SLOWER" in row[""] for row in rows)
    return (
        f"{len(rows)} comparisons, {slower} slower than {SLOWER:.2f} times the peer and the bound "
        f"(for the empty loop: {MOST_NS_OVER_EMPTY_LOOP:.0f} ns above it); noisy: {NOISY:.0%} "
        "deviation or more between repetitions."
    )


def memory_lines(results):
    """The peak memory of the processes that were started, of each side where it was counted."""
    for case, sides in results.items():
        told = [f"{side} {times['memory'] / 1e6:.1f} MB"
                for side, times in sides.items() if "memory" in times and side != "bound"]
        if told:
            yield f"Peak memory: {case}: {'; '.join(told)}"


def read_stored(file):
    """The kind of machine, the date and {(case, peer): (our time, the peer's)} of a stored run."""
    with open(file, encoding="utf-8") as stream:
        text = stream.read()
    head = re.match(r"machine: (.+)\ndate: (.+)\n\ncase .*\n", text)
    if not head:
        sys.exit(f"{file}: no table of a stored run")
    times = {}
    for line in text[head.end():].splitlines():
        row = ROW.fullmatch(line)
        if row and float(row[2]) > 0 and float(row[3]) > 0:
            times[row[1], row[4]] = float(row[2]), float(row[3])
        elif "  " in line:
            sys.exit(f"{file}: no row of a table: {line}")
    return head[1], head[2], times


def store(file, machine, rows, memory):
    for row in rows:
        row[""] = " ".join(word for word in row[""].split() if word != "WORSE")
    columns = ("case", "ours ns", "peer ns", "peer", "ratio", "bound", "")
    lines = [f"machine: {machine}", f"date: {datetime.date.today()}", ""]
    lines += table(rows, columns)
    lines.append(count_line(rows))
    lines += memory
    with open(file, "w", encoding="utf-8") as stream:
        stream.write("\n".join(lines) + "\n")


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("--stored")
    parser.add_argument("--store", action="store_true")
    parser.add_argument("--machine", default=machine_kind())
    parser.add_argument("results", nargs="+")
    arguments = parser.parse_args()
    if arguments.store and not arguments.stored:
        parser.error("--store needs --stored")

    ratios = {}
    said = "No stored run to compare with."
    if arguments.stored and os.path.exists(arguments.stored):
        machine, date, times = read_stored(arguments.stored)
        if machine == arguments.machine:
            ratios = {key: ours / peer for key, (ours, peer) in times.items()}
            said = ""
        else:
            said = (
                f"Not compared with the stored run: that is of another kind of machine ({machine}; "
                f"this is {arguments.machine})."
            )

    results = read_results(arguments.results)
    rows = make_rows(results, ratios)
    memory = list(memory_lines(results))
    if not rows:
        sys.exit("No benchmark with a peer matches.")
    columns = ("case", "ours ns", "peer ns", "peer", "ratio", "bound")
    print(*table(rows, columns + (("stored", "") if ratios else ("",))), sep="\n")
    print(count_line(rows), *memory, sep="\n")
    if not said:
        worse = sum("WORSE" in row[""] for row in rows)
        new = sum(row["stored"] == "" for row in rows)
        said = (
            f"{worse} worse than in the run of {date}: a ratio to the peer above {WORSE:.2f} times "
            f"the stored one; {new} without a stored one."
        )
    print(said)
    if arguments.store:
        store(arguments.stored, arguments.machine, rows, memory)


if __name__ == "__main__":
    main()
